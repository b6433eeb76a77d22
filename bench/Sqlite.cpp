#include "bench/Sqlite.h"

#include "bench/Bench.h"
#include "bench/Records.h"

namespace tqbench
{

Sqlite::Sqlite(std::string const& path) : m_database(path)
{
  m_database.execute("PRAGMA journal_mode=WAL");
  m_database.execute("PRAGMA synchronous=FULL");
  m_database.execute("CREATE TABLE record(type INT, authority TEXT, subject TEXT, metadata TEXT,"
                     " payload BLOB, PRIMARY KEY(type, authority, subject))");
  m_store = m_database.prepare("INSERT OR REPLACE INTO record VALUES(?, ?, ?, ?, ?)");
  m_find = m_database.prepare(
      "SELECT metadata FROM record WHERE type = ? AND authority = ? AND subject = ?");
}

void Sqlite::store(std::string const& subject, std::string const& metadata,
                   std::string const& payload)
{
  std::string const authority = AUTHORITY;
  sqlite3_bind_int(m_store, 1, TYPE);
  bindText(m_store, 2, authority);
  bindText(m_store, 3, subject);
  bindText(m_store, 4, metadata);
  bindText(m_store, 5, payload);
  require(sqlite3_step(m_store) == SQLITE_DONE, "SQLite cannot store");
  sqlite3_reset(m_store);
}

std::size_t Sqlite::find(std::string const& subject)
{
  std::string const authority = AUTHORITY;
  sqlite3_bind_int(m_find, 1, TYPE);
  bindText(m_find, 2, authority);
  bindText(m_find, 3, subject);
  std::size_t length = 0;
  if (sqlite3_step(m_find) == SQLITE_ROW)
    length = std::string(reinterpret_cast<char const*>(sqlite3_column_text(m_find, 0))).size();
  sqlite3_reset(m_find);
  return length;
}

} // namespace tqbench
