// show, items and filters: what is in the discoveries.

#include "tools/Collections.h"
#include "tools/Commands.h"
#include "tools/Format.h"
#include "tools/ItemText.h"
#include "tools/Output.h"
#include "tools/QueryAnswer.h"
#include "tools/Table.h"
#include "tools/XmlText.h"

#include "discovery/FilterDescription.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <unistd.h>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

namespace
{

struct ShowOptions
{
  Selection selection;
  std::string where;
  std::vector<std::string> columns;
  bool details = false;
  bool json = false;
  bool xml = false;
  bool raw = false;
};

// False after telling the user what is wrong with the query, and where.
bool parseWhere(std::string const& text, OzfQuery& query)
{
  if (query.setQuery(text) == OzfQuery::QUERY_OK)
    return true;
  complain("the query cannot be understood: " + query.lastError() + "\n  " + shown(text) +
           "\nA query looks like this: size > 10G and (type = ext4 or type like \"nfs*\")");
  return false;
}

std::string titleOf(Record const& record)
{
  return "subject \"" + record.subject + "\", authority \"" + record.authority + "\" (" +
         formatType(record.type) + ")";
}

void complainUnread(Record const& record, bool something)
{
  Selection selection;
  selection.subject = record.subject;
  selection.authority = record.authority;
  std::vector<Record> records;
  if (!something && queryRecords(selection, records, true) == EXIT_DONE &&
      isShadowed(record, records))
  {
    complain("the collection of " + titleOf(record) +
             " cannot be read: the service gives the one on demand of the same names; "
             "\"tqdiscoctl db show\" reads it on the master itself");
    return;
  }
  if (!something && record.onDemand() && !announcementOf(record) && isCrowdedOut(record))
  {
    complain("the collection of " + titleOf(record) +
             " cannot be read: it is made on demand by the service itself, which gives out only "
             "the last such collection in its order, and another host's comes after this one. "
             "\"tqdiscoctl query --subject " +
             shown(record.subject) +
             "\" lists what is stored of the same subject, which can be read: \"tqdiscoctl show\", "
             "and on the service's own host \"tqdiscoctl db show\"");
    return;
  }
  complain(std::string(something ? "only a part of" : "nothing of") + " the collection of " +
           titleOf(record) + " could be read; --verbose shows why" +
           (record.onDemand() ? ". It is produced on demand by the host itself: is tqdisco "
                                "running there?"
                              : ""));
}

// The one discovery that the names say. An exit code.
int findOne(ShowOptions const& options, Record& record)
{
  std::vector<Record> records;
  if (int const result = queryRecords(options.selection, records); result != EXIT_DONE)
    return result;
  if (records.empty())
  {
    complainNothing(options.selection);
    return EXIT_NOTHING;
  }
  // What was found rather than what can be asked for, which explorers store
  // beside it.
  if (options.selection.typeName.empty() &&
      std::any_of(records.begin(), records.end(),
                  [](Record const& each) { return each.type != AT_EXTSRC; }))
    std::erase_if(records, [](Record const& each) { return each.type == AT_EXTSRC; });
  if (records.size() > 1)
  {
    complain(counted(records.size(), "discovery matches", "discoveries match") +
             "; \"show\" takes one. \"tqdiscoctl items\" reads several. Choose by --type or "
             "write the names out:");
    constexpr std::size_t MOST = 10;
    for (std::size_t i = 0; i < records.size() && i < MOST; ++i)
      std::cerr << "  " << titleOf(records[i]) << '\n';
    if (records.size() > MOST)
      std::cerr << "  and " << records.size() - MOST << " more\n";
    return EXIT_USAGE;
  }
  record = records.front();
  return EXIT_DONE;
}

int showBytes(ShowOptions const& options, Connection const& connection, Record const& record)
{
  std::string bytes;
  Progress progress("Reading the payload");
  bool const read = readBytes(record, options.where, bytes);
  progress.clear();
  if (!read)
  {
    if (connection.answers())
      complainUnread(record, false);
    return EXIT_FAILED;
  }
  if (!options.where.empty() && !record.onDemand())
    complain("what is stored is printed whole: --where chooses among the items with neither "
             "--xml nor --raw");
  std::string text;
  std::string reason;
  if (options.raw)
    std::cout << bytes;
  else if (indentXml(bytes, text, reason))
    std::cout << text;
  else
  {
    complain("the payload is no XML and printed as it is: " + reason);
    std::cout << bytes;
  }
  return EXIT_DONE;
}

void printAttributes(std::vector<OzfQuery::Attribute> const& attributes)
{
  Table table({{"NAME", Table::FIXED},
               {"TYPE", Table::FIXED},
               {"UNIT", Table::FIXED},
               {"DESCRIPTION", Table::SENTENCE}});
  for (auto const& attribute : attributes)
    table.add({shown(attribute.name.str()), typeName(attribute.type),
               attribute.unit.empty() ? "-" : shown(attribute.unit.str()),
               shown(attribute.description.str())});
  table.print(std::cout, terminalWidth(STDOUT_FILENO), terminalStyles(STDOUT_FILENO));
}

// What the exit code says of one collection that was asked for.
int resultOf(Collection const& collection)
{
  bool const something = !collection.items.empty() || !collection.attributes.empty();
  if (!collection.complete)
    return something ? EXIT_PARTLY : EXIT_FAILED;
  return something ? EXIT_DONE : EXIT_NOTHING;
}

std::string foundText(Record const& record, OzfObjTime const& now)
{
  if (record.onDemand())
    return "now, on demand";
  if (record.announcement)
    return "announced to the master by its host; does not expire";
  std::string const expiry = formatExpiryOf(record, now);
  bool const isSpan = expiry != "now" && expiry != "never";
  return formatAgeOf(record, now) + " ago, expires " + (isSpan ? "in " : "") + expiry;
}

// What was read has no items, or none that answers.
void complainNoItems(std::string const& where, QueryAnswer const& answer)
{
  if (where.find_first_not_of(" \t\r\n") == std::string::npos)
    complain("there are no items in what matches; \"tqdiscoctl show\" with --raw prints a payload "
             "as it is");
  else
    answer.complainNone(where);
}

int show(ShowOptions const& options, Session const& session)
{
  OzfQuery query;
  if (!parseWhere(options.where, query))
    return EXIT_USAGE;
  Connection connection(session.connection);
  if (int const result = connection.open(); result != EXIT_DONE)
    return result;
  Record record;
  if (int const result = findOne(options, record); result != EXIT_DONE)
    return connection.conclude(result);
  if (options.xml || options.raw)
    return connection.conclude(showBytes(options, connection, record));

  Collection collection;
  {
    Progress const progress("Reading the collection");
    collection = readCollection(record, query);
  }
  QueryAnswer answer;
  answer.add(record, collection);
  int const result = resultOf(collection);
  if (result == EXIT_FAILED && !connection.answers())
    return connection.conclude(result);
  if (options.json)
    printJson(toJson(record, collection));
  else if (result != EXIT_FAILED)
  {
    OzfObjTime const now = OzfObjTime::now();
    std::cout << "Subject    " << record.subject << "\nAuthority  " << record.authority << " ("
              << formatType(record.type) << ")\n"
              << "Found      " << foundText(record, now) << "\n"
              << "Items      " << collection.items.size() << "\n\n";
    AutoDereference<OzfQuery> const description = describe(record);
    printItems(std::cout, collection.items, *description, terminalStyles(STDOUT_FILENO));
    if (!collection.attributes.empty())
      printAttributes(collection.attributes);
  }
  if (!collection.complete && connection.answers())
    complainUnread(record, result == EXIT_PARTLY);
  else if (result == EXIT_NOTHING && !options.json)
    complainNoItems(options.where, answer);
  return connection.conclude(result);
}

using ByAuthority = std::map<std::string, std::vector<std::pair<Record, Collection>>>;

void printAuthority(std::string const& authority,
                    std::vector<std::pair<Record, Collection>> const& collections,
                    ShowOptions const& options)
{
  std::size_t const width = terminalWidth(STDOUT_FILENO);
  bool const bold = terminalStyles(STDOUT_FILENO);
  std::cout << (bold ? "\033[1m" : "") << authority << (bold ? "\033[0m" : "") << '\n';
  AutoDereference<OzfQuery> const description = describe(collections.front().first);
  std::vector<ItemRow> rows;
  for (auto const& [record, collection] : collections)
  {
    for (Item const& item : collection.items)
      rows.push_back({record.subject, &item});
    if (options.details)
    {
      std::cout << "\nSubject " << record.subject << ":\n\n";
      printItems(std::cout, collection.items, *description, bold);
    }
  }
  if (options.details || rows.empty())
    return;
  for (std::string const& column : options.columns)
    if (std::none_of(rows.begin(), rows.end(),
                     [&column](ItemRow const& row) { return row.item->find(column) != nullptr; }))
      complain("no item by " + authority + " has a fact \"" + shown(column) +
               "\"; --details shows what there is");
  std::size_t const leftOut =
      printItemTable(std::cout, rows, options.columns, *description, width, bold);
  std::cout.flush();
  if (leftOut != 0)
    remark("(" + counted(leftOut, "more fact", "more facts") +
           " of each item: --details shows all, --columns A,B chooses)");
}

int items(ShowOptions const& options, Session const& session)
{
  OzfQuery query;
  if (!parseWhere(options.where, query))
    return EXIT_USAGE;
  Connection connection(session.connection);
  std::vector<Record> records;
  if (int const result = openAndQuery(connection, options.selection, records); result != EXIT_DONE)
    return result;

  if (options.selection.typeName.empty())
    std::erase_if(records, [all = records](Record const& each) { return isShadowed(each, all); });
  ByAuthority found;
  nlohmann::json all = nlohmann::json::array();
  std::size_t done = 0;
  std::size_t unread = 0;
  std::size_t count = 0;
  QueryAnswer answer;
  {
    constexpr char WHAT[] = "Reading collections";
    std::optional<Progress> progress(std::in_place, WHAT);
    for (Record const& record : records)
    {
      progress->update(std::to_string(++done) + " of " + std::to_string(records.size()));
      Collection collection = readCollection(record, query);
      if (!collection.complete)
      {
        ++unread;
        // Each of those to come would have to be waited for.
        if (!connection.answers())
          break;
        progress.emplace(WHAT); // that in sight goes
        complainUnread(record, !collection.items.empty());
      }
      count += collection.items.size();
      answer.add(record, collection);
      // Filter data lies beside what was found; "filters" is for that.
      if (collection.items.empty() && (collection.complete || !options.json))
        continue;
      if (options.json)
        all.push_back(toJson(record, collection));
      else
        found[record.authority].emplace_back(record, std::move(collection));
    }
  }

  if (options.json)
    printJson(all);
  bool first = true;
  for (auto const& [authority, collections] : found)
  {
    std::cout << (first ? "" : "\n");
    first = false;
    printAuthority(authority, collections, options);
  }
  if (unread != 0)
    return connection.conclude(count != 0 ? EXIT_PARTLY : EXIT_FAILED);
  if (count != 0)
    return EXIT_DONE;
  if (!options.json)
  {
    if (records.empty())
      complainNothing(options.selection);
    else
      complainNoItems(options.where, answer);
  }
  return EXIT_NOTHING;
}

int filters(ShowOptions const& options, Session const& session)
{
  Connection connection(session.connection);
  if (int const result = connection.open(); result != EXIT_DONE)
    return result;
  AutoDereference<FilterDescription> description(
      new FilterDescription(options.selection.authority, options.selection.subject));
  if (description->attributes().empty())
    description.reset(new FilterDescription(options.selection.authority + PULL_FILTER_SUFFIX,
                                            options.selection.subject));
  auto const& attributes = description->attributes();
  if (attributes.empty() && !connection.answers())
    return connection.conclude(EXIT_FAILED);
  if (options.json)
  {
    nlohmann::json all = nlohmann::json::array();
    for (auto const& attribute : attributes)
      all.push_back(toJson(attribute));
    printJson(all);
  }
  else if (options.xml && !attributes.empty())
  {
    std::ostringstream text;
    description->writeXml(text, XmlStr::UTF_8);
    std::string indented;
    std::string reason;
    std::cout << (indentXml(text.str(), indented, reason) ? indented : text.str());
  }
  else if (!attributes.empty())
    printAttributes(attributes);
  if (!attributes.empty())
    return EXIT_DONE;
  std::vector<Record> records;
  Selection selection = options.selection;
  selection.filterData = true;
  if (queryRecords(selection, records, true) == EXIT_DONE &&
      std::any_of(records.begin(), records.end(),
                  [](Record const& each) { return each.type == AT_EXTSRC && !each.onDemand(); }))
  {
    if (connection.answers())
      complainUnread(*std::find_if(records.begin(), records.end(),
                                   [](Record const& each) { return !each.onDemand(); }),
                     false);
    return connection.conclude(EXIT_FAILED);
  }
  if (!options.json)
    complain("no explorer has stored what can be asked for about subject \"" +
             shown(options.selection.subject) + "\" by authority \"" +
             shown(options.selection.authority) +
             "\"; \"tqdiscoctl query --filter-data\" shows who has");
  return EXIT_NOTHING;
}

void addNames(CLI::App& command, ShowOptions& options)
{
  command.add_option("SUBJECT", options.selection.subject, "The subject's name")->required();
  command.add_option("AUTHORITY", options.selection.authority, "The authority's name")->required();
}

void addWhere(CLI::App& command, ShowOptions& options)
{
  command
      .add_option("-w,--where", options.where,
                  "Only items that answer the query; \"tqdiscoctl filters\" tells what can be "
                  "asked for")
      ->type_name("QUERY");
}

} // namespace

