// What the commands have in common on their way to the terminal.

#pragma once

#include "ozf/base/OzfObjTime.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <initializer_list>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <thread>

namespace tqdiscoctl
{

// ISO 8601 in UTC; null for a time that is not set.
nlohmann::json timeOrNull(Quillon::Tessarine::Ozf::OzfObjTime const& time);

// Names come from files and from other hosts: whatever bytes they hold, the
// output is valid JSON, and what no terminal should get is escaped in it.
// printJsonLine writes one line and flushes it.
void printJson(nlohmann::json const& value);
void printJsonLine(nlohmann::json const& value);

// Prints an array as printJson does, an element at a time, so that it need not
// be held whole. It ends with the object.
class JsonArray
{
public:
  JsonArray() = default;
  ~JsonArray();
  JsonArray(JsonArray const&) = delete;
  JsonArray& operator=(JsonArray const&) = delete;

  void add(nlohmann::json const& value);

private:
  bool m_empty = true;
};

// That text, for output that is not printed whole; on one line with -1. Lines
// behind the first stand depth further in.
std::string jsonText(nlohmann::json const& value, int indent, std::size_t depth = 0);

// "tqdiscoctl: message" on standard error, fitted to a terminal, and lines of more
// below it. Each is one line, whatever of somebody else's is in it.
void complain(std::string const& message, std::initializer_list<std::string> more = {});

// The same for what only those want to know who gave --verbose; or as a program with a log
// of its own wants it, which says so before there are threads.
void tell(std::string const& message);
void setTeller(std::function<void(std::string const&)> teller);

// A line on standard error that is no complaint, fitted likewise.
void remark(std::string const& text);

// A text from elsewhere on its way to a terminal: what may not be shown becomes
// %XX, so that no escape sequence of somebody else's gets through. Tables and
// everything on standard error see to that themselves.
std::string shown(std::string_view text);

// The same for a text of several lines, whose line breaks and tabs stay.
std::string shownLines(std::string_view text);

// A name as records have it, for comparing: what the user types may be the name
// itself.
std::string asNamed(std::string const& name);

// The line broken between words, so that no part is wider than width (0: no
// limit), as far as its words let it.
std::string wrapped(std::string const& line, std::size_t width);

// "1 host", "3 hosts".
std::string counted(std::size_t count, std::string const& one, std::string const& several);

// A line on standard error that tells how far a long piece of work is, or how
// long it has taken when that cannot be told; there only when that is a
// terminal, only after a moment, and gone at the end.
class Progress
{
public:
  explicit Progress(std::string what);
  ~Progress();
  Progress(Progress const&) = delete;
  Progress& operator=(Progress const&) = delete;

  // position: "3 of 20", "12 MiB".
  void update(std::string const& position);

  // Takes the line away for good, before anything else is written.
  void clear();

private:
  using Clock = std::chrono::steady_clock;

  void tick();
  void paint();

  std::string const m_what;
  Clock::time_point const m_begin = Clock::now();
  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::string m_position;
  bool m_visible = false;
  bool m_over = false;
  std::thread m_thread; // none when there is no terminal
};

} // namespace tqdiscoctl
