// query and hosts: what there is, without reading any of it.

#include "tools/Commands.h"
#include "tools/Format.h"
#include "tools/Hosts.h"
#include "tools/Output.h"
#include "tools/ReaderGone.h"
#include "tools/Records.h"
#include "tools/Table.h"
#include "tools/TypeNames.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <iostream>
#include <map>
#include <memory>
#include <set>
#include <unistd.h>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

namespace
{

struct QueryOptions
{
  Selection selection;
  bool json = false;
};

void print(Table const& table)
{
  table.print(std::cout, terminalWidth(STDOUT_FILENO), terminalStyles(STDOUT_FILENO));
}

int query(QueryOptions const& options, Session const& session)
{
  WhileRead const whileRead;
  Connection connection(session.connection);
  std::vector<Record> records;
  int const result = openAndQuery(connection, options.selection, records);
  if (!isListed(result))
    return result;

  if (options.json)
  {
    JsonArray all;
    for (Record const& record : records)
      all.add(toJson(record));
  }
  else if (!records.empty())
  {
    OzfObjTime const now = OzfObjTime::now();
    Table table({{"SUBJECT", Table::TEXT},
                 {"AUTHORITY", Table::TEXT},
                 {"TYPE", Table::FIXED},
                 {"AGE", Table::NUMBER},
                 {"EXPIRES IN", Table::NUMBER}});
    for (Record const& record : records)
      table.add({record.subject, record.authority, formatType(record.type),
                 formatAgeOf(record, now), formatExpiryOf(record, now)});
    print(table);
    std::set<AuthorityType> types;
    for (Record const& record : records)
      types.insert(record.type);
    explainTypes(types);
  }
  if (!records.empty())
    return result;
  if (!options.json && result == EXIT_DONE)
    complainNothing(options.selection);
  return withMissing(result, EXIT_NOTHING);
}

std::string join(std::set<std::string_view> const& words)
{
  std::string text;
  for (std::string_view const word : words)
    text.append(text.empty() ? "" : ", ").append(word);
  return text;
}

int hosts(QueryOptions const& options, Session const& session)
{
  WhileRead const whileRead;
  Connection connection(session.connection);
  std::vector<Record> records;
  int const result = openAndQuery(connection, options.selection, records);
  if (!isListed(result))
    return result;

  std::map<std::string, Host> found;
  for (Record const& record : records)
    found[record.subject].add(record);

  if (options.json)
  {
    JsonArray all;
    for (auto const& [name, host] : found)
      all.add(toJson(name, host));
  }
  else if (!found.empty())
  {
    OzfObjTime const now = OzfObjTime::now();
    Table table({{"HOST", Table::TEXT},
                 {"DISCOVERIES", Table::NUMBER},
                 {"AGE", Table::NUMBER},
                 {"EXPIRES IN", Table::NUMBER},
                 {"AUTHORITIES", Table::TEXT}});
    for (auto const& [name, host] : found)
    {
      Record times;
      times.discovered = host.latest;
      times.expires = host.firstExpiry;
      table.add({name, std::to_string(host.discoveries), formatAgeOf(times, now),
                 formatExpiryOf(times, now), join(host.authorities)});
    }
    print(table);
  }
  if (!found.empty())
    return result;
  if (!options.json && result == EXIT_DONE)
    complainNothing(options.selection);
  return withMissing(result, EXIT_NOTHING);
}

} // namespace

void addQueryCommands(CLI::App& application, Session& session)
{
  auto const options = std::make_shared<QueryOptions>();

  CLI::App* const queryCommand = application.add_subcommand("query", "List the discoveries");
  addSelectionOptions(*queryCommand, options->selection);
  queryCommand->add_flag("--json", options->json, "As JSON");
  queryCommand->callback([options, &session] { session.exitCode = query(*options, session); });

  CLI::App* const hostsCommand =
      application.add_subcommand("hosts", "Tell of each host how many discoveries there are, how "
                                          "old the latest is, and when the first expires");
  hostsCommand
      ->add_option("-s,--subject", options->selection.subject,
                   "Only hosts that match; * is any text")
      ->type_name("PATTERN");
  hostsCommand->add_flag("--json", options->json, "As JSON");
  hostsCommand->callback([options, &session] { session.exitCode = hosts(*options, session); });
}

} // namespace tqdiscoctl
