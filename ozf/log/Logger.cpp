#include "ozf/log/Logger.h"

#include "ozf/base/OzfString.h"
#include "ozf/base/Report.h"
#include "ozf/log/FrameworkLogger.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <map>
#include <spdlog/logger.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/sinks/syslog_sink.h>
#include <string_view>
#include <syslog.h>
#include <unistd.h>

namespace Quillon::Tessarine::Ozf
{
namespace
{

constexpr std::size_t FILE_SIZE = 10 * 1024 * 1024;
constexpr std::size_t OLD_FILES = 5;

// Outside the state, so that a level that admits nothing costs one load.
std::atomic<int> currentLevel{1};

// Everything behind the factory. One mutex guards all of it, so the sinks
// themselves need none.
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

  std::mutex mutex;
  std::shared_ptr<spdlog::logger> output;
  bool prefixed = true; // time and process are ours to write, not syslog's
  LoggerFactory::Observer observer;
  std::map<int, std::unique_ptr<OzfLogger>> loggers;
};

void writeReport(int level, char const* operation, std::string const& text) noexcept
{
  OzfLogger* const logger = LoggerFactory::getLogger(FRAMEWORK_ORIGINATOR);
  if (logger->admits(level))
    logger->write(level, operation, text);
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

// Log lines carry names from the network: whatever could break a line or
// drive a terminal is spelled out.
std::string onOneLine(std::string_view text)
{
  constexpr std::string_view HEX = "0123456789ABCDEF";
  std::string result;
  result.reserve(text.size());
  while (!text.empty())
  {
    char32_t point = 0;
    std::size_t const length = decodeUtf8(text, point);
    std::string_view const part = text.substr(0, std::max<std::size_t>(length, 1));
    if (length != 0 && point >= 0x20 && (point < 0x7F || point >= 0xA0))
      result += part;
    else
    {
      for (char const c : part)
      {
        auto const byte = static_cast<unsigned char>(c);
        result += "\\x";
        result += HEX[byte >> 4];
        result += HEX[byte & 0xF];
      }
    }
    text.remove_prefix(part.size());
  }
  return result;
}

spdlog::level::level_enum severity(int level)
{
  if (level <= 1)
    return spdlog::level::warn;
  return level <= 4 ? spdlog::level::info : spdlog::level::debug;
}

} // namespace

int OzfLogger::getLevel() const noexcept { return LoggerFactory::getLevel(); }

void OzfLogger::write(int level, char const* operation, std::string const& text) noexcept
{
  try
  {
    LogLine const line{m_originator, level, operation != nullptr ? operation : "", onOneLine(text)};
    std::string message = std::to_string(level) + ' ' + line.operation + ": " + line.text;

    State& all = state();
    std::lock_guard guard(all.mutex);
    if (all.prefixed)
      message = std::string(program_invocation_short_name) + '[' + std::to_string(getpid()) + "] " +
                message;
    all.output->log(severity(level), spdlog::string_view_t(message));
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
    auto sink = std::make_shared<spdlog::sinks::rotating_file_sink_st>(path, FILE_SIZE, OLD_FILES);
    all.prefixed = true;
    all.use(std::move(sink));
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

void LoggerFactory::flush()
{
  State& all = state();
  std::lock_guard guard(all.mutex);
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
