#include "discovery/ExplorerCrashes.h"

#include "discovery/DiscoveryLog.h"
#include "ozf/base/OzfPathname.h"
#include "ozf/base/SystemError.h"
#include "ozf/config/ProductRoot.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <optional>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

namespace
{

constexpr char SOURCE[] = "ExplorerCrashes";
constexpr char BEGIN[] = "ExplorerCrashes::begin";

// The file of marks: a line with the boot's identifier, then so many lines of one length.
// The first letter of each says how it stands.
constexpr int SLOTS = 64;
constexpr std::size_t LINE = 512;
constexpr char FREE = '-';
constexpr char RUNNING = 'r';
constexpr char SIGNALLED = 's'; // two digits follow
constexpr char EXITED = 'e';
constexpr std::size_t TEXT_AT = 4;

constexpr int FATAL[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGSYS};

// All that a signal handler touches.
std::atomic<int> marksFile{-1};
std::array<std::atomic<pid_t>, SLOTS> slotThreads{};
struct sigaction previousActions[_NSIG] = {};

pid_t ownThread() noexcept { return static_cast<pid_t>(syscall(SYS_gettid)); }

off_t placeOf(int slot) noexcept { return static_cast<off_t>((slot + 1) * LINE); }

// A mark that cannot be written is missed by the next start alone.
void writeAt(off_t place, char const* text, std::size_t size) noexcept
{
  int const file = marksFile;
  if (file >= 0 && pwrite(file, text, size, place) < 0)
    return;
}

// Of the innermost call on this thread, once; false when there is none. Safe in a signal
// handler.
bool markOwn(char letter, int signal) noexcept
{
  pid_t const thread = ownThread();
  char const state[3] = {letter, static_cast<char>('0' + signal / 10 % 10),
                         static_cast<char>('0' + signal % 10)};
  for (int slot = SLOTS - 1; slot >= 0; --slot)
    if (slotThreads[static_cast<std::size_t>(slot)] == thread)
    {
      writeAt(placeOf(slot), state, sizeof state);
      slotThreads[static_cast<std::size_t>(slot)] = 0;
      return true;
    }
  return false;
}

void onFatal(int signal)
{
  int const error = errno;
  markOwn(SIGNALLED, signal);
  // Once more, as it would have been without this.
  sigaction(signal, &previousActions[signal], nullptr);
  raise(signal);
  errno = error;
}

void catchFatal()
{
  struct sigaction action = {};
  action.sa_handler = onFatal;
  action.sa_flags = SA_ONSTACK;
  sigfillset(&action.sa_mask);
  for (int const signal : FATAL)
    sigaction(signal, &action, &previousActions[signal]);
  // An explorer that ends the process does so in the middle of what other threads do:
  // there can be no clean-up, and whoever starts services is to see a failure.
  std::atexit(
      []
      {
        if (markOwn(EXITED, 0))
          std::_Exit(EXIT_FAILURE);
      });
}

// A thread that has no stack left can still be asked what ran on it.
class SpareStack
{
public:
  SpareStack()
  {
    stack_t present = {};
    if (sigaltstack(nullptr, &present) != 0 || (present.ss_flags & SS_DISABLE) == 0)
      return;
    m_memory = std::make_unique<char[]>(SIZE);
    stack_t own = {};
    own.ss_sp = m_memory.get();
    own.ss_size = SIZE;
    sigaltstack(&own, nullptr);
  }
  ~SpareStack()
  {
    if (!m_memory)
      return;
    stack_t none = {};
    none.ss_flags = SS_DISABLE;
    sigaltstack(&none, nullptr);
  }
  SpareStack(SpareStack const&) = delete;
  SpareStack& operator=(SpareStack const&) = delete;

private:
  static constexpr std::size_t SIZE = 64 << 10;
  std::unique_ptr<char[]> m_memory;
};

std::string folder() { return getProductRoot() + "/db/explorers"; }
std::string marksPath() { return folder() + "/running"; }

std::string bootIdentifier()
{
  std::ifstream file("/proc/sys/kernel/random/boot_id");
  std::string identifier;
  std::getline(file, identifier);
  return identifier;
}

std::string padded(std::string text)
{
  text.resize(LINE - 1, ' ');
  return text + '\n';
}

// So long that a line holds all four.
std::string part(std::string text, std::size_t longest)
{
  if (text.size() > longest)
    text.erase(0, text.size() - longest);
  std::replace_if(
      text.begin(), text.end(), [](char letter) { return letter == '\t' || letter == '\n'; }, ' ');
  return text;
}

std::vector<std::string> parts(std::string const& text)
{
  std::vector<std::string> result;
  std::size_t begin = 0;
  for (std::size_t tab; (tab = text.find('\t', begin)) != std::string::npos; begin = tab + 1)
    result.push_back(text.substr(begin, tab - begin));
  result.push_back(text.substr(begin));
  return result;
}

std::string inARow(int count)
{
  return count == 1 ? "" : ", " + std::to_string(count) + " starts in a row";
}

} // namespace

