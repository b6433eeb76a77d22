#include "ozf/log/Logger.h"

#include "ozf/base/Display.h"
#include "ozf/base/LineIfMemory.h"
#include "ozf/base/Report.h"
#include "ozf/base/SystemError.h"
#include "ozf/log/FrameworkLogger.h"
#include "ozf/log/LogCounts.h"
#include "ozf/log/RotatingFile.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <iterator>
#include <map>
#include <spdlog/details/null_mutex.h>
#include <spdlog/logger.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/sinks/syslog_sink.h>
#include <string_view>
#include <syslog.h>
#include <unistd.h>
#include <utility>

namespace Quillon::Tessarine::Ozf
{
namespace
{

constexpr std::chrono::seconds REPORT_PERIOD{60};

// Outside the state, so that a level that admits nothing costs one load.
std::atomic<int> currentLevel{1};

spdlog::level::level_enum severity(int level)
{
  if (level <= 1)
    return spdlog::level::warn;
  return level <= 4 ? spdlog::level::info : spdlog::level::debug;
}

class FileSink : public spdlog::sinks::base_sink<spdlog::details::null_mutex>
{
public:
  explicit FileSink(RotatingFile file) : m_file(std::move(file)) {}

private:
  void sink_it_(spdlog::details::log_msg const& message) override
  {
    spdlog::memory_buf_t line;
    formatter_->format(message, line);
    if (int const error = m_file.append({line.data(), line.size()}))
      throw spdlog::spdlog_ex(m_file.path(), error);
  }
  void flush_() override {}

  RotatingFile m_file;
};

// What was left out of one place's lines since the last report of it.
struct LeftOut
{
  int level;
  std::string operation;
  std::string place; // " (Source:line)"
  std::uint64_t lines = 0;
  LogFlood::Time since;
};

// Everything behind the factory. One mutex guards all of it, so the sinks
// themselves need none; it guards what the places know of their floods, too.
struct State
{
  State() { useStderr(); }

  void useStderr()
  {
    prefixed = true;
    use(std::make_shared<spdlog::sinks::stderr_sink_st>());
  }

  void use(spdlog::sink_ptr sink)
  {
    auto fresh = std::make_shared<spdlog::logger>("ozf", std::move(sink));
    fresh->set_pattern(prefixed ? "%Y-%m-%dT%H:%M:%S.%e%z %v" : "%v");
    fresh->set_level(spdlog::level::trace);
    // The last lines before a crash are the ones that somebody will want.
    fresh->flush_on(spdlog::level::trace);
    output = std::move(fresh);
  }

  LogFlood::Time now() const { return clock ? clock() : std::chrono::steady_clock::now(); }

  void put(int level, std::string const& operation, std::string const& text)
  {
    std::string message = std::to_string(level) + ' ' + operation + ": " + text;
    if (prefixed)
      message = std::string(program_invocation_short_name) + '[' + std::to_string(getpid()) + "] " +
                message;
    output->log(severity(level), spdlog::string_view_t(message));
  }

  // Reports the lines that were not written, as far as that is due.
  void reportLeftOut(LogFlood::Time time, bool all)
  {
    counts.report(time, all, putCount());
    reportFloods(time, all);
  }

  LogCounts::Put putCount()
  {
    return [this](int level, std::string const& operation, std::string const& text)
    { put(level, operation, onOneLine(text)); };
  }

  // Whether the line is to be written; what is not is counted.
  bool takes(LogFlood& site, int level, char const* operation, std::string const& text)
  {
    LogFlood::Time const time = now();
    reportLeftOut(time, false);
    if (counts.isExcepted(text, time))
      return false;
    if (level > 1)
      return true;
    std::string const where = operation != nullptr ? operation : "";
    if (counts.isRepeated(where, text))
      return false;
    if (site.admits(time, text.size()))
    {
      counts.noteWritten(level, where, text, time);
      return true;
    }
    auto const [found, isNew] = leftOut.try_emplace(&site);
    LeftOut& lines = found->second;
    if (isNew)
    {
      auto const place = text.rfind(" (");
      lines = {level, where, place == std::string::npos ? "" : onOneLine(text.substr(place)), 0,
               time};
    }
    ++lines.lines;
    return false;
  }

  void reportFloods(LogFlood::Time time, bool all)
  {
    for (auto entry = leftOut.begin(); entry != leftOut.end();)
    {
      LeftOut& lines = entry->second;
      bool const over = !entry->first->isOn(time);
      if (!all && !over && time - lines.since < REPORT_PERIOD)
      {
        ++entry;
        continue;
      }
      if (lines.lines > 0)
      {
        auto const seconds = std::chrono::ceil<std::chrono::seconds>(time - lines.since).count();
        put(lines.level, lines.operation,
            "Left out " + std::to_string(lines.lines) + " lines from one place in " +
                std::to_string(seconds) + " seconds" + lines.place);
      }
      lines.lines = 0;
      lines.since = time;
      entry = over ? leftOut.erase(entry) : std::next(entry);
    }
  }

