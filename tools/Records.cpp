#include "tools/Records.h"

#include "discovery/DiscoveryRepository.h"
#include "discovery/RemoteDB.h"
#include "discovery/XMLHelper.h"
#include "ozf/base/Wildcard.h"
#include "tools/Connection.h"
#include "tools/ExitCodes.h"
#include "tools/Format.h"
#include "tools/Output.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <sstream>
#include <tuple>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

namespace
{

constexpr std::size_t MAX_REGISTRATION = 1 << 20;

bool matches(std::string const& pattern, std::string const& name)
{
  return wildcardcmp(asNamed(pattern), name, true) == 0;
}

bool readPayload(Discovery& discovery, std::string& text)
{
  CollectionData* const data = discovery.getCollectionData();
  if (data == nullptr || data->open(OM_READ, "") == 0)
    return false;
  char buffer[4096];
  long count;
  while ((count = data->readCollection(sizeof buffer, buffer)) > 0)
  {
    text.append(buffer, static_cast<std::size_t>(count));
    if (text.size() > MAX_REGISTRATION)
      return false;
  }
  return count == 0;
}

// Whether the record is of the type, or was before the master started anew.
bool isOfType(Record const& record, AuthorityType type)
{
  if (type == AT_ANYANDALL || type == record.type)
    return true;
  if (!record.restored())
    return false;
  auto const announcement = announcementOf(record);
  return announcement && announcement->type == type;
}

} // namespace

bool Record::restored() const noexcept { return onDemand() && type == AT_REMOTEPULL; }

void addSelectionOptions(CLI::App& command, Selection& selection)
{
  command.add_option("-s,--subject", selection.subject, "Only subjects that match; * is any text")
      ->type_name("PATTERN");
  command
      .add_option("-a,--authority", selection.authority,
                  "Only authorities that match; * is any text")
      ->type_name("PATTERN");
  command.add_option("-t,--type", selection.typeName, "server, client, external or remotepull")
      ->type_name("TYPE");
  command.add_flag("--filter-data", selection.filterData,
                   "What can be asked for instead of what was found");
}

bool selectedType(Selection const& selection, AuthorityType& type)
{
  type = selection.filterData ? AT_EXTSRC : AT_ANYANDALL;
  if (selection.typeName.empty() || parseType(selection.typeName, type))
    return true;
  complain("\"" + shown(selection.typeName) +
           "\" is no authority type; use server, client, external, remotepull or 1 to 4");
  return false;
}

int queryRecords(Selection const& selection, std::vector<Record>& records, bool quiet)
{
  records.clear();
  AuthorityType type = AT_ANYANDALL;
  if (!selectedType(selection, type))
    return EXIT_USAGE;
  std::string const& subject = selection.subject;
  std::string const& authority = selection.authority;
  AutoDereference<DiscoveryIterator> const iterator(getDiscoveryRepository().queryDiscoveries(
      selection.filterData ? DQ_FILTER_DATA : DQ_DISCOVERY_DATA, subject, authority, type));
  if (!iterator)
  {
    if (!quiet)
      complain("the service could not be queried; --verbose shows why");
    return EXIT_FAILED;
  }
  for (;;)
  {
    AutoDereference<Discovery> const discovery(iterator->getNext());
    if (!discovery)
      break;
    Record record;
    record.subject = discovery->getSubject()->getName().str();
    record.authority = discovery->getAuthority()->getName().str();
    record.type = discovery->getAuthority()->getType();
    // The service gives more than was asked for where a pattern begins with
    // '*', and where collections are produced on demand.
    if (!matches(subject, record.subject) || !matches(authority, record.authority))
      continue;
    // A query of this type meets what is stored alone, and no other does.
    record.announcement = type == AT_REMOTEPULL;
    CollectionAttributes const* const attributes = discovery->getAttributes();
    if (attributes != nullptr && !attributes->getDiscoveryTime().isZero())
    {
      record.discovered = attributes->getDiscoveryTime();
      record.expires = attributes->getExpiresTime();
    }
    record.discovery = discovery;
    // Filter data is always stored.
    if (selection.filterData ? type != AT_ANYANDALL && type != record.type
                             : !isOfType(record, type))
      continue;
    records.push_back(std::move(record));
  }
  std::sort(records.begin(), records.end(),
            [](Record const& a, Record const& b) {
              return std::tie(a.subject, a.authority, a.type) <
                     std::tie(b.subject, b.authority, b.type);
            });
  if (!iterator->isIncomplete())
    return EXIT_DONE;
  if (!quiet)
    complainIncomplete();
  return EXIT_PARTLY;
}

