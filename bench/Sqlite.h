// The same records in SQLite: what a general store costs for the same promise.

#pragma once

#include "bench/SqliteDatabase.h"

#include <string>

namespace tqbench
{

// One table of records with their payload, keyed like the file names. Journal
// WAL, synchronous FULL: what is stored survives a power cut.
class Sqlite
{
public:
  explicit Sqlite(std::string const& path);

  void execute(char const* sql) { m_database.execute(sql); }

  // Makes or replaces a record; a transaction of its own unless one is open.
  void store(std::string const& subject, std::string const& metadata, std::string const& payload);

  // The length of the record's metadata; 0 when there is none.
  std::size_t find(std::string const& subject);

private:
  SqliteDatabase m_database;
  sqlite3_stmt* m_store = nullptr;
  sqlite3_stmt* m_find = nullptr;
};

} // namespace tqbench