  std::mutex mutex;
  std::shared_ptr<spdlog::logger> output;
  bool prefixed = true; // time and process are ours to write, not syslog's
  LoggerFactory::Observer observer;
  LoggerFactory::Clock clock;           // empty: the steady one
  std::map<LogFlood*, LeftOut> leftOut; // of the places in flood
  LogCounts counts;
  std::map<int, std::unique_ptr<OzfLogger>> loggers;
};

void writeReport(int level, char const* operation, std::string const& text) noexcept
{
  lineIfMemory(
      [&]
      {
        OzfLogger* const logger = LoggerFactory::getLogger(FRAMEWORK_ORIGINATOR);
        static constinit LogFlood site; // of all the rooms below, which write few
        if (logger->admits(level))
          logger->write(level, operation, text, &site);
      });
}

// Never destroyed: lines are still written while the process exits.
State& state()
{
  static auto* const instance = []
  {
    auto* const made = new State;
    setReportSink(&writeReport);
    return made;
  }();
  return *instance;
}

} // namespace

int OzfLogger::getLevel() const noexcept { return LoggerFactory::getLevel(); }

void OzfLogger::write(int level, char const* operation, std::string const& text,
                      LogFlood* site) noexcept
{
  try
  {
    State& all = state();
    std::unique_lock guard(all.mutex);
    bool const taken = site == nullptr || all.takes(*site, level, operation, text);
    if (!taken && !all.observer)
      return;
    guard.unlock();
    LogLine const line{m_originator, level, operation != nullptr ? operation : "", onOneLine(text)};
    guard.lock();
    if (taken)
      all.put(level, line.operation, line.text);
    if (all.observer)
      all.observer(line);
  }
  catch (std::exception const& failure)
  {
    std::fprintf(stderr, "A log line was lost: %s\n", failure.what());
  }
  catch (...)
  {
    std::fputs("A log line was lost\n", stderr);
  }
}

OzfLogger* LoggerFactory::getLogger(int originator)
{
  State& all = state();
  std::lock_guard guard(all.mutex);
  std::unique_ptr<OzfLogger>& logger = all.loggers[originator];
  if (!logger)
    logger.reset(new OzfLogger(originator));
  return logger.get();
}

void LoggerFactory::setLevel(int level) noexcept
{
  currentLevel.store(level, std::memory_order_relaxed);
}

int LoggerFactory::getLevel() noexcept { return currentLevel.load(std::memory_order_relaxed); }

void LoggerFactory::setStderr()
{
  State& all = state();
  std::lock_guard guard(all.mutex);
  all.useStderr();
}

bool LoggerFactory::setFile(std::string const& path, std::string& reason)
{
  State& all = state();
  std::lock_guard guard(all.mutex);
  try
  {
    RotatingFile file(path);
    if (int const error = file.open())
    {
      reason = path + ": " + errorText(error);
      return false;
    }
    all.prefixed = true;
    all.use(std::make_shared<FileSink>(std::move(file)));
    return true;
  }
  catch (std::exception const& failure)
  {
    reason = failure.what();
    return false;
  }
}

void LoggerFactory::setSyslog(std::string const& program)
{
  State& all = state();
  std::lock_guard guard(all.mutex);
  // An older syslog sink closes the connection when it goes, so it goes first.
  all.useStderr();
  all.prefixed = false;
  all.use(std::make_shared<spdlog::sinks::syslog_sink_st>(program, LOG_PID, LOG_DAEMON, true));
}

void LoggerFactory::setObserver(Observer observer)
{
  State& all = state();
  std::lock_guard guard(all.mutex);
  all.observer = std::move(observer);
}

void LoggerFactory::setClock(Clock clock)
{
  State& all = state();
  std::lock_guard guard(all.mutex);
  all.clock = std::move(clock);
}

void LoggerFactory::setExcepted(std::vector<std::string> const& patterns)
{
  State& all = state();
  std::lock_guard guard(all.mutex);
  all.counts.setExcepted(patterns, all.now(), all.putCount());
}

void LoggerFactory::reportLeftOut() noexcept
{
  try
  {
    State& all = state();
    std::lock_guard guard(all.mutex);
    all.reportLeftOut(all.now(), false);
  }
  catch (std::exception const& failure)
  {
    std::fprintf(stderr, "A log line was lost: %s\n", failure.what());
  }
}

void LoggerFactory::flush()
{
  State& all = state();
  std::lock_guard guard(all.mutex);
  all.reportLeftOut(all.now(), true);
  all.output->flush();
}

TraceScope::TraceScope(OzfLogger* logger, char const* operation)
    : m_logger(logger->admits(6) ? logger : nullptr), m_operation(operation)
{
  if (m_logger != nullptr)
    m_logger->write(6, m_operation, "Entered");
}

TraceScope::~TraceScope()
{
  if (m_logger != nullptr)
    m_logger->write(6, m_operation, "Left");
}

} // namespace Quillon::Tessarine::Ozf
