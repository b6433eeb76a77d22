// What the masters have, as it was last listed.

#pragma once

#include "ozf/base/OzfObjTime.h"
#include "tools/Records.h"
#include "web/EventLog.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <span>
#include <string>
#include <vector>

namespace tqdiscoctl
{
struct FleetFigures;
struct ServiceFigures;
} // namespace tqdiscoctl

namespace Web
{

using Records = std::vector<tqdiscoctl::Record>;

// One master. Records are by subject, authority, type and whether they are on demand.
struct MasterList
{
  enum State
  {
    STARTING, // not listed yet
    UP,
    AWAY
  };

  std::string master;
  State state = STARTING;
  Quillon::Tessarine::Ozf::OzfObjTime since; // the state began
  std::string reason;                        // why it is away
  bool complete = true;                      // the last list lacked nothing
  Quillon::Tessarine::Ozf::OzfObjTime listed;
  double listSeconds = 0;
  double interval = 0; // seconds to the next list
  std::string ownName; // as the master calls itself, where it lists anything
  std::shared_ptr<Records const> records = std::make_shared<Records const>();

  // Of the records.
  std::size_t hosts = 0;
  std::size_t silentHosts = 0;
  Quillon::Tessarine::Ozf::OzfObjTime oldest; // the oldest latest report of a host

  // As of the last list; null while there is no whole one.
  std::shared_ptr<tqdiscoctl::FleetFigures const> figures;

  // What the master's service told of itself; null where it tells nothing, or could not be
  // asked.
  std::shared_ptr<tqdiscoctl::ServiceFigures const> service;
};

nlohmann::json toJson(MasterList const& list);

// Those about it.
std::span<tqdiscoctl::Record const> recordsOf(MasterList const& list, std::string const& subject);

// Whether a stands before b in a list.
bool isBefore(tqdiscoctl::Record const& a, tqdiscoctl::Record const& b);

// The lists of all masters. Any thread; what it hands out stays as it is.
class KeptList
{
public:
  struct Look
  {
    std::vector<MasterList> masters;
    std::uint64_t generation; // another whenever a record has come, gone or changed

    // Whether any master has been listed.
    bool anyListed() const;
  };

  KeptList(std::vector<std::string> const& masters, EventLog& events);

  std::shared_ptr<Look const> look() const;

  // A list has come: records as they came, and how the master calls itself. Where it is incomplete,
  // what it lacks and was known before stays.
  void update(std::size_t master, Records records, std::string const& ownName, bool complete,
              double seconds);

  // Beside the list that comes next.
  void setService(std::size_t master,
                  std::shared_ptr<tqdiscoctl::ServiceFigures const> const& service);

  // The master could not be listed.
  void fail(std::size_t master, std::string const& reason);

  // Known as soon as the list is there, for status.
  void setInterval(std::size_t master, double seconds);

private:
  // Whether the state is another.
  bool replace(std::size_t master, MasterList list, bool newRecords);
  void tellState(std::size_t master);
  bool tellChanges(Records const& before, Records const& after);

  EventLog& m_events;
  std::mutex m_updating; // one at a time
  mutable std::mutex m_mutex;
  std::shared_ptr<Look const> m_look;
};

} // namespace Web
