// What the explorers of this process do: where each comes from, when it ran, how long
// that took, what it added to the memory of the process, what came of it, and which of
// them has run for longer than it may.
//
// Whoever runs explorers, of whatever kind, declares each once and makes an ExplorerRun
// of every run. The service gives the records out under EXPLORERS_AUTHORITY of its own
// collections.

#pragma once

#include "discovery/ExplorerCrashes.h"
#include "discovery/Export.h"
#include "ozf/base/OzfObjTime.h"

#include <DiscoveryTypesC.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// How long whoever asks this service waits for an answer.
inline constexpr std::chrono::seconds REQUEST_TIMEOUT{30};

class ExplorerRun;
class ExplorerRuns;

// One explorer under one name. Lives as long as whoever declared it keeps it, and a run
// lasts. Any thread.
class TQ_EXPORT ExplorerRecord
{
public:
  enum Kind
  {
    PUSH,
    PULL,
    SCRIPT
  };
  struct Description
  {
    Kind kind = PUSH;
    std::string authority;
    AuthorityType type = AT_TQUCLIENT;
    std::string subject;
    ExplorerPriority priority = 0;
    std::string origin;             // the library or the file that it comes from
    void const* explorer = nullptr; // the object, where several names may share one
  };
  enum State
  {
    IDLE,
    RUNNING,
    LATE,    // runs for longer than it may
    LEFT_OUT // crashed the service too often
  };
  struct Now
  {
    State state = IDLE;
    OzfObjTime lastRun;     // when it began; zero when there was none
    OzfObjTime lastSuccess; // when the last one began that was in order; likewise
    // Of the last run that has ended: how long, and by how many bytes the memory of
    // the process grew meanwhile, whoever needed them; negative when it shrank. Of a
    // script: the most that it had itself.
    std::optional<std::chrono::microseconds> took;
    std::optional<std::int64_t> memory;
    // A few words; "late" while it is, "left out" and "crashed", until it has run, of one
    // that did; empty when it has not run.
    std::string result;
    bool well = true; // whether that is in order
    // Since it was declared: runs that have ended, those of them that were not in order,
    // and those that were late, ended or not.
    std::uint64_t runs = 0;
    std::uint64_t failures = 0;
    std::uint64_t lateRuns = 0;
  };

  Description const& description() const noexcept { return m_description; }
  Now now() const;

  // For log lines: "volume of libtqexplorer".
  std::string name() const { return m_suspect.name(); }

  // As what its runs, and its start, count when they crash.
  CrashSuspect const& suspect() const noexcept { return m_suspect; }
  CrashSuspect startSuspect() const;

  // What became of it after its last run, that which began at the given time; a time of
  // zero when there was none. Nothing when another has ended since.
  void amend(OzfObjTime const& run, std::string const& result, bool well);

  // It is left out as long as the process lives: it has not been started.
  void setNotStarted() noexcept { m_notStarted = true; }

private:
  friend class ExplorerRun;
  friend class ExplorerRuns;
  ExplorerRecord(ExplorerRuns& runs, Description description);

  bool isLeftOut() const;

  ExplorerRuns& m_runs;
  Description const m_description;
  CrashSuspect const m_suspect;
  std::atomic<bool> m_notStarted{false};
  // Guarded by the mutex of m_runs.
  Now m_now;
  OzfObjTime m_successBefore; // the last run
  int m_running = 0;
};

class TQ_EXPORT ExplorerRuns
{
public:
  ExplorerRuns();
  ~ExplorerRuns();
  ExplorerRuns(ExplorerRuns const&) = delete;
  ExplorerRuns& operator=(ExplorerRuns const&) = delete;

  std::shared_ptr<ExplorerRecord> declare(ExplorerRecord::Description description);

  // In the order in which they were declared.
  std::vector<std::shared_ptr<ExplorerRecord>> all() const;

  // Whether a late run of it, or of the explorer that it shares, is still in progress:
  // there must not be another one beside it.
  bool isLate(ExplorerRecord const& record) const;

  // Whether it may run now: it is neither late nor left out.
  bool mayRun(ExplorerRecord const& record) const { return !record.isLeftOut() && !isLate(record); }

  // Those with a run in progress, and for how long it has been.
  struct Unfinished
  {
    std::shared_ptr<ExplorerRecord const> record;
    std::chrono::milliseconds since;
    bool late;
  };
  std::vector<Unfinished> unfinished() const;

  // Takes a step that waits for collections in progress, on a thread of its own. True
  // when it was taken; false when all that are in progress are late. It may then go on
  // without end, so nothing that it uses may go.
  bool takeStep(std::function<void()> step);

  // How long a run may take: EXPLORER_BUDGET_SECONDS; one that somebody waits for no
  // longer than he does.
  static std::chrono::milliseconds budget();
  static std::chrono::milliseconds budgetOnRequest();

private:
  friend class ExplorerRun;
  friend class ExplorerRecord;
  struct Progress;
  struct Watch;

  void watch();
  bool hasOnlyLateCollections() const; // under the mutex

  mutable std::mutex m_mutex;
  std::map<std::uint64_t, std::weak_ptr<ExplorerRecord>> m_records; // in order
  std::uint64_t m_declared = 0;
  static constexpr std::size_t LEAST_TIDY = 64;
  std::size_t m_tidyAt = LEAST_TIDY; // records, those that are gone included
  std::atomic<int> m_steps{0};       // that wait
  std::set<std::shared_ptr<Progress>> m_inProgress;
  std::unique_ptr<Watch> m_watch;
};

// A run, on the thread that makes it, from its construction to its end. Nothing comes of
// one that ends without finish.
class TQ_EXPORT ExplorerRun
{
public:
  // onLate is called once the budget has passed and the run still goes on, on a thread
  // that must not be held up, after a line has told of it. It may outlive the run.
  ExplorerRun(std::shared_ptr<ExplorerRecord> record, std::chrono::milliseconds budget,
              std::function<void()> onLate = {});
  ~ExplorerRun();
  ExplorerRun(ExplorerRun const&) = delete;
  ExplorerRun& operator=(ExplorerRun const&) = delete;

  OzfObjTime const& began() const noexcept;

  // What came of it; well when that is in order. Who knows better than this what memory it
  // took tells the bytes.
  void finish(std::string const& result, bool well, std::optional<std::int64_t> memory = {});

  // Ends it. Whether it was late: then, and only then, onLate has been called or is about
  // to be.
  bool end();

private:
  CrashMark const m_mark;
  std::shared_ptr<ExplorerRuns::Progress> m_progress;
  std::int64_t const m_memoryBefore; // of the process
  std::optional<std::int64_t> m_memory;
  std::string m_result;
  bool m_well = false;
  bool m_ended = false;
  bool m_late = false;
};

// The process's one.
TQ_EXPORT ExplorerRuns& getExplorerRuns();

// Whether what came of a run is in order.
TQ_EXPORT bool isInOrder(DiscoveryStatus status);

// "push", "pull" and "script"; "idle", "running", "late" and "left out".
TQ_EXPORT char const* nameOf(ExplorerRecord::Kind kind);
TQ_EXPORT char const* nameOf(ExplorerRecord::State state);

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
