#include "tests/torture/KilledWriters.h"

#include "tests/torture/DatabaseJudge.h"
#include "tests/torture/FileRecorder.h"
#include "tests/torture/Versions.h"
#include "tools/DatabaseScan.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tqtorture
{
namespace
{

namespace fs = std::filesystem;

constexpr unsigned WRITERS = 4;
constexpr unsigned NAMES = 3;              // of each writer
constexpr std::uint64_t PER_LIFE = 100000; // more versions than one life can write

// At once and in one piece, so that nothing said is lost with the process.
void say(int channel, std::string const& line)
{
  std::string const text = line + "\n";
  if (write(channel, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
    _exit(3);
}

std::string nameOf(unsigned writer, unsigned number)
{
  return "w" + std::to_string(writer) + "-" + std::to_string(number);
}

void writeForEver(int channel, unsigned writer, std::uint64_t number, unsigned seed)
{
  std::mt19937 random(seed);
  std::string const directory = svc::getDiscoveryDBDatabase()->getDirectory();
  for (;; ++number)
  {
    std::string const name = nameOf(writer, static_cast<unsigned>(random() % NAMES));
    std::string const what = name + " " + std::to_string(number);
    say(channel, "begin " + what);
    svc::DiscoveryStatus const status = storeVersion(
        name, {.number = number, .signatureSize = random() % 700, .payloadSize = random() % 9000});
    if (status != svc::DS_SUCCESS)
    {
      say(channel, "wrong a write is refused with status " + std::to_string(status));
      continue;
    }
    say(channel, "done " + what);
    if (std::string const state = stateOf(directory, name);
        random() % 8 == 0 && state != "whole " + std::to_string(number))
      say(channel, "wrong after the acknowledgement there is: " + state);
  }
}

// Starts the database and tells what it finds: "found NAME STATE", with "empty "
// before the state when the metadata file has no bytes.
void lookAround(int channel)
{
  auto* const database = svc::getDiscoveryDBDatabase();
  database->init("");
  std::string const directory = database->getDirectory();
  for (auto const& entry : fs::directory_iterator(directory))
    if (entry.path().extension() == ".updating")
      say(channel, "wrong the start leaves temporary files");
  for (unsigned writer = 0; writer < WRITERS; ++writer)
    for (unsigned number = 0; number < NAMES; ++number)
    {
      std::string const name = nameOf(writer, number);
      std::string const metadata = directory + "/" + fileOf(name, "xml");
      std::error_code none;
      bool const empty = fs::file_size(metadata, none) == 0 && !none;
      say(channel, "found " + name + (empty ? " empty " : " ") + stateOf(directory, name));
    }
}

std::string readAll(int fd)
{
  std::string text;
  std::array<char, 4096> buffer;
  for (ssize_t n; (n = read(fd, buffer.data(), buffer.size())) > 0;)
    text.append(buffer.data(), static_cast<std::size_t>(n));
  return text;
}

// A process that runs the action with the writing end of a pipe.
template <class Action>
pid_t startProcess(std::string const& root, int& channel, Action const& action)
{
  std::fflush(nullptr);
  int ends[2];
  if (pipe(ends) != 0)
    throw std::runtime_error("no pipe");
  pid_t const pid = fork();
  if (pid < 0)
    throw std::runtime_error("no process");
  if (pid == 0)
  {
    close(ends[0]);
    int const log = open((root + ".log").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (log < 0 || dup2(log, STDERR_FILENO) < 0)
      _exit(3);
    try
    {
      action(ends[1]);
    }
    catch (std::exception const& exception)
    {
      say(ends[1], std::string("wrong exception: ") + exception.what());
    }
    _exit(0);
  }
  close(ends[1]);
  channel = ends[0];
  return pid;
}

} // namespace

KilledWriters::KilledWriters(std::string root, std::mt19937& random)
    : m_root(std::move(root)), m_random(random)
{
}

void KilledWriters::round(KillResult& result, unsigned longestLife)
{
  std::uint64_t const first = m_next;
  m_next += WRITERS * PER_LIFE;
  unsigned const seed = static_cast<unsigned>(m_random());
  unsigned const life = static_cast<unsigned>(m_random()) % std::max(1U, longestLife);
  // Without them a process lives through more writes before it is killed; a kill
  // takes nothing from the disk.
  bool const withFlushes = m_random() % 4 == 0;
  int channel = -1;
  pid_t const pid =
      startProcess(m_root, channel,
                   [&](int out)
                   {
                     if (!withFlushes)
                       FileRecorder::leaveOutFlushes();
                     lookAround(out);
                     say(out, "started");
                     std::vector<std::thread> writers;
                     for (unsigned i = 0; i < WRITERS; ++i)
                       writers.emplace_back(writeForEver, out, i, first + i * PER_LIFE, seed + i);
                     for (auto& writer : writers)
                       writer.join();
                   });
  // From the first write on.
  std::string said;
  std::array<char, 4096> buffer;
  while (said.find("begin") == std::string::npos)
  {
    ssize_t const n = read(channel, buffer.data(), buffer.size());
    if (n <= 0)
      break;
    said.append(buffer.data(), static_cast<std::size_t>(n));
  }
  std::this_thread::sleep_for(std::chrono::microseconds(life));
  kill(pid, SIGKILL);
  said += readAll(channel);
  close(channel);
  int status = 0;
  waitpid(pid, &status, 0);
  if (!WIFSIGNALED(status) || WTERMSIG(status) != SIGKILL)
    ++result.broken["the writers ended by themselves"];
  ++result.kills;
  look(result, said);
}

void KilledWriters::finish(KillResult& result)
{
  int channel = -1;
  pid_t const pid = startProcess(m_root, channel, [](int out) { lookAround(out); });
  look(result, readAll(channel));
  close(channel);
  int status = 0;
  waitpid(pid, &status, 0);
  if (status != 0)
    ++result.broken["the last start fails"];
}

// What is found first belongs to the lives before; then come the words of this.
void KilledWriters::look(KillResult& result, std::string const& said)
{
  std::istringstream lines(said);
  std::string later;
  for (std::string line; std::getline(lines, line);)
  {
    std::istringstream words(line);
    std::string word;
    std::string name;
    words >> word >> name >> std::ws;
    if (word != "found")
    {
      later += line + "\n";
      continue;
    }
    std::string state;
    std::getline(words, state);
    bool const empty = state.rfind("empty ", 0) == 0;
    ++result.looks;
    if (std::string const flaw = result.ledger.judge(name, empty ? state.substr(6) : state, empty);
        !flaw.empty())
      ++result.broken[flaw];
  }
  result.ledger.note(later);
}

} // namespace tqtorture
