// The thread that writes the file of the audit log.

#pragma once

#include "ozf/log/RotatingFile.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace Quillon::Tessarine::Ozf
{

// A file may hang, as one of a network file system does whose server is away, and then
// whoever writes it is stopped for as long. So one thread writes, and the others wait
// for it up to PATIENCE; from then on until the file goes on nobody waits. Lines are
// held meanwhile, up to MOST_HELD, and more are left out and counted.
//
// Where a line could not be written or held, the next one is preceded by one that
// tells how many are missing.
class OZF_EXPORT AuditWriter : public std::enable_shared_from_this<AuditWriter>
{
public:
  using Time = std::chrono::steady_clock::time_point;

  static constexpr std::chrono::milliseconds PATIENCE{2000};
  static constexpr std::size_t MOST_HELD = 4UL * 1024 * 1024; // bytes

  // What the writer asks of others; any thread, and under no lock of the writer's.
  struct Hooks
  {
    std::function<std::string(std::uint64_t)> missingLine; // how many are
    std::function<void(std::string const&)> complain;      // in the log
    std::function<void(std::uint64_t)> lost;               // so many lines
    std::function<Time()> now;                             // by which complaints are rare
  };

  AuditWriter(std::string const& path, Hooks hooks, std::chrono::milliseconds patience = PATIENCE);
  AuditWriter(AuditWriter const&) = delete;
  AuditWriter& operator=(AuditWriter const&) = delete;

  // Has the file opened, as append does. Waits for that alike; 0, or the errno value of
  // a failure, after which append tries again.
  int open();

  // Hands a line over and, unless told otherwise, waits until it is written or could
  // not be.
  void append(std::string line, bool waits);

  // There are no more lines; what is held is still written. Does not wait.
  void end() noexcept;

private:
  struct Line
  {
    std::string text;
    std::uint64_t missing; // before it
  };

  void loop() noexcept;
  void write(Line const& line);
  void tell(std::string const& complaint) const;
  // Under m_mutex.
  bool isRunning();
  void await(std::unique_lock<std::mutex>& lock, std::uint64_t number);
  void noteDone(std::unique_lock<std::mutex>& lock);

  Hooks const m_hooks;
  std::string const m_path;
  std::chrono::milliseconds const m_patience;

  // The thread's own.
  RotatingFile m_file;
  std::uint64_t m_missing = 0; // since the file could be written last
  Time m_nextComplaint;

  std::mutex m_mutex; // of what follows
  std::condition_variable m_changed;
  std::deque<Line> m_lines;    // the first one is being written
  std::size_t m_held = 0;      // bytes
  std::uint64_t m_leftOut = 0; // since the last line that could be held
  std::uint64_t m_given = 1;   // what the thread has to do: opening is the first
  std::uint64_t m_done = 0;
  bool m_running = false;
  bool m_hangs = false;
  bool m_ending = false;
  int m_openError = 0;
};

} // namespace Quillon::Tessarine::Ozf
