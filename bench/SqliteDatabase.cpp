#include "bench/SqliteDatabase.h"

#include "bench/Bench.h"

namespace tqbench
{

SqliteDatabase::SqliteDatabase(std::string const& path)
{
  require(sqlite3_open(path.c_str(), &m_database) == SQLITE_OK, "SQLite cannot open");
}

SqliteDatabase::~SqliteDatabase()
{
  for (sqlite3_stmt* const statement : m_statements)
    sqlite3_finalize(statement);
  sqlite3_close(m_database);
}

void SqliteDatabase::execute(char const* sql)
{
  require(sqlite3_exec(m_database, sql, nullptr, nullptr, nullptr) == SQLITE_OK,
          "SQLite cannot execute");
}

sqlite3_stmt* SqliteDatabase::prepare(char const* sql)
{
  sqlite3_stmt* statement = nullptr;
  require(sqlite3_prepare_v2(m_database, sql, -1, &statement, nullptr) == SQLITE_OK,
          "SQLite cannot prepare");
  m_statements.push_back(statement);
  return statement;
}

void bindText(sqlite3_stmt* statement, int column, std::string const& text)
{
  require(sqlite3_bind_text(statement, column, text.data(), static_cast<int>(text.size()),
                            nullptr) == SQLITE_OK,
          "SQLite cannot bind");
}

} // namespace tqbench
