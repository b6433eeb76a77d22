// Hosts that report nothing yet, since they have not announced themselves to the
// master.

#pragma once

#include "ozf/base/OzfObjTime.h"

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace tqdiscoctl
{

// What a service tells of how far it has come.
struct AnnouncingHost
{
  std::string name;
  std::string state; // waiting, retrying, announced or none
  Quillon::Tessarine::Ozf::OzfObjTime next;
  Quillon::Tessarine::Ozf::OzfObjTime last;
  std::string reason;

  // Whether it has not done so yet.
  bool isPending() const { return state == "waiting" || state == "retrying"; }

  // For people, when it is pending.
  std::string sentence(Quillon::Tessarine::Ozf::OzfObjTime const& now) const;
};

// Asks the service on that host; nothing, with a line for those who ask for one,
// when it cannot be asked or is too old to know. The research API is up. Blocks for
// the time-out at worst.
std::optional<AnnouncingHost> askAnnouncing(std::string const& host);

// The name of this host, whose service is reached by it from now on; empty when the host
// has none.
std::string nameOfThisHost();

// The same of the service on this host; nothing as well where it is the master.
std::optional<AnnouncingHost> askAnnouncingHere();

nlohmann::json toJson(std::optional<AnnouncingHost> const& host);

} // namespace tqdiscoctl
