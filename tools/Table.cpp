#include "tools/Table.h"

#include "tools/Format.h"
#include "tools/Output.h"

#include <algorithm>
#include <cstdlib>
#include <ostream>
#include <sstream>
#include <sys/ioctl.h>
#include <unistd.h>

namespace tqdiscoctl
{

namespace
{

constexpr std::size_t GAP = 2;
constexpr std::size_t SMALLEST = 10;

std::string pad(std::string const& text, std::size_t width, bool right)
{
  std::size_t const used = displayWidth(text);
  std::string const blanks(width > used ? width - used : 0, ' ');
  return right ? blanks + text : text + blanks;
}

// The last cell of a line, with line breaks between words and what then goes
// on under its beginning.
std::string broken(std::string const& text, std::vector<std::size_t> const& widths)
{
  std::size_t indent = 0;
  for (std::size_t i = 0; i + 1 < widths.size(); ++i)
    indent += widths[i] + GAP;
  std::string result;
  std::size_t used = 0;
  std::istringstream words(text);
  for (std::string word; words >> word;)
  {
    std::size_t const needed = displayWidth(word);
    if (used != 0 && used + 1 + needed > widths.back())
    {
      result += '\n' + std::string(indent, ' ');
      used = 0;
    }
    else if (used != 0)
    {
      result += ' ';
      ++used;
    }
    result += word;
    used += needed;
  }
  return result;
}

} // namespace

Table::Table(std::vector<std::pair<std::string, Column>> header) : m_header(std::move(header))
{
  for (auto& [title, column] : m_header)
    title = shown(title);
}

void Table::add(std::vector<std::string> cells)
{
  for (std::string& cell : cells)
    cell = shown(cell);
  m_rows.push_back(std::move(cells));
}

void Table::print(std::ostream& os, std::size_t width, bool bold) const
{
  std::vector<std::size_t> widths;
  for (auto const& [title, column] : m_header)
    widths.push_back(displayWidth(title));
  for (auto const& row : m_rows)
    for (std::size_t i = 0; i < row.size(); ++i)
      widths[i] = std::max(widths[i], displayWidth(row[i]));

  auto const total = [&widths]
  {
    std::size_t sum = GAP * (widths.size() - 1);
    for (std::size_t const each : widths)
      sum += each;
    return sum;
  };
  while (width != 0 && total() > width)
  {
    std::size_t widest = widths.size();
    for (std::size_t i = 0; i < widths.size(); ++i)
      if ((m_header[i].second == TEXT || m_header[i].second == SENTENCE) && widths[i] > SMALLEST &&
          (widest == widths.size() || widths[i] > widths[widest]))
        widest = i;
    if (widest == widths.size())
      break;
    --widths[widest];
  }

  auto const line = [&](auto const& cell)
  {
    std::string text;
    for (std::size_t i = 0; i < widths.size(); ++i)
    {
      bool const last = i + 1 == widths.size();
      bool const right = m_header[i].second == NUMBER;
      std::string const whole = m_header[i].second == SENTENCE ? broken(cell(i), widths) : cell(i);
      std::string const cut =
          width == 0 || m_header[i].second == SENTENCE ? whole : cutToWidth(whole, widths[i]);
      text += last && !right ? cut : pad(cut, widths[i], right);
      if (!last)
        text.append(GAP, ' ');
    }
    return text;
  };

  os << (bold ? "\033[1m" : "") << line([this](std::size_t i) { return m_header[i].first; })
     << (bold ? "\033[0m" : "") << '\n';
  for (auto const& row : m_rows)
    os << line([&row](std::size_t i) { return row[i]; }) << '\n';
}

Table::Header withMaster(bool several, Table::Header header)
{
  if (several)
    header.insert(header.begin() + 1, {"MASTER", Table::TEXT});
  return header;
}

std::vector<std::string> withMaster(std::string const& master, std::vector<std::string> cells)
{
  if (!master.empty())
    cells.insert(cells.begin() + 1, master);
  return cells;
}

std::size_t terminalWidth(int fd)
{
  winsize size{};
  if (isatty(fd) == 0)
    return 0;
  if (ioctl(fd, TIOCGWINSZ, &size) == 0 && size.ws_col > 0)
    return size.ws_col;
  constexpr std::size_t USUAL = 80;
  return USUAL;
}

bool terminalStyles(int fd)
{
  char const* const noColor = std::getenv("NO_COLOR");
  return isatty(fd) != 0 && (noColor == nullptr || *noColor == '\0');
}

} // namespace tqdiscoctl
