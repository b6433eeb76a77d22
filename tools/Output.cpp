#include "tools/Output.h"

#include "ozf/base/Display.h"
#include "ozf/base/MetadataConverter.h"
#include "ozf/base/Uri.h"
#include "ozf/log/Logger.h"
#include "tools/Format.h"
#include "tools/Table.h"

#include <algorithm>
#include <iostream>
#include <unistd.h>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;

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

nlohmann::json timeOrNull(OzfObjTime const& time)
{
  std::string text;
  if (time.isZero() || !MetadataConverter::convert(time, text, false))
    return nullptr;
  return text;
}

// Characters that may not be shown stand inside strings only, where JSON has a
// form for them that says the same.
std::string jsonText(nlohmann::json const& value, int indent, std::size_t depth)
{
  std::string const text = value.dump(indent, ' ', false, nlohmann::json::error_handler_t::replace);
  std::string result;
  for (std::size_t begin = 0; begin <= text.size();)
  {
    std::size_t const end = std::min(text.find('\n', begin), text.size());
    result += displayText(std::string_view(text).substr(begin, end - begin),
                          [](std::string& escaped, std::string_view, char32_t character)
                          { appendUnits(escaped, character); });
    if (end < text.size())
      result.append("\n").append(depth, ' ');
    begin = end + 1;
  }
  return result;
}

void printJson(nlohmann::json const& value) { std::cout << jsonText(value, 2) << '\n'; }

void printJsonLine(nlohmann::json const& value) { std::cout << jsonText(value, -1) << std::endl; }

JsonArray::~JsonArray() { std::cout << (m_empty ? "[]\n" : "\n]\n"); }

void JsonArray::add(nlohmann::json const& value)
{
  std::cout << (m_empty ? "[\n  " : ",\n  ") << jsonText(value, 2, 2);
  m_empty = false;
}

void complain(std::string const& message, std::initializer_list<std::string> more)
{
  remark("tqdiscoctl: " + message);
  for (std::string const& line : more)
    remark(line);
}

void remark(std::string const& text)
{
  std::cerr << wrapped(shown(text), terminalWidth(STDERR_FILENO)) << '\n';
}

namespace
{

std::function<void(std::string const&)> theTeller;

} // namespace

void setTeller(std::function<void(std::string const&)> teller) { theTeller = std::move(teller); }

void tell(std::string const& message)
{
  if (theTeller)
    theTeller(message);
  else if (Quillon::Tessarine::Ozf::LoggerFactory::getLevel() >= 1)
    complain(message);
}

std::string shown(std::string_view text)
{
  return displayText(text, [](std::string& result, std::string_view bytes, char32_t)
                     { appendHex(result, "%", bytes); });
}

std::string shownLines(std::string_view text)
{
  std::string result;
  for (std::size_t begin = 0; begin <= text.size();)
  {
    std::size_t const end = std::min(text.find_first_of("\t\n", begin), text.size());
    result += shown(text.substr(begin, end - begin));
    if (end < text.size())
      result += text[end];
    begin = end + 1;
  }
  return result;
}

std::string asNamed(std::string const& name) { return Uri::percentEncode(name, URI_SHOWN); }

std::string counted(std::size_t count, std::string const& one, std::string const& several)
{
  return std::to_string(count) + ' ' + (count == 1 ? one : several);
}

Progress::Progress(std::string what) : m_what(std::move(what))
{
  if (isatty(STDERR_FILENO) != 0)
    m_thread = std::thread([this] { tick(); });
}

Progress::~Progress() { clear(); }

void Progress::update(std::string const& position)
{
  std::lock_guard const guard(m_mutex);
  m_position = position;
}

void Progress::clear()
{
  {
    std::lock_guard const guard(m_mutex);
    m_over = true;
  }
  m_changed.notify_all();
  if (m_thread.joinable())
    m_thread.join();
  if (m_visible)
    std::cerr << "\r\033[K" << std::flush;
  m_visible = false;
}

void Progress::tick()
{
  constexpr std::chrono::milliseconds FIRST(500);
  constexpr std::chrono::milliseconds STEP(100);
  std::unique_lock lock(m_mutex);
  for (auto next = m_begin + FIRST;; next = Clock::now() + STEP)
  {
    if (m_changed.wait_until(lock, next, [this] { return m_over; }))
      return;
    paint();
  }
}

void Progress::paint()
{
  std::string position = m_position;
  if (position.empty())
    position = formatSpan(
        std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - m_begin).count());
  std::string const line = shown(m_what + ": " + position);
  m_visible = true;
  // A line that wraps could not be taken back.
  std::cerr << "\r\033[K" << cutToWidth(line, terminalWidth(STDERR_FILENO) - 1) << std::flush;
}

} // namespace tqdiscoctl