// ---- suspects and counts ----

std::string CrashSuspect::text() const
{
  return part(what, 16) + '\t' + part(authority, 120) + '\t' + part(subject, 120) + '\t' +
         part(origin, 200);
}

CrashSuspect CrashSuspect::fromText(std::string const& text)
{
  auto const all = parts(text);
  return all.size() == 4 ? CrashSuspect{all[0], all[1], all[2], all[3]} : CrashSuspect();
}

std::string CrashSuspect::name() const
{
  return authority + (origin.empty() || origin == authority ? "" : " of " + origin);
}

CrashCounts CrashCounts::read(std::string const& path)
{
  CrashCounts result;
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);)
  {
    auto const tab = line.find('\t');
    int const count = std::atoi(line.c_str());
    if (tab != std::string::npos && count > 0 &&
        !CrashSuspect::fromText(line.substr(tab + 1)).what.empty())
      result.counts[line.substr(tab + 1)] = count;
  }
  return result;
}

bool CrashCounts::write(std::string const& path) const
{
  struct stat before = {};
  bool const known = stat(path.c_str(), &before) == 0;
  std::string const temporary = path + ".new";
  std::string text;
  for (auto const& [suspect, count] : counts)
    text += std::to_string(count) + '\t' + suspect + '\n';
  unlink(temporary.c_str());
  UniqueFd const file(
      open(temporary.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC | O_NOFOLLOW, 0640));
  if (!file.valid() ||
      (known && geteuid() == 0 && fchown(file.get(), before.st_uid, before.st_gid) != 0) ||
      ::write(file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
      fsync(file.get()) != 0)
    return false;
  return rename(temporary.c_str(), path.c_str()) == 0;
}

std::string getCrashCountsPath() { return folder() + "/crashes"; }

// ---- the service's start and end ----

void ExplorerCrashes::begin()
{
  std::lock_guard const guard(m_mutex);
  if (marksFile >= 0)
    return;
  if (int const error = mkdirpath(folder(), 0750); error != 0)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, BEGIN,
            "Unable to make " << folder()
                              << ", so crashes of explorers are not noted: " << errorText(error));
    return;
  }
  judgeTheLast();
  int const file =
      open(marksPath().c_str(), O_CREAT | O_TRUNC | O_RDWR | O_CLOEXEC | O_NOFOLLOW, 0640);
  if (file < 0)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, BEGIN,
            "Unable to write " << marksPath()
                               << ", so crashes of explorers are not noted: " << errorText(errno));
    return;
  }
  marksFile = file;
  std::string text = padded(bootIdentifier());
  for (int slot = 0; slot < SLOTS; ++slot)
    text += padded(std::string(1, FREE));
  writeAt(0, text.data(), text.size());
  static bool const caught = (catchFatal(), true);
  static_cast<void>(caught);
}