void addShowCommands(CLI::App& application, Session& session)
{
  auto const options = std::make_shared<ShowOptions>();

  CLI::App* const showCommand =
      application.add_subcommand("show", "Show one discovery with everything in it");
  addNames(*showCommand, *options);
  showCommand
      ->add_option("-t,--type", options->selection.typeName,
                   "The authority's type: server, client, external, remotepull")
      ->type_name("TYPE");
  addWhere(*showCommand, *options);
  auto* const json = showCommand->add_flag("--json", options->json, "As JSON");
  auto* const xml =
      showCommand->add_flag("--xml", options->xml, "The payload, indented")->excludes(json);
  showCommand->add_flag("--raw", options->raw, "The payload's bytes as they are")
      ->excludes(json)
      ->excludes(xml);
  showCommand->callback([options, &session] { session.exitCode = show(*options, session); });

  CLI::App* const itemsCommand =
      application.add_subcommand("items", "List the items of all discoveries that match");
  addSelectionOptions(*itemsCommand, options->selection);
  addWhere(*itemsCommand, *options);
  auto* const columns =
      itemsCommand
          ->add_option("-c,--columns", options->columns, "The facts to show, with commas between")
          ->delimiter(',')
          ->transform(CLI::Validator(
              [](std::string& fact)
              {
                CLI::detail::trim(fact);
                return std::string();
              },
              ""))
          ->type_name("FACT,...");
  itemsCommand->add_flag("-l,--details", options->details, "Every fact, a line each")
      ->excludes(columns);
  itemsCommand->add_flag("--json", options->json, "As JSON");
  itemsCommand->callback([options, &session] { session.exitCode = items(*options, session); });

  CLI::App* const filtersCommand =
      application.add_subcommand("filters", "Tell what can be asked for with --where");
  addNames(*filtersCommand, *options);
  auto* const filtersJson = filtersCommand->add_flag("--json", options->json, "As JSON");
  filtersCommand->add_flag("--xml", options->xml, "As the XML description")->excludes(filtersJson);
  filtersCommand->callback([options, &session] { session.exitCode = filters(*options, session); });
}

} // namespace tqdiscoctl
