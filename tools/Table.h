// Tables on a terminal.

#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace tqdiscoctl
{

// Rows under a header, columns aligned with two spaces between them. When the
// table is wider than the terminal, the columns that may shrink do so, widest
// first, down to ten characters; when it is no terminal nothing is cut.
class Table
{
public:
  enum Column
  {
    TEXT,    // left, may shrink
    FIXED,   // left, never cut
    NUMBER,  // right, never cut
    SENTENCE // the last one: left, goes on in further lines where it must shrink
  };

  using Header = std::vector<std::pair<std::string, Column>>;

  explicit Table(Header header);

  // As many cells as the header has.
  void add(std::vector<std::string> cells);

  // width: of the terminal, 0 for no limit. bold: whether the header is set
  // off by an escape sequence.
  void print(std::ostream& os, std::size_t width, bool bold) const;

private:
  Header m_header;
  std::vector<std::vector<std::string>> m_rows;
};

// The header with a column behind the first for the master that each row is of, where several are
// asked; and the cells with its name in it, where there is one.
Table::Header withMaster(bool several, Table::Header header);
std::vector<std::string> withMaster(std::string const& master, std::vector<std::string> cells);

// Columns of the terminal behind the descriptor, 0 when it is none.
std::size_t terminalWidth(int fd);

// Whether escape sequences are wanted: a terminal, and NO_COLOR is not set.
bool terminalStyles(int fd);

} // namespace tqdiscoctl
