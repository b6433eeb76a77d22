#include "tools/Output.h"

#include "ozf/base/MetadataConverter.h"
#include "ozf/base/Uri.h"
#include "ozf/log/Logger.h"
#include "tools/Format.h"
#include "tools/Table.h"

#include <algorithm>
#include <iostream>
#include <sstream>
#include <unistd.h>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;

namespace
{

// The line broken between words, so that no part is wider than width (0: no
// limit), as far as its words let it.
std::string wrapped(std::string const& line, std::size_t width)
{
  if (width == 0 || displayWidth(line) <= width)
    return line;
  std::string result;
  std::size_t used = 0;
  for (std::size_t begin = 0; begin <= line.size();)
  {
    std::size_t const end = std::min(line.find(' ', begin), line.size());
    std::string const word = line.substr(begin, end - begin);
    std::size_t const needed = displayWidth(word);
    if (begin != 0)
    {
      bool const fits = used + 1 + needed <= width;
      result += fits ? ' ' : '\n';
      used = fits ? used + 1 : 0;
    }
    result += word;
    used += needed;
    begin = end + 1;
  }
  return result;
}

} // namespace

nlohmann::json timeOrNull(OzfObjTime const& time)
{
  std::string text;
  if (time.isZero() || !MetadataConverter::convert(time, text, false))
    return nullptr;
  return text;
}

void printJson(nlohmann::json const& value)
{
  std::cout << value.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
}

void printJsonLine(nlohmann::json const& value)
{
  std::cout << value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << std::endl;
}

void complain(std::string const& message)
{
  std::istringstream lines("tqdiscoctl: " + message);
  for (std::string line; std::getline(lines, line);)
    std::cerr << wrapped(line, terminalWidth(STDERR_FILENO)) << '\n';
}

void tell(std::string const& message)
{
  if (Quillon::Tessarine::Ozf::LoggerFactory::getLevel() >= 1)
    complain(message);
}

std::string shown(std::string const& text) { return Uri::percentEncode(text, URI_SHOWN); }

std::string counted(std::size_t count, std::string const& one, std::string const& several)
{
  return std::to_string(count) + ' ' + (count == 1 ? one : several);
}

Progress::Progress(std::string what)
    : m_what(std::move(what)),
      m_terminal(isatty(STDERR_FILENO) != 0),
      m_next(std::chrono::steady_clock::now() + std::chrono::milliseconds(500))
{
}

Progress::~Progress() { clear(); }

void Progress::update(std::string const& position)
{
  auto const now = std::chrono::steady_clock::now();
  if (!m_terminal || now < m_next)
    return;
  m_next = now + std::chrono::milliseconds(100);
  m_visible = true;
  std::cerr << "\r\033[K" << m_what << ": " << position << std::flush;
}

void Progress::clear()
{
  if (m_visible)
    std::cerr << "\r\033[K" << std::flush;
  m_visible = false;
}

} // namespace tqdiscoctl
