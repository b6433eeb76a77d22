// Several masters that one command asks side by side.

#pragma once

#include "tools/Reaching.h"

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace tqdiscoctl
{

struct Record;

// One of them.
struct Master
{
  std::string name;  // as it was given; records that it lists carry it
  std::string place; // "backup1:27511"
  Quillon::Tessarine::Ozf::DiscoverySvc::Remote::DiscoveryService_var service; // none before it
                                                                               // was reached
  long milliseconds = 0;   // that it took to be reached
  std::string missing;     // why the answer lacks what it has; empty while it lacks nothing
  bool refused = false;    // it does not allow who asks
  bool incomplete = false; // its last list lacked what it could not read
};

// What becomes of a master is told the user once, by the thread that owns this. Masters that
// are missing are not asked again until they are reached anew.
class Masters
{
public:
  // Seconds that each of them has.
  struct Limits
  {
    long call = 0;
    long answer = 0; // of as many calls as it takes
  };

  // None twice.
  void choose(std::vector<std::string> const& names, Limits limits);

  std::vector<Master> const& all() const noexcept { return m_all; }
  std::size_t size() const noexcept { return m_all.size(); }
  std::size_t missing() const;

  // "backup1:27511, backup2:27511".
  std::string places() const;

  // Reaches those that are missing, or were not reached yet, for so many seconds at most. At first
  // two names that lead to one address are found to be one master: the later name goes. An exit
  // code: EXIT_DONE when there is one that is not missing.
  int reach(Quillon::Tessarine::Ozf::Orb& orb, long seconds);

  // Runs the work for each that is not missing, on a thread of its own, and waits for all of
  // them. It returns why the master is missing from now on, or nothing. It tells nobody; what it
  // throws is such a reason.
  using Work = std::function<std::string(Master& master, std::size_t number)>;
  void each(Work const& work);

  // Whether the one that listed the record is missing.
  bool isMissing(Record const& record) const;

  // Whether the one that listed it still answers; once it did not, it is missing.
  bool answers(Record const& record);

  // The exit code of a command that came to that one: where some masters are missing, what it
  // could do was done in part.
  int conclude(int exitCode) const;

private:
  void tellMissing(std::vector<std::string> const& before) const;
  std::vector<std::string> reasons() const;
  void dropRepeated(std::vector<std::string> const& addresses);
  int whyNone() const;
  std::size_t listerOf(Record const& record) const;

  std::vector<Master> m_all;
  Limits m_limits;
};

} // namespace tqdiscoctl
