// The clocks of a program that a test starts.

#pragma once

#include "tests/support/Process.h"
#include "tests/support/TempDir.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <string>
#include <utility>

namespace tqtest
{

class MovedClock
{
public:
  // They are right at first. The file is theirs.
  explicit MovedClock(std::string file) : m_file(std::move(file))
  {
    writeText(m_file, std::string(sizeof m_seconds, '\0'));
  }

  // Lets the monotonic clock jump ahead: for waits of minutes.
  void jumpAhead(std::chrono::seconds time)
  {
    m_seconds[0] += time.count();
    write();
  }

  // Sets the wall clock to so far from the true time.
  void set(std::chrono::seconds from)
  {
    m_seconds[1] = from.count();
    write();
  }

  // Programs with these variables go by them.
  Process::Environment environment() const
  {
    return {{"TQ_CLOCK_FILE", m_file},
            {"LD_PRELOAD", TQ_FIXTURE_DIR "/libclock_ahead.so"},
            {"ASAN_OPTIONS", "verify_asan_link_order=0"}}; // as it comes first
  }

private:
  // Over what is there: the programs have the file in their memory.
  void write() const
  {
    std::fstream out(m_file, std::ios::binary | std::ios::in | std::ios::out);
    out.write(reinterpret_cast<char const*>(m_seconds.data()), sizeof m_seconds);
  }

  std::string const m_file;
  std::array<std::int64_t, 2> m_seconds{}; // as ClockAhead.cpp has them
};

} // namespace tqtest
