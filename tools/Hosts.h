// What is listed of each host.

#pragma once

#include "tools/Records.h"

#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <string_view>

namespace tqdiscoctl
{

// A subject, with what is listed about it.
struct Host
{
  std::size_t discoveries = 0;
  std::set<std::string_view> authorities;     // as the records have them, which must stay
  Quillon::Tessarine::Ozf::OzfObjTime latest; // zero when all is on demand
  Quillon::Tessarine::Ozf::OzfObjTime firstExpiry;

  void add(Record const& record);
};

// master: empty where only one is asked.
nlohmann::json toJson(std::string const& name, Host const& host, std::string const& master = {});

// The authority under which each service tells of itself.
inline constexpr char SERVICE_AUTHORITY[] = "service";

// Whether an explorer has told of the host: what was put in may be about anything.
bool isFromExplorer(Record const& record);

// Whether the host's service tells of itself in it.
bool isFromService(Record const& record);

// Hosts whose explorers have told something while their service tells nothing of itself
// any more. Where no service tells of itself, none is missed.
class HostSilence
{
public:
  // All records of one master; those of the first look must stay.
  void add(Record const& record);

  // Of a host that add has seen.
  bool contains(std::string const& host) const;

private:
  static constexpr int TELLS = 1;   // its service does
  static constexpr int IS_HOST = 2; // its explorers did

  std::map<std::string_view, int> m_seen;
  bool m_anyTells = false;
};

} // namespace tqdiscoctl
