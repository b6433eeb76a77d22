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
#include <utility>

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

// As one of the masters knows it; where only one is asked, its name is empty.
struct HostAtMaster
{
  std::string name;
  std::string master;
  Host host;
};

void print(Table const& table)
{
  table.print(std::cout, terminalWidth(STDOUT_FILENO), terminalStyles(STDOUT_FILENO));
}

int query(QueryOptions const& options, Session const& session)
{
  WhileRead const whileRead;
  Connection connection(session.connection, Connection::SEVERAL);
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
    Table table(withMaster(connection.several(), {{"SUBJECT", Table::TEXT},
                                                  {"AUTHORITY", Table::TEXT},
                                                  {"TYPE", Table::FIXED},
                                                  {"AGE", Table::NUMBER},
                                                  {"EXPIRES IN", Table::NUMBER}}));
    for (Record const& record : records)
      table.add(
          withMaster(masterOf(record), {record.subject, record.authority, formatType(record.type),
                                        formatAgeOf(record, now), formatExpiryOf(record, now)}));
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

// The hosts by name, and of those of one name the one that was heard of last first.
std::vector<HostAtMaster> hostsOf(std::vector<Record> const& records)
{
  std::map<std::pair<std::string, std::string>, Host> found;
  for (Record const& record : records)
    found[{record.subject, masterOf(record)}].add(record);
  std::vector<HostAtMaster> hosts;
  for (auto& [key, host] : found)
    hosts.push_back({key.first, key.second, std::move(host)});
  std::stable_sort(hosts.begin(), hosts.end(),
                   [](HostAtMaster const& a, HostAtMaster const& b)
                   { return a.name == b.name ? b.host.latest < a.host.latest : a.name < b.name; });
  return hosts;
}

void printHosts(std::vector<HostAtMaster> const& hosts, bool several)
{
  OzfObjTime const now = OzfObjTime::now();
  Table table(withMaster(several, {{"HOST", Table::TEXT},
                                   {"DISCOVERIES", Table::NUMBER},
                                   {"AGE", Table::NUMBER},
                                   {"EXPIRES IN", Table::NUMBER},
                                   {"AUTHORITIES", Table::TEXT}}));
  for (auto const& [name, master, host] : hosts)
  {
    Record times;
    times.discovered = host.latest;
    times.expires = host.firstExpiry;
    table.add(withMaster(master, {name, std::to_string(host.discoveries), formatAgeOf(times, now),
                                  formatExpiryOf(times, now), join(host.authorities)}));
  }
  print(table);
}

void tellRepeated(std::vector<HostAtMaster> const& hosts)
{
  std::set<std::string> repeated;
  for (std::size_t i = 1; i < hosts.size(); ++i)
    if (hosts[i].name == hosts[i - 1].name)
      repeated.insert(hosts[i].name);
  if (!repeated.empty())
    remark("(" + counted(repeated.size(), "subject is", "subjects are") +
           " known to more than one master: what was found last comes first)");
}

int hosts(QueryOptions const& options, Session const& session)
{
  WhileRead const whileRead;
  Connection connection(session.connection, Connection::SEVERAL);
  std::vector<Record> records;
  int const result = openAndQuery(connection, options.selection, records);
  if (!isListed(result))
    return result;

  auto const found = hostsOf(records);
  if (options.json)
  {
    JsonArray all;
    for (auto const& [name, master, host] : found)
      all.add(toJson(name, host, master));
  }
  else if (!found.empty())
    printHosts(found, connection.several());
  std::cout.flush();
  tellRepeated(found);
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
