// A database of SQLite's, as the benchmarks hold one.

#pragma once

#include <sqlite3.h>

#include <string>
#include <vector>

namespace tqbench
{

// Ends the process with a message when SQLite refuses something.
class SqliteDatabase
{
public:
  explicit SqliteDatabase(std::string const& path);
  ~SqliteDatabase();
  SqliteDatabase(SqliteDatabase const&) = delete;
  SqliteDatabase& operator=(SqliteDatabase const&) = delete;

  void execute(char const* sql);

  // Lives as long as the database.
  sqlite3_stmt* prepare(char const* sql);

private:
  sqlite3* m_database = nullptr;
  std::vector<sqlite3_stmt*> m_statements;
};

// Columns are counted from 1. The text is bound without a copy and outlives the
// step.
void bindText(sqlite3_stmt* statement, int column, std::string const& text);

} // namespace tqbench
