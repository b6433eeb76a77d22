// show and filters: what is in one discovery.

#include "tools/Collections.h"
#include "tools/Commands.h"
#include "tools/Format.h"
#include "tools/ItemJson.h"
#include "tools/ItemText.h"
#include "tools/Output.h"
#include "tools/QueryAnswer.h"
#include "tools/ReadFailures.h"
#include "tools/ReaderGone.h"
#include "tools/Table.h"
#include "tools/XmlText.h"

#include "discovery/FilterDataName.h"
#include "discovery/FilterDescription.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <iostream>
#include <memory>
#include <set>
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
  bool json = false;
  bool factList = false;
  bool xml = false;
  bool raw = false;
};

bool isSameDiscovery(Record const& a, Record const& b)
{
  return a.subject == b.subject && a.authority == b.authority && a.type == b.type;
}

// The one discovery that the names say; of several masters, what each of them has of it, what was
// found last first. An exit code; there may be one although others are missing (EXIT_PARTLY).
int findOne(ShowOptions const& options, Connection const& connection, std::vector<Record>& records)
{
  int const result = queryRecords(connection, options.selection, records);
  if (!isListed(result))
    return result;
  if (records.empty())
  {
    if (result == EXIT_DONE)
      complainNothing(options.selection);
    return withMissing(result, EXIT_NOTHING);
  }
  // What was found rather than what can be asked for, which explorers store
  // beside it.
  if (options.selection.typeName.empty() &&
      std::any_of(records.begin(), records.end(),
                  [](Record const& each) { return each.type != AT_EXTSRC; }))
    std::erase_if(records, [](Record const& each) { return each.type == AT_EXTSRC; });
  if (std::any_of(records.begin(), records.end(),
                  [&](Record const& each) { return !isSameDiscovery(each, records.front()); }) ||
      (records.size() > 1 && !connection.several()))
  {
    complain(counted(records.size(), "discovery matches", "discoveries match") +
             "; \"show\" takes one. \"tqdiscoctl items\" reads several. Choose by --type or "
             "write the names out:");
    constexpr std::size_t MOST = 10;
    for (std::size_t i = 0; i < records.size() && i < MOST; ++i)
      remark("  " + titleOf(records[i]));
    if (records.size() > MOST)
      remark("  and " + std::to_string(records.size() - MOST) + " more");
    records.clear();
    return EXIT_USAGE;
  }
  return result;
}

int showBytes(ShowOptions const& options, Connection const& connection, Record const& record)
{
  std::string bytes;
  Progress progress("Reading the payload");
  bool const read = readBytes(record, options.where, bytes);
  progress.clear();
  if (!read)
  {
    if (connection.answers(record))
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
    std::cout << (isatty(STDOUT_FILENO) == 0 ? bytes : shownLines(bytes));
  }
  return EXIT_DONE;
}

Table::Header attributeHeader()
{
  return {{"NAME", Table::FIXED},
          {"TYPE", Table::FIXED},
          {"UNIT", Table::FIXED},
          {"DESCRIPTION", Table::SENTENCE}};
}

std::vector<std::string> attributeCells(OzfQuery::Attribute const& attribute)
{
  return {shown(attribute.name.str()), typeName(attribute.type),
          attribute.unit.empty() ? "-" : shown(attribute.unit.str()),
          shown(attribute.description.str())};
}

void printAttributes(std::vector<OzfQuery::Attribute> const& attributes)
{
  Table table(attributeHeader());
  for (auto const& attribute : attributes)
    table.add(attributeCells(attribute));
  table.print(std::cout, terminalWidth(STDOUT_FILENO), terminalStyles(STDOUT_FILENO));
}

