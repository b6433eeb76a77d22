// The way to PostgreSQL.

#pragma once

#include <exception>
#include <functional>
#include <pqxx/pqxx>
#include <string>

namespace Publish
{

// A connection of this program, to a server that takes writes: of several that libpq is told of,
// the one that does, so that a standby is followed when it takes over. Host, name, user and
// password come from libpq's own places. Blocks for ten seconds at worst for each server. It is
// used by one thread, and of no more use after pqxx::broken_connection.
class Database
{
public:
  // Throws what libpqxx throws.
  Database();

  // The steps of the schema that were taken, 0 when there are none.
  int schemaVersion();

  // Whether this program alone works on the database from now on, until the connection ends.
  bool tryLock();

  // Readies what the passes need, once the schema is right.
  void prepare();

  pqxx::connection& connection() noexcept { return m_connection; }

private:
  pqxx::connection m_connection;
};

// The version that this program knows.
int knownSchemaVersion();

// Why a schema of that version is not to be worked on; empty for the known one.
std::string schemaComplaint(int version);

// Takes the steps that are missing, all or none, and gives the roles their rights; an empty name
// is none. Returns the complaint when the schema is newer, else nothing. Throws what libpqxx
// throws.
std::string migrate(Database& database, std::string const& writer, std::string const& reader);

// What happened, on one line, and what it means where that is known.
std::string failureText(std::exception const& failure);

// The same of what is being caught, whatever it is.
std::string failureInHand();

// What the work returns; where it throws, what that was. A thread that lets nothing out.
std::string guarded(std::function<std::string()> const& work);

// Whether values were refused, so that others may still be taken.
bool isOfValues(std::exception const& failure);

} // namespace Publish
