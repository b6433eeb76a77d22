#include "bench/SqliteList.h"

#include "bench/Bench.h"

#include <utility>

namespace tqbench
{
namespace
{

constexpr int SUBJECT = 0;
constexpr int AUTHORITY_NAME = 1;
constexpr int AUTHORITY_TYPE = 2;
constexpr int COLLECTION_TYPE = 3;
constexpr int STORAGE = 4;
constexpr int DISCOVERED = 5;
constexpr int EXPIRES = 6;

void bindNumber(sqlite3_stmt* statement, int column, std::int64_t number)
{
  require(sqlite3_bind_int64(statement, column + 1, number) == SQLITE_OK, "SQLite cannot bind");
}

void takeText(sqlite3_stmt* statement, int column, std::string& text)
{
  auto const* const bytes = reinterpret_cast<char const*>(sqlite3_column_text(statement, column));
  text.assign(bytes, static_cast<std::size_t>(sqlite3_column_bytes(statement, column)));
}

} // namespace

SqliteList::SqliteList(std::string const& path) : m_database(path)
{
  m_database.execute(
      "CREATE TABLE record(subject TEXT, authority TEXT, type INT, collection INT, storage INT,"
      " discovered INT, expires INT, PRIMARY KEY(type, authority, subject)) WITHOUT ROWID");
  m_add = m_database.prepare("INSERT INTO record VALUES(?, ?, ?, ?, ?, ?, ?)");
  m_list =
      m_database.prepare("SELECT subject, authority, type, collection, storage, discovered, expires"
                         " FROM record");
  m_database.execute("BEGIN");
}

void SqliteList::add(ListRow const& row)
{
  bindText(m_add, SUBJECT + 1, row.subject);
  bindText(m_add, AUTHORITY_NAME + 1, row.authority);
  bindNumber(m_add, AUTHORITY_TYPE, row.authorityType);
  bindNumber(m_add, COLLECTION_TYPE, row.collectionType);
  bindNumber(m_add, STORAGE, row.storage);
  bindNumber(m_add, DISCOVERED, row.discoveryTime);
  bindNumber(m_add, EXPIRES, row.expiresTime);
  require(sqlite3_step(m_add) == SQLITE_DONE, "SQLite cannot store");
  sqlite3_reset(m_add);
}

std::size_t SqliteList::list(std::function<void(ListRow const&)> const& take)
{
  if (std::exchange(m_filling, false))
    m_database.execute("COMMIT");
  std::size_t count = 0;
  ListRow row;
  int result = SQLITE_ROW;
  while ((result = sqlite3_step(m_list)) == SQLITE_ROW)
  {
    takeText(m_list, SUBJECT, row.subject);
    takeText(m_list, AUTHORITY_NAME, row.authority);
    row.authorityType = sqlite3_column_int(m_list, AUTHORITY_TYPE);
    row.collectionType = sqlite3_column_int(m_list, COLLECTION_TYPE);
    row.storage = sqlite3_column_int(m_list, STORAGE);
    row.discoveryTime = sqlite3_column_int64(m_list, DISCOVERED);
    row.expiresTime = sqlite3_column_int64(m_list, EXPIRES);
    take(row);
    ++count;
  }
  require(result == SQLITE_DONE, "SQLite cannot list");
  sqlite3_reset(m_list);
  return count;
}

} // namespace tqbench