// What the exit code says of one collection that was asked for.
int resultOf(Collection const& collection)
{
  bool const something = collection.count != 0 || !collection.attributes.empty();
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

// Printed while it is read. An exit code.
int showJson(ShowOptions const& options, Connection const& connection, Record const& record,
             OzfQuery const& query, CollectionPrinter& printer)
{
  Collection const collection =
      readCollection(record, query, [&](Item const& item) { printer.item(record, item); });
  QueryAnswer answer;
  answer.add(record, collection);
  int const result = resultOf(collection);
  if (result == EXIT_FAILED && !connection.answers(record))
    return result;
  printer.end(record, collection);
  if (!collection.complete && connection.answers(record))
    complainUnread(record, result == EXIT_PARTLY);
  else if (result == EXIT_NOTHING)
    return complainNoItems(options.where, answer, true);
  return result;
}

// An exit code.
int showText(ShowOptions const& options, Connection const& connection, Record const& record,
             OzfQuery const& query)
{
  QueryAnswer answer;
  Collection collection;
  {
    Progress const progress("Reading the collection");
    collection = readCollection(record, query);
  }
  answer.add(record, collection);
  int const result = resultOf(collection);
  if (result == EXIT_FAILED && !connection.answers(record))
    return result;
  if (result != EXIT_FAILED)
  {
    OzfObjTime const now = OzfObjTime::now();
    if (connection.several())
      std::cout << "Master     " << shown(masterOf(record)) << '\n';
    std::cout << "Subject    " << shown(record.subject) << "\nAuthority  "
              << shown(record.authority) << " (" << formatType(record.type) << ")\n"
              << "Found      " << foundText(record, now) << "\n"
              << "Items      " << collection.items.size() << "\n\n";
    AutoDereference<OzfQuery> const description = describe(record);
    bool const bold = terminalStyles(STDOUT_FILENO);
    for (std::size_t i = 0; i < collection.items.size(); ++i)
    {
      std::cout << (i == 0 ? "" : "\n");
      printItem(std::cout, collection.items[i], *description, bold);
    }
    if (!collection.attributes.empty())
      printAttributes(collection.attributes);
  }
  if (!collection.complete && connection.answers(record))
    complainUnread(record, result == EXIT_PARTLY);
  else if (result == EXIT_NOTHING)
    return complainNoItems(options.where, answer, false);
  return result;
}

// As one payload, and in a document of one collection.
int showOne(ShowOptions const& options, Connection const& connection,
            std::vector<Record> const& records, OzfQuery const& query)
{
  Record const& record = records.front();
  if (records.size() > 1)
    remark("(another master has it as well: this is what was found last, with " +
           shown(masterOf(record)) + ")");
  if (options.xml || options.raw)
    return showBytes(options, connection, record);
  CollectionPrinter printer(std::cout, false, options.factList);
  return showJson(options, connection, record, query, printer);
}

// What each of several masters has. An exit code: where not all that was shown came to one, it was
// done in part.
int showEach(ShowOptions const& options, Connection const& connection,
             std::vector<Record> const& records, OzfQuery const& query)
{
  CollectionPrinter printer(std::cout, true, options.factList);
  std::set<int> results;
  for (Record const& record : records)
  {
    if (!options.json && !results.empty())
      std::cout << '\n';
    results.insert(options.json ? showJson(options, connection, record, query, printer)
                                : showText(options, connection, record, query));
    std::cout.flush();
  }
  if (options.json)
    printer.finish();
  results.erase(results.size() > 1 ? EXIT_NOTHING : -1);
  return results.size() == 1 ? *results.begin() : EXIT_PARTLY;
}

int show(ShowOptions const& options, Session const& session)
{
  OzfQuery query;
  if (!parseWhere(options.where, query))
    return EXIT_USAGE;
  WhileRead const whileRead;
  Connection connection(session.connection, Connection::SEVERAL);
  if (int const result = connection.open(); result != EXIT_DONE)
    return result;
  std::vector<Record> records;
  int const listed = findOne(options, connection, records);
  if (records.empty())
    return connection.conclude(listed);
  bool const one = options.xml || options.raw || (options.json && !connection.several());
  int const result = one ? showOne(options, connection, records, query)
                         : showEach(options, connection, records, query);
  return connection.conclude(withMissing(listed, result));
}

// A description of a fact, and those of several masters who have it so.
struct ToldAttribute
{
  OzfQuery::Attribute attribute;
  std::vector<std::string> masters;
};

// What can be asked for, of all descriptions that were read.
struct Described
{
  // The record's, where several masters are asked: each may tell something else of a fact.
  void addTold(std::string const& master, OzfQuery::Attribute const& attribute)
  {
    auto const same = std::find_if(told.begin(), told.end(),
                                   [&](ToldAttribute const& each)
                                   { return toJson(each.attribute) == toJson(attribute); });
    std::vector<std::string>& masters =
        same == told.end() ? told.emplace_back(ToldAttribute{attribute, {}}).masters
                           : same->masters;
    auto const at = std::lower_bound(masters.begin(), masters.end(), master);
    if (at == masters.end() || *at != master)
      masters.insert(at, master);
  }

  OzfQuery attributes;
  std::vector<ToldAttribute> told;
  std::size_t size = 0;
  bool full = false; // others are left out
  bool late = false;
  int listed = EXIT_DONE;
  ReadFailures failures;
};

// An exit code: whether the records could be listed.
int readDescriptions(ShowOptions const& options, Connection const& connection,
                     std::string const& authority, Described& described)
{
  Selection selection = options.selection;
  selection.authority = authority;
  selection.filterData = true;
  selection.anyType = true;
  std::vector<Record> records;
  // That the list is incomplete is told once.
  int const listed = queryRecords(connection, selection, records, described.listed != EXIT_DONE);
  if (!isListed(listed))
    return described.listed != EXIT_DONE ? described.listed : listed;
  described.listed = std::max(described.listed, listed);
  // No explorer is asked for what can be asked of it.
  std::erase_if(records, [](Record const& each) { return each.onDemand(); });
  for (Record const& record : records)
  {
    described.late = connection.clock().nearlyOver();
    if (described.late)
      break;
    if (connection.isMissing(record))
      continue;
    Collection const collection = readCollection(record, OzfQuery(), [](Item const&) {});
    described.full = !fitsDescription(described.attributes, described.size, collection.attributes);
    if (described.full)
      break;
    for (auto const& attribute : collection.attributes)
    {
      described.attributes.addAttribute(attribute);
      if (connection.several())
        described.addTold(masterOf(record), attribute);
    }
    if (collection.complete)
      described.failures.success();
    else if (!connection.answers(record))
    {
      if (!connection.several())
        break;
    }
    else if (!described.failures.add(record, !collection.attributes.empty()))
      break;
  }
  described.failures.finish();
  return listed;
}

std::string joined(std::vector<std::string> const& words)
{
  std::string text;
  for (std::string const& word : words)
    text += (text.empty() ? "" : ", ") + word;
  return text;
}

// Of several masters. A fact of which they tell different things is there for each of these.
void printTold(ShowOptions const& options, std::vector<ToldAttribute> const& told)
{
  if (options.json)
  {
    JsonArray all;
    for (ToldAttribute const& each : told)
    {
      nlohmann::json attribute = toJson(each.attribute);
      attribute["masters"] = each.masters;
      all.add(attribute);
    }
  }
  else if (!told.empty())
  {
    Table table(withMaster(true, attributeHeader()));
    for (ToldAttribute const& each : told)
      table.add(withMaster(joined(each.masters), attributeCells(each.attribute)));
    table.print(std::cout, terminalWidth(STDOUT_FILENO), terminalStyles(STDOUT_FILENO));
  }
  std::cout.flush();
}

void print(ShowOptions const& options, OzfQuery const& description)
{
  if (options.json)
  {
    JsonArray all;
    for (auto const& attribute : description.attributes())
      all.add(toJson(attribute));
  }
  else if (description.attributes().empty())
    return;
  else if (options.xml)
  {
    std::ostringstream text;
    description.writeXml(text, XmlStr::UTF_8);
    std::string indented;
    std::string reason;
    std::cout << (indentXml(text.str(), indented, reason) ? indented : text.str());
  }
  else
    printAttributes(description.attributes());
  std::cout.flush();
}

int filters(ShowOptions const& options, Session const& session)
{
  WhileRead const whileRead;
  Connection connection(session.connection, Connection::SEVERAL);
  if (int const result = connection.open(); result != EXIT_DONE)
    return result;
  Described described;
  auto const& attributes = described.attributes.attributes();
  for (std::string const& authority :
       {options.selection.authority, options.selection.authority + FILTER_DATA_SUFFIX})
    if (attributes.empty() && !described.full && !described.late)
      if (int const listed = readDescriptions(options, connection, authority, described);
          !isListed(listed))
        return connection.conclude(listed);
  bool const cut = described.full || described.late;
  bool const whole = !cut && described.failures.count() == 0 && connection.answers();
  if (attributes.empty() && !whole && !described.full)
  {
    if (described.late)
      complain("out of time: what can be asked for was not read; --timeout allows more");
    return connection.conclude(EXIT_FAILED);
  }
  if (connection.several() && !options.xml)
    printTold(options, described.told);
  else
    print(options, described.attributes);
  if (cut)
    complain(described.full ? "this is not all: more can be asked for than this command takes, " +
                                  formatSize(MOST_DESCRIBED)
                            : std::string("out of time: not all that can be asked for was read; "
                                          "--timeout allows more"));
  if (!whole)
    return connection.conclude(attributes.empty() ? EXIT_FAILED : EXIT_PARTLY);
  if (!attributes.empty())
    return connection.conclude(described.listed);
  if (!options.json && described.listed == EXIT_DONE)
    complain("no explorer has stored what can be asked for about subject \"" +
             shown(options.selection.subject) + "\" by authority \"" +
             shown(options.selection.authority) +
             "\"; \"tqdiscoctl query --filter-data\" shows who has");
  return connection.conclude(withMissing(described.listed, EXIT_NOTHING));
}

void addNames(CLI::App& command, ShowOptions& options)
{
  command.add_option("SUBJECT", options.selection.subject, "The subject's name")->required();
  command.add_option("AUTHORITY", options.selection.authority, "The authority's name")->required();
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
  addWhere(*showCommand, options->where);
  auto* const json = showCommand->add_flag("--json", options->json, "As JSON");
  showCommand
      ->add_flag("--fact-list", options->factList,
                 "In JSON the facts as a list, in their order and also where names repeat")
      ->needs(json);
  auto* const xml =
      showCommand->add_flag("--xml", options->xml, "The payload, indented")->excludes(json);
  showCommand->add_flag("--raw", options->raw, "The payload's bytes as they are")
      ->excludes(json)
      ->excludes(xml);
  showCommand->callback([options, &session] { session.exitCode = show(*options, session); });

  CLI::App* const filtersCommand =
      application.add_subcommand("filters", "Tell what can be asked for with --where");
  addNames(*filtersCommand, *options);
  auto* const filtersJson = filtersCommand->add_flag("--json", options->json, "As JSON");
  filtersCommand->add_flag("--xml", options->xml, "As the XML description")->excludes(filtersJson);
  filtersCommand->callback([options, &session] { session.exitCode = filters(*options, session); });
}

} // namespace tqdiscoctl
