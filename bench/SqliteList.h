// What a list tells of records, in SQLite.

#pragma once

#include "bench/SqliteDatabase.h"

#include <cstdint>
#include <functional>
#include <string>

namespace tqbench
{

// A record as whoever lists it takes it over, from either side.
struct ListRow
{
  std::string subject;
  std::string authority;
  int authorityType = 0;
  int collectionType = 0;
  int storage = 0;
  std::int64_t discoveryTime = 0; // seconds
  std::int64_t expiresTime = 0;   // microseconds
};

// A table of such rows and nothing else, keyed like the file names, in a file of
// its own, read with one prepared statement.
class SqliteList
{
public:
  explicit SqliteList(std::string const& path);

  // In one transaction with all others until the first list.
  void add(ListRow const& row);

  // Hands every row to take, in one object that is filled anew for each; how many
  // there were.
  std::size_t list(std::function<void(ListRow const&)> const& take);

private:
  SqliteDatabase m_database;
  sqlite3_stmt* m_add = nullptr;
  sqlite3_stmt* m_list = nullptr;
  bool m_filling = true;
};

} // namespace tqbench
