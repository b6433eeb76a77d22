// Log lines.
//
// Levels: 1 errors and notable events, 4 detail, 6 fine detail. A logger of
// level N admits lines of level N and below; 0 admits none.

#pragma once

#include "ozf/base/Export.h"
#include "ozf/log/LogFlood.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

namespace Quillon::Tessarine::Ozf
{

// One line as the sinks get it.
struct LogLine
{
  int originator;
  int level;
  std::string operation; // "DBDiscovery::persist"
  std::string text;      // the message and " (Source:line)"
};

// A logger belongs to one originator number. Any thread may use it.
class OZF_EXPORT OzfLogger
{
public:
  bool admits(int level) const noexcept { return level <= getLevel(); }
  int getLevel() const noexcept;
  int originator() const noexcept { return m_originator; }

  // Writes a line whatever its level. What of the text may not be shown
  // (isDisplayable), line breaks among it, and bytes that are not UTF-8 are
  // written as \xNN, so that one line stays one line. What cannot be written is
  // noted on standard error.
  //
  // site is of the place that writes it and outlives the process's last line.
  // Lines of level 1 from a place that floods the log are left out and counted;
  // a line each minute, and one when the flood is over, says how many. So is a
  // line of level 1 that was written less than a minute before, word by word. What
  // is written for detail is what somebody asked for, and left out only where
  // setExcepted names it. Null: a line that always passes.
  void write(int level, char const* operation, std::string const& text,
             LogFlood* site = nullptr) noexcept;

private:
  friend class LoggerFactory;
  explicit OzfLogger(int originator) : m_originator(originator) {}

  int const m_originator;
};

// Where lines go. The level and the sinks are the process's, not a logger's.
class OZF_EXPORT LoggerFactory
{
public:
  // The logger of that originator, made on first use and never destroyed.
  static OzfLogger* getLogger(int originator);

  // 1 at first.
  static void setLevel(int level) noexcept;
  static int getLevel() noexcept;

  // Lines go to standard error at first. setFile sends them to a rotating
  // file (10 MiB, five old ones); returns false, with the reason, when it
  // cannot be opened, and changes nothing. setSyslog sends them to syslog
  // under the program name given.
  static void setStderr();
  static bool setFile(std::string const& path, std::string& reason);
  static void setSyslog(std::string const& program);

  // Lines whose texts match one of the patterns ('*' stands for any text) are kept
  // out from now on, and counted: a line an hour for each pattern says how many.
  // The text ends with the place in the sources, so a pattern usually ends in '*'.
  static void setExcepted(std::vector<std::string> const& patterns);

  // For tests: every line also goes to the observer, those that are left out too
  // and without the lines that tell of them, under the lock of the factory, so the
  // observer must not log; an empty function ends that.
  using Observer = std::function<void(LogLine const&)>;
  static void setObserver(Observer observer);

  // For tests: the clock by which floods and repeats are judged, called under the
  // lock of the factory; an empty function for the steady clock.
  using Clock = std::function<LogFlood::Time()>;
  static void setClock(Clock clock);

  // Writes the lines that are due about those left out. Every line does so before it
  // is written; a process that may be silent for long calls it now and then.
  static void reportLeftOut() noexcept;

  // Pushes out what is buffered, with what was counted and not yet told.
  static void flush();
};

// Notes entry into and exit from an operation at level 6. operation outlives it.
class OZF_EXPORT TraceScope
{
public:
  TraceScope(OzfLogger* logger, char const* operation);
  ~TraceScope();
  TraceScope(TraceScope const&) = delete;
  TraceScope& operator=(TraceScope const&) = delete;

private:
  OzfLogger* m_logger;
  char const* m_operation;
};

} // namespace Quillon::Tessarine::Ozf

// Writes a line when logger (an OzfLogger*) admits level; only then is the
// text built. text is a chain of stream insertions without the first stream:
//   OZF_LOG(getOzfLogger(), 1, "DiscDB", "DBDiscovery::load", "Unable to open " << path);
// The source's name and the line number are added as " (DiscDB:42)". Each use is
// a place of its own in the judgement of floods.
#define OZF_LOG(logger, level, source, operation, text)                                            \
  do                                                                                               \
  {                                                                                                \
    ::Quillon::Tessarine::Ozf::OzfLogger* const ozfLogLogger = (logger);                           \
    if (ozfLogLogger->admits(level)) [[unlikely]]                                                  \
    {                                                                                              \
      static constinit ::Quillon::Tessarine::Ozf::LogFlood ozfLogSite;                             \
      std::ostringstream ozfLogText;                                                               \
      ozfLogText << text << " (" << (source) << ":" << __LINE__ << ")";                            \
      ozfLogLogger->write((level), (operation), ozfLogText.str(), &ozfLogSite);                    \
    }                                                                                              \
  } while (false)
