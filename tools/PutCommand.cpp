// put: store a payload with the master.

#include "tools/Collections.h"
#include "tools/Commands.h"
#include "tools/Format.h"
#include "tools/Output.h"
#include "tools/Sending.h"
#include "tools/XmlText.h"

#include "discovery/ExplorerPayload.h"
#include "discovery/RemoteDB.h"
#include "ozf/base/SystemError.h"
#include "ozf/xml/QueryNumber.h"
#include "scripts/ScriptPayload.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <fcntl.h>
#include <iostream>
#include <memory>
#include <optional>
#include <unistd.h>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

namespace
{

// The service refuses more.
constexpr std::size_t MAX_PUT = RemoteCollectionData::MAX_SIZE;
constexpr char STANDARD_INPUT[] = "-";

struct PutOptions
{
  std::string subject;
  std::string authority;
  std::vector<std::string> payload{STANDARD_INPUT}; // a file, or facts
  std::string type;                                 // empty: whatever is free
  std::string expires = "1h";
  unsigned priority = 10;
  bool filterData = false;
  bool items = false;
  bool unchecked = false;
  bool json = false;
};

// Whole seconds of "90", "15m", "1h" or "2d"; absent for anything else.
std::optional<std::uint64_t> parseSpan(std::string const& text)
{
  constexpr long double LONGEST = 100.0L * 365 * 86400;
  auto const seconds = parseQueryNumber(text);
  bool const isTime =
      !text.empty() && (std::isdigit(static_cast<unsigned char>(text.back())) ||
                        std::string("smhdw").find(text.back()) != std::string::npos);
  if (!seconds || !isTime || *seconds < 1 || *seconds > LONGEST)
    return std::nullopt;
  return static_cast<std::uint64_t>(*seconds);
}

// Whether the word is KEY=VALUE, where KEY can be the name of an element.
bool isFact(std::string const& word)
{
  auto const end = word.find('=');
  if (end == std::string::npos || end == 0 || std::isdigit(static_cast<unsigned char>(word[0])))
    return false;
  return std::all_of(word.begin(), word.begin() + static_cast<std::ptrdiff_t>(end),
                     [](char c)
                     { return std::isalnum(static_cast<unsigned char>(c)) || c == '_'; });
}

// One item, named after the subject, with the facts.
std::string payloadOf(PutOptions const& options)
{
  Scripts::ScriptItem item;
  for (std::string const& fact : options.payload)
  {
    auto const end = fact.find('=');
    item.facts.push_back({fact.substr(0, end), OzfQuery::Type::TEXT, fact.substr(end + 1)});
  }
  return Scripts::itemsDocument(options.authority, options.subject, {item});
}

// Makes the payload of the items that were read, and the description of their facts as
// they were seen; false after telling the user why not.
bool makePayloadOfItems(PutOptions const& options, std::string& payload,
                        AutoDereference<OzfQuery>& seen)
{
  std::vector<Scripts::ScriptItem> items;
  std::string mistake;
  if (!Scripts::parseScriptOutput(payload, items, mistake))
  {
    complain("no items: " + mistake, {"They are what a script prints: JSON, or key=value lines."});
    return false;
  }
  payload = Scripts::itemsDocument(options.authority, options.subject, items);
  seen = Scripts::describeItems({}, items);
  return true;
}

// False after telling the user why it cannot be read.
bool readPayload(std::string const& file, std::string& payload)
{
  UniqueFd fd;
  int input = STDIN_FILENO;
  if (file != STANDARD_INPUT)
  {
    fd.reset(open(file.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.valid())
    {
      complain("cannot open " + shown(file) + ": " + errorText(errno));
      return false;
    }
    input = fd.get();
  }
  else if (isatty(STDIN_FILENO) != 0)
    complain("reading the payload from the terminal; Ctrl-D ends it");
  int const error = readAll(input, payload, MAX_PUT);
  if (error != 0)
    complain("cannot read " + (file == STANDARD_INPUT ? "standard input" : shown(file)) + ": " +
             (error == EFBIG ? "more than " + formatSize(MAX_PUT) : errorText(error)));
  return error == 0;
}

bool checkPayload(PutOptions const& options, std::string const& payload)
{
  if (payload.empty())
  {
    complain("the payload is empty, and an empty one could not be read again");
    return false;
  }
  std::string reason;
  if (options.unchecked || isXml(payload, reason))
    return true;
  complain("the payload is not well-formed XML: " + reason,
           {"Readers of items need XML; --unchecked stores it all the same."});
  return false;
}

// Empty when it can be stored under.
std::string mistakeIn(std::string const& name, char const* what)
{
  if (name.empty())
    return std::string("the ") + what + "'s name is empty";
  if (name.find('*') != std::string::npos)
    return std::string("the ") + what + " is a pattern; store under one name, without *";
  return {};
}

// Where explorers store what can be asked for, a payload of the same names would
// take its place: what is told there. Absent when that cannot be known: when the
// record may be missing in the list, or its bytes cannot be had. What is read and
// is no XML tells nobody what can be asked for.
using Attributes = std::vector<OzfQuery::Attribute>;
std::optional<Attributes> describedBefore(PutOptions const& options)
{
  Selection selection;
  selection.subject = options.subject;
  selection.authority = options.authority;
  selection.typeName = formatType(AT_EXTSRC);
  std::vector<Record> records;
  int const listed = queryRecords(selection, records, true);
  std::erase_if(records, [](Record const& each) { return each.onDemand(); });
  bool known = listed == EXIT_DONE || (listed == EXIT_PARTLY && !records.empty());
  for (Record const& record : records)
  {
    Collection const collection = readCollection(record, OzfQuery(), [](Item const&) {});
    if (!collection.attributes.empty())
      return collection.attributes;
    known = known && (collection.complete || hasReadableBytes(record));
  }
  return known ? std::optional(Attributes()) : std::nullopt;
}

// What was told stays, an explorer's texts and units above all, and what was seen comes
// beside it. Of a fact that was told of as it was seen before, the kind is that of now.
AutoDereference<OzfQuery> mergedDescription(Attributes const& before, OzfQuery const& seen)
{
  AutoDereference<OzfQuery> merged(new OzfQuery);
  for (OzfQuery::Attribute attribute : before)
  {
    OzfQuery::Attribute const* const now = seen.findAttribute(attribute.name.str());
    if (now != nullptr && attribute.unit.empty() && attribute.description.empty())
      attribute.type = now->type;
    merged->addAttribute(attribute);
  }
  for (OzfQuery::Attribute const& attribute : seen.attributes())
    merged->addAttribute(attribute); // unless it is there
  return merged;
}

// For people.
std::string describedText(OzfQuery const& description)
{
  return description.attributes().empty()
             ? std::string()
             : ", with the kinds of " + counted(description.attributes().size(), "fact", "facts");
}

nlohmann::json attributesToJson(OzfQuery const& description)
{
  nlohmann::json attributes = nlohmann::json::array();
  for (OzfQuery::Attribute const& attribute : description.attributes())
    attributes.push_back(toJson(attribute));
  return attributes;
}

int put(PutOptions const& options, Session const& session)
{
  for (std::string const& mistake :
       {mistakeIn(options.subject, "subject"), mistakeIn(options.authority, "authority")})
    if (!mistake.empty())
    {
      complain(mistake);
      return EXIT_USAGE;
    }
  AuthorityType type = AT_EXTSRC;
  if ((!options.type.empty() && !parseType(options.type, type)) || type == AT_ANYANDALL ||
      type == AT_REMOTEPULL)
  {
    complain("\"" + shown(options.type) +
             "\" is no type to store under; use server, client or "
             "external");
    return EXIT_USAGE;
  }
  auto const lifetime = parseSpan(options.expires);
  if (!lifetime)
  {
    complain("\"" + shown(options.expires) + "\" is no span of time; write 90s, 15m, 1h or 2d");
    return EXIT_USAGE;
  }
  bool const facts = !options.items && isFact(options.payload.front());
  if (std::any_of(options.payload.begin(), options.payload.end(),
                  [facts](std::string const& word) { return isFact(word) != facts; }) ||
      (!facts && options.payload.size() > 1))
  {
    complain("the payload is one file, or facts only: KEY=VALUE KEY=VALUE ...; a KEY has letters, "
             "digits and _");
    return EXIT_USAGE;
  }
  std::string payload;
  AutoDereference<OzfQuery> description(new OzfQuery);
  if (facts)
    payload = payloadOf(options);
  else if (!readPayload(options.payload.front(), payload))
    return EXIT_FAILED;
  if (options.items && !makePayloadOfItems(options, payload, description))
    return EXIT_FAILED;
  if (!checkPayload(options, payload))
    return EXIT_FAILED;

  Connection connection(session.connection);
  if (int const result = connection.open(); result != EXIT_DONE)
    return result;
  // Under a type of their own, or items and their description would take each other's place.
  bool const describes = options.items && (options.type.empty() || type != AT_EXTSRC);
  if (describes || (options.type.empty() && !options.filterData))
  {
    auto const before = describedBefore(options);
    if (!before)
    {
      complain(
          "not stored: it cannot be told whether it would take the place of what tells what can "
          "be asked for; choose a type with --type");
      return connection.conclude(EXIT_FAILED);
    }
    if (options.type.empty())
      type = describes || !before->empty() ? AT_TQUSERVER : AT_EXTSRC;
    description = mergedDescription(*before, *description);
  }
  if (!describes)
    description.reset(new OzfQuery);
  Remote::Discovery record =
      recordToStore(options.subject, options.authority, type, options.priority, *lifetime);
  if (options.filterData)
    record.queryType = DQ_FILTER_DATA;
  if (int const result = sendToMaster(connection, record, payload); result != EXIT_DONE)
    return result;
  if (!description->attributes().empty())
  {
    record.queryType = DQ_FILTER_DATA;
    record.authType = AT_EXTSRC;
    if (int const result =
            sendToMaster(connection, record, Explorers::filterDocument(*description));
        result != EXIT_DONE)
    {
      complain("the items are stored all the same, without the kinds of their facts");
      return result;
    }
  }
  if (options.json)
    printJson({{"subject", options.subject},
               {"authority", options.authority},
               {"type", static_cast<int>(type)},
               {"typeName", formatType(type)},
               {"payloadBytes", payload.size()},
               {"described", attributesToJson(*description)},
               {"expiresTime",
                timeOrNull(OzfObjTime::now() + OzfObjTime(static_cast<std::int64_t>(*lifetime)))}});
  else
    std::cout << "Stored " << formatSize(payload.size()) << " about " << shown(options.subject)
              << " by " << shown(options.authority) << " (" << formatType(type) << "), for "
              << formatSpan(static_cast<std::int64_t>(*lifetime)) << describedText(*description)
              << ".\n";
  return EXIT_DONE;
}

} // namespace

void addPutCommand(CLI::App& application, Session& session)
{
  auto const options = std::make_shared<PutOptions>();
  CLI::App* const command =
      application.add_subcommand("put", "Store a payload of your own with the master; it expires, "
                                        "or \"tqdiscoctl db forget\" removes it there");
  command->add_option("SUBJECT", options->subject, "What it is about")->required();
  command->add_option("AUTHORITY", options->authority, "Who tells it")->required();
  command
      ->add_option("FILE", options->payload,
                   "The payload; - is standard input. Or KEY=VALUE..., facts to make one of")
      ->default_str(STANDARD_INPUT);
  command->add_option("-t,--type", options->type, "The authority's type: server, client, external")
      ->type_name("TYPE")
      ->default_str("external; server where external tells what can be asked for");
  command->add_option("-e,--expires-in", options->expires, "How long it holds: 90s, 15m, 1h, 2d")
      ->type_name("SPAN")
      ->capture_default_str();
  command->add_option("-p,--priority", options->priority, "Of two, the higher one stays")
      ->check(CLI::Range(0U, 0x7fffffffU))
      ->type_name("NUMBER")
      ->capture_default_str();
  auto* const filterData =
      command->add_flag("--filter-data", options->filterData, "It tells what can be asked for");
  command
      ->add_flag("--items", options->items,
                 "FILE is not XML but items as a script prints them: JSON, or key=value lines")
      ->excludes(filterData);
  command->add_flag("--unchecked", options->unchecked, "Store what is not well-formed XML, too");
  command->add_flag("--json", options->json, "As JSON");
  command->callback([options, &session] { session.exitCode = put(*options, session); });
}

} // namespace tqdiscoctl
