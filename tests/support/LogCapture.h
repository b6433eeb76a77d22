// Collects the log lines written while it lives, at every level asked for.

#pragma once

#include "ozf/log/Logger.h"

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

class LogCapture
{
public:
  explicit LogCapture(int level = 6)
  {
    using Quillon::Tessarine::Ozf::LoggerFactory;
    m_oldLevel = LoggerFactory::getLevel();
    LoggerFactory::setLevel(level);
    LoggerFactory::setObserver(
        [this](Quillon::Tessarine::Ozf::LogLine const& line)
        {
          std::lock_guard guard(m_mutex);
          m_lines.push_back(line);
        });
  }
  ~LogCapture()
  {
    using Quillon::Tessarine::Ozf::LoggerFactory;
    LoggerFactory::setObserver({});
    LoggerFactory::setLevel(m_oldLevel);
  }
  LogCapture(LogCapture const&) = delete;
  LogCapture& operator=(LogCapture const&) = delete;

  std::vector<Quillon::Tessarine::Ozf::LogLine> lines() const
  {
    std::lock_guard guard(m_mutex);
    return m_lines;
  }

  // How many lines have exactly this message (before " (Source:line)"), level
  // and operation.
  long count(int level, std::string const& operation, std::string const& message) const
  {
    auto const all = lines();
    return std::count_if(all.begin(), all.end(),
                         [&](auto const& line)
                         {
                           return line.level == level && line.operation == operation &&
                                  line.text.rfind(message + " (", 0) == 0 &&
                                  line.text.find(')', message.size()) == line.text.size() - 1;
                         });
  }

  bool has(int level, std::string const& operation, std::string const& message) const
  {
    return count(level, operation, message) > 0;
  }

  // Everything, for failure messages.
  std::string text() const
  {
    std::string all;
    for (auto const& line : lines())
      all += std::to_string(line.level) + " " + line.operation + ": " + line.text + "\n";
    return all;
  }

private:
  mutable std::mutex m_mutex;
  std::vector<Quillon::Tessarine::Ozf::LogLine> m_lines;
  int m_oldLevel = 1;
};
