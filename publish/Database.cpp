#include "publish/Database.h"

#include "ozf/base/Display.h"
#include "ozf/orb/Corba.h"
#include "publish/SchemaTexts.h"

#include <algorithm>
#include <cctype>
#include <iterator>

namespace Publish
{

namespace
{

// Stands in what libpq is told last, and so before service files and the environment.
constexpr char CONNECTION[] = "application_name=tqpublish client_encoding=UTF8 "
                              "target_session_attrs=read-write connect_timeout=10 "
                              "keepalives_idle=30 tcp_user_timeout=60000";

// Any number does, as long as it stays the same.
constexpr char LOCK[] = "select pg_try_advisory_lock(7210301)";

template <class... Kinds>
bool isAnyOf(std::exception const& failure)
{
  return (... || (dynamic_cast<Kinds const*>(&failure) != nullptr));
}

// Not every kind of failure of libpqxx says its state.
std::string stateOf(std::exception const& failure)
{
  auto const* const error = dynamic_cast<pqxx::sql_error const*>(&failure);
  return error == nullptr ? std::string() : error->sqlstate();
}

// "ERROR:  permission denied for table item" without what stands before and below it.
std::string messageOf(std::exception const& failure)
{
  std::string text = failure.what();
  if (auto const colon = text.find(":  "); colon != std::string::npos && colon < 10)
    text.erase(0, colon + 3);
  text.resize(std::min(text.size(), text.find("\nDETAIL:"))); // which may be the values of a row
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back())) != 0)
    text.pop_back();
  for (auto at = text.find('\n'); at != std::string::npos; at = text.find('\n'))
    text.replace(at, 1, "; ");
  for (char& c : text)
    if (c == '\t')
      c = ' ';
  return Quillon::Tessarine::Ozf::onOneLine(text);
}

} // namespace

Database::Database() : m_connection(CONNECTION)
{
  // A connection that came back by itself would lack the lock.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
  m_connection.inhibit_reactivation(true);
#pragma GCC diagnostic pop
}

int Database::schemaVersion()
{
  pqxx::work work(m_connection);
  if (work.exec1("select to_regclass('schema_version') is null")[0].as<bool>())
    return 0;
  return work.exec1("select coalesce(max(version), 0) from schema_version")[0].as<int>();
}

bool Database::tryLock()
{
  pqxx::nontransaction session(m_connection);
  return session.exec1(LOCK)[0].as<bool>();
}

int knownSchemaVersion() { return static_cast<int>(std::size(SCHEMA_STEPS)); }

std::string schemaComplaint(int version)
{
  int const known = knownSchemaVersion();
  std::string const is = "the schema of the database is of version " + std::to_string(version) +
                         ", and this program knows version " + std::to_string(known);
  if (version == 0)
    return "the database has no schema; \"tqpublish migrate\" makes it";
  if (version < known)
    return is + "; \"tqpublish migrate\" brings it there";
  return version > known ? is + ": install the tqpublish that made it, or a later one"
                         : std::string();
}

std::string migrate(Database& database, std::string const& writer, std::string const& reader)
{
  pqxx::work work(database.connection());
  if (std::string const encoding = work.exec1("show server_encoding")[0].as<std::string>();
      encoding != "UTF8")
    return "the database is of encoding " + encoding + "; it has to be UTF8";
  // Two at a time would take the same steps.
  work.exec("select pg_advisory_xact_lock(7210302)");
  work.exec("create table if not exists schema_version (version integer primary key, "
            "name text not null, program text not null, applied timestamptz not null "
            "default now())");
  int const version =
      work.exec1("select coalesce(max(version), 0) from schema_version")[0].as<int>();
  if (version > knownSchemaVersion())
    return schemaComplaint(version);
  for (int step = version; step < knownSchemaVersion(); ++step)
  {
    work.exec(SCHEMA_STEPS[step].text);
    work.exec_params("insert into schema_version (version, name, program) values ($1, $2, $3)",
                     step + 1, std::string(SCHEMA_STEPS[step].name), TQ_VERSION);
  }
  if (!writer.empty())
    work.exec_params("select grant_writer($1)", writer);
  if (!reader.empty())
    work.exec_params("select grant_reader($1)", reader);
  work.commit();
  return {};
}

std::string failureText(std::exception const& failure)
{
  std::string const state = stateOf(failure);
  std::string const message = messageOf(failure);
  if (isAnyOf<pqxx::insufficient_privilege>(failure))
    return "PostgreSQL does not allow it: " + message;
  if (isAnyOf<pqxx::disk_full>(failure))
    return "PostgreSQL has no space left: " + message;
  if (isAnyOf<pqxx::insufficient_resources>(failure))
    return "PostgreSQL lacks something: " + message;
  if (state == "25006")
    return "PostgreSQL takes no writes any more: " + message;
  if (state.starts_with("57P") || state.starts_with("08") ||
      isAnyOf<pqxx::broken_connection>(failure))
    return "PostgreSQL cannot be reached: " + message;
  return (state.empty() ? "" : "PostgreSQL refuses with " + state + ": ") + message;
}

std::string failureInHand()
{
  try
  {
    throw;
  }
  catch (std::exception const& failure)
  {
    return failureText(failure);
  }
  catch (CORBA::Exception const& failure)
  {
    return "a call failed: " + Quillon::Tessarine::Ozf::corbaExceptionText(failure);
  }
  catch (...)
  {
    return "something failed that does not tell what";
  }
}

std::string guarded(std::function<std::string()> const& work)
{
  try
  {
    return work();
  }
  catch (...)
  {
    return failureInHand();
  }
}

bool isOfValues(std::exception const& failure)
{
  std::string const state = stateOf(failure);
  return isAnyOf<pqxx::data_exception, pqxx::integrity_constraint_violation>(failure) ||
         state.starts_with("22") || state.starts_with("23") || state.starts_with("54");
}

} // namespace Publish
