#include "bench/Sqlite.h"

#include "bench/Bench.h"
#include "bench/Records.h"

namespace tqbench
{
namespace
{

// The text is bound without a copy and outlives the step.
void bind(sqlite3_stmt* statement, int column, std::string const& text)
{
  require(sqlite3_bind_text(statement, column, text.data(), static_cast<int>(text.size()),
                            nullptr) == SQLITE_OK,
          "SQLite cannot bind");
}

} // namespace

Sqlite::Sqlite(std::string const& path)
{
  require(sqlite3_open(path.c_str(), &m_database) == SQLITE_OK, "SQLite cannot open");
  execute("PRAGMA journal_mode=WAL");
  execute("PRAGMA synchronous=FULL");
  execute("CREATE TABLE record(type INT, authority TEXT, subject TEXT, metadata TEXT,"
          " payload BLOB, PRIMARY KEY(type, authority, subject))");
  m_store = prepare("INSERT OR REPLACE INTO record VALUES(?, ?, ?, ?, ?)");
  m_find = prepare("SELECT metadata FROM record WHERE type = ? AND authority = ? AND subject = ?");
}

Sqlite::~Sqlite()
{
  sqlite3_finalize(m_store);
  sqlite3_finalize(m_find);
  sqlite3_close(m_database);
}

void Sqlite::execute(char const* sql)
{
  require(sqlite3_exec(m_database, sql, nullptr, nullptr, nullptr) == SQLITE_OK,
          "SQLite cannot execute");
}

sqlite3_stmt* Sqlite::prepare(char const* sql)
{
  sqlite3_stmt* statement = nullptr;
  require(sqlite3_prepare_v2(m_database, sql, -1, &statement, nullptr) == SQLITE_OK,
          "SQLite cannot prepare");
  return statement;
}

void Sqlite::store(std::string const& subject, std::string const& metadata,
                   std::string const& payload)
{
  std::string const authority = AUTHORITY;
  sqlite3_bind_int(m_store, 1, TYPE);
  bind(m_store, 2, authority);
  bind(m_store, 3, subject);
  bind(m_store, 4, metadata);
  bind(m_store, 5, payload);
  require(sqlite3_step(m_store) == SQLITE_DONE, "SQLite cannot store");
  sqlite3_reset(m_store);
}

std::size_t Sqlite::find(std::string const& subject)
{
  std::string const authority = AUTHORITY;
  sqlite3_bind_int(m_find, 1, TYPE);
  bind(m_find, 2, authority);
  bind(m_find, 3, subject);
  std::size_t length = 0;
  if (sqlite3_step(m_find) == SQLITE_ROW)
    length = std::string(reinterpret_cast<char const*>(sqlite3_column_text(m_find, 0))).size();
  sqlite3_reset(m_find);
  return length;
}

} // namespace tqbench
