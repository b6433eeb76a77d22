// Which explorer has brought the service down, and which are left out because they did
// so again and again.
//
// Whoever calls into an explorer holds a CrashMark meanwhile. It stands in a file below
// the product root, db/explorers/running, so that the next start finds it there when the
// process does not come back from the call. A signal that ends the process, and an exit, is
// put down to the explorer that runs on the thread that met it; what ran on other threads,
// and when the process was killed from outside, is named but not blamed.
//
// db/explorers/crashes counts for how many starts in a row each has ended the service, a
// line each: the count, and what it counts. An explorer with MOST_CRASHES is left out
// until its line is gone, which it takes no start to notice.

#pragma once

#include "discovery/Export.h"

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// What may crash. Two of the same parts are one.
struct TQ_EXPORT CrashSuspect
{
  std::string what; // push, pull, script, start push, start pull or load
  std::string authority;
  std::string subject;
  std::string origin; // the library or the script

  // On one line of tab-separated parts, none of which holds a tab.
  std::string text() const;
  // Nothing is set when it is no such line.
  static CrashSuspect fromText(std::string const& text);
  // For people: "volume of libtqexplorer".
  std::string name() const;
};

inline constexpr int MOST_CRASHES = 3;

// The counts as they are in the file; others are kept when one is written.
struct TQ_EXPORT CrashCounts
{
  std::map<std::string, int> counts; // by the text of the suspect

  // Missing is empty.
  static CrashCounts read(std::string const& path);
  // False, with errno, when it cannot be written. Keeps owner and mode of what was there.
  bool write(std::string const& path) const;
};

// Below the product root.
TQ_EXPORT std::string getCrashCountsPath();

class CrashMark;

// Any thread.
class TQ_EXPORT ExplorerCrashes
{
public:
  // Tells, with a line each, what the end of the last process has left, counts it, and
  // notes from now on who runs. Without it nothing is noted and nobody left out.
  void begin();

  // The service ends in order: what is still running has not crashed.
  void end();

  // Starts in a row that it has ended; 0 when it is in order.
  int count(CrashSuspect const& suspect);
  bool isLeftOut(CrashSuspect const& suspect) { return count(suspect) >= MOST_CRASHES; }

  // Who ended the process before this one, or was running when it ended, for people; empty
  // when nobody.
  std::string culprits();

private:
  friend class CrashMark;

  void judgeTheLast();
  void look();
  int take(std::string const& text);
  void giveBack(int slot);

  std::mutex m_mutex; // all below
  CrashCounts m_counts;
  std::string m_culprits;
  struct stat m_seen = {}; // the file that was read
  bool m_any = false;      // whether somebody is left out
};

// For the time of a call on this thread.
class TQ_EXPORT CrashMark
{
public:
  explicit CrashMark(CrashSuspect const& suspect);
  ~CrashMark();
  CrashMark(CrashMark const&) = delete;
  CrashMark& operator=(CrashMark const&) = delete;

private:
  int const m_slot; // -1: none
};

// The process's one.
TQ_EXPORT ExplorerCrashes& getExplorerCrashes();

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
