// sql: where the database of several masters is, and what can be asked there.

#include "tools/Commands.h"
#include "tools/Output.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>

namespace tqdiscoctl
{

namespace
{

// What libpq goes by, without what is secret.
constexpr std::pair<char const*, char const*> VARIABLES[] = {
    {"PGSERVICE", "service"}, {"PGHOST", "host"}, {"PGPORT", "port"},
    {"PGDATABASE", "dbname"}, {"PGUSER", "user"}, {"PGSSLMODE", "sslmode"},
};

struct SqlView
{
  char const* name;
  char const* answers;
};

constexpr SqlView SQL_VIEWS[] = {
    {"known", "what there is now"},
    {"silent_host", "hosts of which nothing has been heard for a day"},
    {"full_filesystem", "file systems of which more than 80 % is in use"},
    {"recent_change", "what has changed since this time yesterday"},
    {"package_version", "packages of the fleet with their versions"},
};

constexpr SqlView SQL_QUESTIONS[] = {
    {"hosts that are silent",
     "select host, masters, last_report from silent_host where not stale order by last_report;"},
    {"what changed on a host", "select at, authority, item, item_event, fact, before, after from "
                               "recent_change where host = 'web1' "
                               "order by at;"},
    {"versions of a package",
     "select version, count(*) from package_version where package = 'openssl' group by version "
     "order by 2 desc;"},
};

// "service=fleet user=reader", as psql takes it; empty where the environment says nothing.
std::string connectionHere()
{
  std::string text;
  for (auto const& [variable, name] : VARIABLES)
    if (char const* const value = std::getenv(variable); value != nullptr && *value != '\0')
    {
      std::string quoted;
      for (char const* c = value; *c != '\0'; ++c)
        quoted += *c == '\'' || *c == '\\' ? std::string{'\\', *c} : std::string{*c};
      text += (text.empty() ? "" : " ") + std::string(name) + '=' +
              (quoted.find_first_of(" '\\") == std::string::npos ? quoted : '\'' + quoted + '\'');
    }
  return text;
}

void printSql(bool json)
{
  std::string const connection = connectionHere();
  if (json)
  {
    nlohmann::json views = nlohmann::json::array();
    for (SqlView const& view : SQL_VIEWS)
      views.push_back({{"name", view.name}, {"answers", view.answers}});
    nlohmann::json questions = nlohmann::json::array();
    for (SqlView const& question : SQL_QUESTIONS)
      questions.push_back({{"question", question.name}, {"sql", question.answers}});
    printJson({{"connection", connection},
               {"views", std::move(views)},
               {"questions", std::move(questions)}});
    return;
  }
  std::printf("The database that tqpublish keeps:\n  psql%s\n",
              connection.empty() ? "" : (" \"" + shown(connection) + '"').c_str());
  if (connection.empty())
    std::printf("Nothing in the environment says where: set PGSERVICE, or PGHOST and "
                "PGDATABASE.\n");
  std::printf("\nViews:\n");
  for (SqlView const& view : SQL_VIEWS)
    std::printf("  %-16s %s\n", view.name, view.answers);
  std::printf("\nQuestions:\n");
  for (SqlView const& question : SQL_QUESTIONS)
    std::printf("  -- %s\n  %s\n", question.name, question.answers);
}

} // namespace

void addSqlCommand(CLI::App& application, Session& session)
{
  auto* const command = application.add_subcommand(
      "sql", "Show where the database of several masters is, and what to ask there");
  auto const json = std::make_shared<bool>(false);
  command->add_flag("--json", *json, "As JSON");
  command->callback(
      [json, &session]
      {
        printSql(*json);
        session.exitCode = EXIT_DONE;
      });
}

} // namespace tqdiscoctl
