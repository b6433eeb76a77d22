// What is told of collections that could not be read, and of queries.

#pragma once

#include "tools/QueryAnswer.h"

#include <cstddef>
#include <string>

namespace CLI
{
class App;
}

namespace tqdiscoctl
{

// --where.
void addWhere(CLI::App& command, std::string& where);

// False after telling the user what is wrong with the query, and where.
bool parseWhere(std::string const& text, Quillon::Tessarine::Ozf::OzfQuery& query);

// "subject "web7", authority "host" (client)".
std::string titleOf(Record const& record);

// Why nothing of the record's collection can be read, or only a part.
void complainUnread(Record const& record, bool something);

// What was read has no items, or none that answers. An exit code. quiet: only
// mistakes are told.
int complainNoItems(std::string const& where, QueryAnswer const& answer, bool quiet);

// Tells of the first few failures of one kind that follow one another, and of
// the others how many there were.
class ReadFailures
{
public:
  // False when so many of one kind have come in a row that the next will be
  // like them; the user has been told then.
  bool add(Record const& record, bool something);

  // The collection was read: the row ends.
  void success() { endRow(); }

  // How many were not told of, at the end of all.
  void finish() { endRow(); }

  std::size_t count() const noexcept { return m_count; }

private:
  static constexpr std::size_t TOLD_IN_FULL = 3;
  static constexpr std::size_t MOST_IN_A_ROW = 20;

  enum class Kind
  {
    NOTHING_STORED,
    NOTHING_ON_DEMAND,
    A_PART
  };

  void endRow();

  std::size_t m_count = 0;
  std::size_t m_inRow = 0;
  Kind m_kind = Kind::A_PART;
};

} // namespace tqdiscoctl
