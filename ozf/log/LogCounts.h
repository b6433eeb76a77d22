// Lines that are counted instead of written.

#pragma once

#include "ozf/base/Export.h"
#include "ozf/log/LogFlood.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace Quillon::Tessarine::Ozf
{

// Which lines are not written because they are excepted, or have just been
// written, and how many of each these were. Who uses it sees to it that one
// thread does at a time.
class OZF_EXPORT LogCounts
{
public:
  using Time = LogFlood::Time;

  // A line comes again after less than this, or is forgotten.
  static constexpr std::chrono::seconds REPEAT_PERIOD{60};
  static constexpr std::chrono::seconds EXCEPT_PERIOD{3600};

  // What is kept of lines that may come again. Where there are more of them, or
  // longer ones, they are written each time: nobody may fill the memory by lines
  // that differ.
  static constexpr std::size_t MOST_KEPT = 1000;
  static constexpr std::size_t LONGEST_KEPT = 1024; // bytes

  // Where the lines go that say how many.
  using Put = std::function<void(int level, std::string const& operation, std::string const& text)>;

  // Replaces the patterns ('*' stands for any text) of the texts that are
  // excepted; put is told of what the former ones kept out.
  void setExcepted(std::vector<std::string> const& patterns, Time now, Put const& put);

  // Whether a pattern keeps the line out.
  bool isExcepted(std::string_view text, Time now);

  // Whether the same line was written, or told to be repeated, less than a minute
  // ago; then it is counted.
  bool isRepeated(std::string const& operation, std::string const& text);

  // The line is written.
  void noteWritten(int level, std::string const& operation, std::string const& text, Time now);

  // Tells of the counts whose period is over, or of all.
  void report(Time now, bool all, Put const& put);

private:
  struct Count
  {
    std::uint64_t lines = 0;
    Time since{};
  };
  struct Excepted
  {
    std::string pattern;
    Count count;
  };
  struct Line
  {
    std::string operation;
    std::string text;
    auto operator<=>(Line const&) const = default;
  };
  struct Repeats
  {
    int level = 1;
    Count count;
  };

  void reportExcepted(Time now, bool all, Put const& put);

  std::vector<Excepted> m_excepted;
  std::map<Line, Repeats> m_repeats;
  Time m_nextReport = Time::max(); // when the first period of m_repeats is over, or before
};

} // namespace Quillon::Tessarine::Ozf
