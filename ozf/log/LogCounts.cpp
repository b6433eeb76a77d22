#include "ozf/log/LogCounts.h"

#include "ozf/base/Wildcard.h"

#include <algorithm>
#include <iterator>

namespace Quillon::Tessarine::Ozf
{

namespace
{

std::string secondsText(LogCounts::Time::duration time)
{
  auto const seconds = std::chrono::ceil<std::chrono::seconds>(time).count();
  return std::to_string(seconds) + (seconds == 1 ? " second" : " seconds");
}

std::string countText(std::uint64_t count, char const* one, char const* many)
{
  return std::to_string(count) + ' ' + (count == 1 ? one : many);
}

} // namespace

void LogCounts::setExcepted(std::vector<std::string> const& patterns, Time now, Put const& put)
{
  std::vector<Excepted> fresh;
  for (std::string const& pattern : patterns)
  {
    auto const former = std::find_if(m_excepted.begin(), m_excepted.end(),
                                     [&](Excepted const& each) { return each.pattern == pattern; });
    fresh.push_back({pattern, former == m_excepted.end() ? Count() : former->count});
    if (former != m_excepted.end())
      former->count = {};
  }
  reportExcepted(now, true, put);
  m_excepted = std::move(fresh);
}

bool LogCounts::isExcepted(std::string_view text, Time now)
{
  auto const found =
      std::find_if(m_excepted.begin(), m_excepted.end(),
                   [text](Excepted const& each) { return wildcardcmp(each.pattern, text) == 0; });
  if (found == m_excepted.end())
    return false;
  if (found->count.lines++ == 0)
    found->count.since = now;
  return true;
}

bool LogCounts::isRepeated(std::string const& operation, std::string const& text)
{
  if (text.size() > LONGEST_KEPT)
    return false;
  auto const known = m_repeats.find({operation, text});
  if (known == m_repeats.end())
    return false;
  ++known->second.count.lines;
  return true;
}

void LogCounts::noteWritten(int level, std::string const& operation, std::string const& text,
                            Time now)
{
  if (text.size() > LONGEST_KEPT || m_repeats.size() >= MOST_KEPT)
    return;
  m_repeats.try_emplace({operation, text}, Repeats{level, {0, now}});
  m_nextReport = std::min(m_nextReport, now + REPEAT_PERIOD);
}

void LogCounts::reportExcepted(Time now, bool all, Put const& put)
{
  for (Excepted& each : m_excepted)
  {
    if (each.count.lines == 0 || (!all && now - each.count.since < EXCEPT_PERIOD))
      continue;
    put(1, "LOG_EXCEPT",
        "Kept out " + countText(each.count.lines, "line", "lines") + " in " +
            secondsText(now - each.count.since) + ": " + each.pattern);
    each.count = {};
  }
}

void LogCounts::report(Time now, bool all, Put const& put)
{
  reportExcepted(now, all, put);
  if (!all && now < m_nextReport)
    return;
  m_nextReport = Time::max();
  for (auto entry = m_repeats.begin(); entry != m_repeats.end();)
  {
    auto& [line, repeats] = *entry;
    Count& count = repeats.count;
    bool const over = now - count.since >= REPEAT_PERIOD;
    if ((all || over) && count.lines > 0)
    {
      put(repeats.level, line.operation,
          "Repeated " + countText(count.lines, "time", "times") + " in " +
              secondsText(now - count.since) + ": " + line.text);
      count = {0, now};
    }
    else if (over)
    {
      entry = m_repeats.erase(entry);
      continue;
    }
    m_nextReport = std::min(m_nextReport, count.since + REPEAT_PERIOD);
    ++entry;
  }
}

} // namespace Quillon::Tessarine::Ozf