void ExplorerCrashes::judgeTheLast()
{
  std::string const path = getCrashCountsPath();
  CrashCounts before = CrashCounts::read(path);
  CrashCounts after;
  for (auto const& known : before.counts)
    if (known.second >= MOST_CRASHES)
      after.counts.insert(known);

  std::ifstream file(marksPath());
  std::string line;
  std::getline(file, line);
  bool const sameBoot = line.substr(0, line.find(' ')) == bootIdentifier();
  while (std::getline(file, line))
  {
    if (line.size() < TEXT_AT)
      continue;
    std::string text = line.substr(TEXT_AT);
    text.erase(text.find_last_not_of(' ') + 1);
    CrashSuspect const suspect = CrashSuspect::fromText(text);
    bool const ended = line[0] == SIGNALLED || line[0] == EXITED;
    if (suspect.what.empty() || (!ended && (line[0] != RUNNING || !sameBoot)))
      continue;
    m_culprits +=
        (m_culprits.empty() ? "" : ", ") + suspect.name() + (ended ? "" : " (it was running)");
    if (!ended)
    {
      OZF_LOG(getOzfLogger(), 1, SOURCE, BEGIN,
              "Explorer " << suspect.name()
                          << " was running when the service ended without being stopped");
      continue;
    }
    int const count = before.counts[text] + 1;
    after.counts[text] = count;
    if (line[0] == SIGNALLED)
    {
      int const signal = std::atoi(line.substr(1, 2).c_str());
      OZF_LOG(getOzfLogger(), 1, SOURCE, BEGIN,
              "Explorer " << suspect.name() << " (" << suspect.what
                          << ") crashed the service: " << strsignal(signal) << inARow(count));
    }
    else
      OZF_LOG(getOzfLogger(), 1, SOURCE, BEGIN,
              "Explorer " << suspect.name() << " (" << suspect.what << ") ended the service"
                          << inARow(count));
  }
  for (auto const& [text, count] : after.counts)
    if (count >= MOST_CRASHES)
    {
      CrashSuspect const suspect = CrashSuspect::fromText(text);
      OZF_LOG(getOzfLogger(), 1, SOURCE, BEGIN,
              "Explorer " << suspect.name() << " (" << suspect.what << ") is left out: it crashed "
                          << MOST_CRASHES
                          << " starts in a row; tqdiscoctl explorer enable lets it run again");
    }
  if (after.counts != before.counts && !after.write(path))
    OZF_LOG(getOzfLogger(), 1, SOURCE, BEGIN,
            "Unable to write " << path << ", so crashes of explorers are not counted: "
                               << errorText(errno));
  m_counts = after;
  look();
}

void ExplorerCrashes::end()
{
  std::lock_guard const guard(m_mutex);
  int const file = marksFile.exchange(-1);
  if (file < 0)
    return;
  // Nothing to be told of the marks is all that this is for.
  if (ftruncate(file, 0) != 0)
    unlink(marksPath().c_str());
  close(file);
  m_counts = {};
  m_any = false;
}

// ---- who is left out ----

// Under the mutex.
void ExplorerCrashes::look()
{
  std::string const path = getCrashCountsPath();
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0)
    status = {};
  // Within one tick of the system's clock the time stays; each file that replaces it is another.
  if (status.st_ino != m_seen.st_ino || status.st_mtim.tv_sec != m_seen.st_mtim.tv_sec ||
      status.st_mtim.tv_nsec != m_seen.st_mtim.tv_nsec)
  {
    m_seen = status;
    m_counts = CrashCounts::read(path);
  }
  m_any = std::any_of(m_counts.counts.begin(), m_counts.counts.end(),
                      [](auto const& known) { return known.second >= MOST_CRASHES; });
}

int ExplorerCrashes::count(CrashSuspect const& suspect)
{
  std::lock_guard const guard(m_mutex);
  if (m_any)
    look();
  auto const known = m_counts.counts.find(suspect.text());
  return known == m_counts.counts.end() ? 0 : known->second;
}

std::string ExplorerCrashes::culprits()
{
  std::lock_guard const guard(m_mutex);
  return m_culprits;
}

// ---- marks ----

int ExplorerCrashes::take(std::string const& text)
{
  std::lock_guard const guard(m_mutex);
  if (marksFile < 0)
    return -1;
  // Behind those that this thread has: the innermost is the one that is met.
  pid_t const thread = ownThread();
  std::size_t first = 0;
  for (std::size_t slot = 0; slot < SLOTS; ++slot)
    if (slotThreads[slot] == thread)
      first = slot + 1;
  for (std::size_t slot = first; slot < SLOTS; ++slot)
    if (slotThreads[slot] == 0)
    {
      std::string const line = padded(std::string(1, RUNNING) + "   " + text);
      writeAt(placeOf(static_cast<int>(slot)), line.data(), line.size());
      slotThreads[slot] = thread;
      return static_cast<int>(slot);
    }
  return -1;
}

void ExplorerCrashes::giveBack(int slot)
{
  std::lock_guard const guard(m_mutex);
  slotThreads[static_cast<std::size_t>(slot)] = 0;
  writeAt(placeOf(slot), &FREE, 1);
}

CrashMark::CrashMark(CrashSuspect const& suspect)
    : m_slot(getExplorerCrashes().take(suspect.text()))
{
  if (m_slot < 0)
    return;
  static thread_local std::optional<SpareStack> spare;
  if (!spare)
    spare.emplace();
}

CrashMark::~CrashMark()
{
  if (m_slot >= 0)
    getExplorerCrashes().giveBack(m_slot);
}

ExplorerCrashes& getExplorerCrashes()
{
  static auto* const instance = new ExplorerCrashes;
  return *instance;
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