void complainIncomplete()
{
  complain("the list is incomplete: the service could not read all that it has; its log tells why");
}

bool isListed(int queryResult) { return queryResult == EXIT_DONE || queryResult == EXIT_PARTLY; }

int withMissing(int queryResult, int exitCode)
{
  bool const whole = exitCode == EXIT_DONE || exitCode == EXIT_NOTHING;
  return queryResult == EXIT_PARTLY && whole ? EXIT_PARTLY : exitCode;
}

int openAndQuery(Connection& connection, Selection const& selection, std::vector<Record>& records)
{
  if (int const result = connection.open(); result != EXIT_DONE)
    return result;
  return connection.conclude(queryRecords(selection, records));
}

std::optional<Announcement> announcementOf(Record const& record)
{
  Selection selection;
  selection.subject = record.subject;
  selection.authority = record.authority;
  selection.typeName = formatType(AT_REMOTEPULL);
  std::vector<Record> announcements;
  std::string text;
  if (!isListed(queryRecords(selection, announcements, true)) || announcements.size() != 1 ||
      !readPayload(*announcements.front().discovery, text))
    return std::nullopt;

  std::stringstream xml(text);
  OzfString service;
  OzfString host;
  unsigned priority = 0;
  AuthorityType type = AT_ANYANDALL;
  if (XMLHelper::parse(xml, service, host, priority, type) != 0)
    return std::nullopt;
  return Announcement{host.str(), service.str(), type};
}

AutoDereference<Discovery> elsewhere(Record const& record, Announcement const& place)
{
  auto remote = std::make_unique<Remote::Discovery>();
  remote->queryType = DQ_UNDEFINED;
  remote->subject = record.subject.c_str();
  remote->authority = record.authority.c_str();
  remote->authType = place.type;
  remote->attributes = {CT_CONFIGURATION, CS_LOCALONLY, 0, 0, 0};
  remote->sourceHost = place.host.c_str();
  remote->sourceServiceName = place.service.c_str();
  return AutoDereference<Discovery>(getRemoteDiscoveryDatabase().newDiscovery(remote.release()));
}

Announcement masterAs(AuthorityType type)
{
  OzfHostname master;
  getDiscoveryRepository().getMasterServerName(master);
  return {master.exportNarrow(), "DiscoveryService", type};
}

bool isShadowed(Record const& record, std::vector<Record> const& records)
{
  return !record.onDemand() && std::any_of(records.begin(), records.end(),
                                           [&record](Record const& other)
                                           {
                                             return other.onDemand() &&
                                                    other.subject == record.subject &&
                                                    other.authority == record.authority;
                                           });
}

bool isCrowdedOut(Record const& record)
{
  AutoDereference<DiscoveryIterator> const iterator(getDiscoveryRepository().queryDiscoveries(
      DQ_DISCOVERY_DATA, record.subject, record.authority, record.type));
  if (!record.onDemand() || !iterator)
    return false;
  AutoDereference<Discovery> const first(iterator->getNext());
  AutoDereference<Discovery> const second(iterator->getNext());
  return first && second;
}

std::string formatAgeOf(Record const& record, OzfObjTime const& now)
{
  if (record.announcement)
    return "-";
  return record.onDemand() ? "on demand" : formatAge(record.discovered, now);
}

std::string formatExpiryOf(Record const& record, OzfObjTime const& now)
{
  if (record.announcement)
    return "never";
  if (record.onDemand())
    return "-";
  if (record.expires.seconds() <= now.seconds())
    return "now";
  return record.expires >= OzfObjTime::max() ? "never"
                                             : formatSpan(record.expires.seconds() - now.seconds());
}

nlohmann::json toJson(Record const& record)
{
  return {{"subject", record.subject},
          {"authority", record.authority},
          {"type", static_cast<int>(record.type)},
          {"typeName", formatType(record.type)},
          {"onDemand", record.onDemand()},
          {"discoveryTime", timeOrNull(record.discovered)},
          {"expiresTime", timeOrNull(record.expires)}};
}

void complainNothing(Selection const& selection)
{
  std::string text = "nothing matches subject \"" + shown(selection.subject) +
                     "\" and authority \"" + shown(selection.authority) + "\"";
  if (!selection.typeName.empty())
    text += " of type " + shown(selection.typeName);
  bool const all = selection.subject == "*" && selection.authority == "*" &&
                   selection.typeName.empty() && !selection.filterData;
  complain(text + (all ? "; explorers report within minutes of their service's start"
                       : "; \"tqdiscoctl query\" shows what there is"));
}

} // namespace tqdiscoctl
