#include "tools/Records.h"

#include "discovery/DiscoveryRepository.h"
#include "discovery/PullExplorerCache.h"
#include "discovery/RemoteDB.h"
#include "discovery/RemoteDBDrain.h"
#include "discovery/RemoteDBWire.h"
#include "ozf/base/Wildcard.h"
#include "ozf/config/HostRole.h"
#include "tools/Connection.h"
#include "tools/ExitCodes.h"
#include "tools/Format.h"
#include "tools/Output.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <iterator>
#include <mutex>
#include <tuple>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

namespace
{

constexpr std::size_t MAX_REGISTRATION = 1 << 20;
constexpr std::size_t MOST_LISTED = std::size_t(64) << 20;

using RemoteIterator =
    AutoReleaseIterator<Remote::DiscoveryIterator_var, Remote::DiscoveryIterator_ptr>;

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

// Passes on what answers a selection, as small as it can be.
class Listing
{
public:
  Listing(Selection const& selection, AuthorityType type, RecordSink const& take)
      : m_selection(selection), m_type(type), m_take(take)
  {
  }

  // False when no more is taken.
  bool add(Remote::Discovery const& wire)
  {
    if (!areUsableNames(wire.subject, wire.authority))
      return true;
    Record record;
    record.subject = Subject(wire.subject.in()).getName().str();
    record.authority = Authority(wire.authority.in(), wire.authType).getName().str();
    record.type = wire.authType;
    // The service gives more than was asked for where a pattern begins with
    // '*', and where collections are produced on demand.
    if (!matches(m_selection.subject, record.subject) ||
        !matches(m_selection.authority, record.authority))
      return true;
    // A query of this type meets what is stored alone, and no other does.
    record.announcement = m_type == AT_REMOTEPULL;
    std::unique_ptr<CollectionAttributes const> const attributes(fromWire(wire.attributes));
    if (!attributes->getDiscoveryTime().isZero())
    {
      record.discovered = attributes->getDiscoveryTime();
      record.expires = attributes->getExpiresTime();
    }
    record.source = sourceOf(wire);
    record.queryType = wire.queryType;
    record.attributes = wire.attributes;
    // Filter data is always stored.
    if (m_selection.filterData ? m_type != AT_ANYANDALL && m_type != record.type
                               : !isOfType(record, m_type))
      return true;
    return m_take(std::move(record));
  }

private:
  std::shared_ptr<Record::Source const> const& sourceOf(Remote::Discovery const& wire)
  {
    std::string const& master = m_selection.master;
    char const* const host = wire.sourceHost.in();
    char const* const service = master.empty() ? wire.sourceServiceName.in() : DISCOVERY_SERVICE;
    if (!m_source || m_source->ownName != host || m_source->service != service)
      m_source = std::make_shared<Record::Source const>(
          Record::Source{master.empty() ? host : master, service, master, host});
    return m_source;
  }

  Selection const& m_selection;
  AuthorityType const m_type;
  RecordSink const& m_take;
  std::shared_ptr<Record::Source const> m_source; // of the last record
};

// Of a master as selections name it.
OzfHostname hostOf(std::string const& master)
{
  OzfHostname host;
  if (master.empty())
    getDiscoveryRepository().getMasterServerName(host);
  else
    host.setHostname(master);
  return host;
}

// The master's iterator; absent, after a line for those who ask for one, when it
// cannot be had.
std::unique_ptr<RemoteIterator> queryMaster(Selection const& selection, AuthorityType type)
{
  OzfHostname const master = hostOf(selection.master);
  Remote::DiscoveryService_var const service =
      getDiscoveryRepository().connectToRemoteDiscoveryService(master, DISCOVERY_SERVICE);
  if (CORBA::is_nil(service))
    return nullptr;
  Remote::DiscoveryIterator_var iterator =
      service->queryDiscoveries(selection.filterData ? DQ_FILTER_DATA : DQ_DISCOVERY_DATA, type,
                                selection.subject.c_str(), selection.authority.c_str());
  if (!CORBA::is_nil(iterator))
  {
    auto held = std::make_unique<RemoteIterator>(iterator._retn());
    requestPageSize(held->operator->());
    return held;
  }
  tell("the service gave no list of discoveries");
  return nullptr;
}

// An exit code; reason says why it is EXIT_FAILED or EXIT_REFUSED.
int fetch(Selection const& selection, AuthorityType type, Listing& listing, std::string& reason)
{
  reason = NOT_QUERIED;
  try
  {
    auto const iterator = queryMaster(selection, type);
    if (!iterator)
      return EXIT_FAILED;
    // Page by page: whatever comes, one page is held besides what is kept.
    DrainLimit const limit = DrainLimit::forAnswer();
    for (std::size_t calls = 0;; ++calls)
    {
      if (limit.exceeded(calls))
      {
        reason = "the list of discoveries comes too slowly, or to no end";
        return EXIT_FAILED;
      }
      Remote::DiscoverySeq_var page = (*iterator)->getNextPage();
      if (page->length() == 0)
        return EXIT_DONE;
      for (CORBA::ULong i = 0; i < page->length(); ++i)
        if (!listing.add(page[i]))
        {
          reason = "the service lists more than " + formatSize(MOST_LISTED) +
                   " of records, which is more than this command takes; choose with --subject or "
                   "--authority";
          return EXIT_FAILED;
        }
    }
  }
  catch (CORBA::PERSIST_STORE const&)
  {
    return EXIT_PARTLY;
  }
  catch (CORBA::NO_PERMISSION const& exception)
  {
    reason = "the service gives no list: " + reasonOf(exception);
    return EXIT_REFUSED;
  }
  catch (CORBA::Exception const& exception)
  {
    std::string const broken = "the list of discoveries broke off: " + reasonOf(exception);
    tell(broken);
    if (!selection.master.empty())
      reason = broken;
    return EXIT_FAILED;
  }
}

// A record as the service on that host has it.
AutoDereference<Discovery> remoteDiscovery(Record const& record, std::string const& host,
                                           std::string const& service, AuthorityType type,
                                           DiscoveryQuery queryType,
                                           Remote::CollAttributes const& attributes,
                                           bool own = false)
{
  auto remote = std::make_unique<Remote::Discovery>();
  remote->queryType = queryType;
  remote->subject = record.subject.c_str();
  remote->authority = record.authority.c_str();
  remote->authType = type;
  remote->attributes = attributes;
  remote->sourceHost = host.c_str();
  remote->sourceServiceName = service.c_str();
  return AutoDereference<Discovery>(
      getRemoteDiscoveryDatabase().newDiscovery(remote.release(), own));
}

} // namespace

AutoDereference<Discovery> Record::open() const
{
  return remoteDiscovery(*this, source->host, source->service, type, queryType, attributes);
}

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
  type = selection.filterData && !selection.anyType ? AT_EXTSRC : AT_ANYANDALL;
  if (selection.typeName.empty() || parseType(selection.typeName, type))
    return true;
  complain("\"" + shown(selection.typeName) +
           "\" is no authority type; use server, client, external, remotepull or 1 to 4");
  return false;
}

int visitRecords(Selection const& selection, RecordSink const& take, bool quiet, std::string* why)
{
  AuthorityType type = AT_ANYANDALL;
  if (!selectedType(selection, type))
    return EXIT_USAGE;
  Listing listing(selection, type, take);
  std::string reason;
  int const result = fetch(selection, type, listing, reason);
  if ((result == EXIT_FAILED || result == EXIT_REFUSED) && !quiet)
    complain(reason);
  if (why != nullptr)
    *why = std::move(reason);
  if (result == EXIT_PARTLY && !quiet)
    complainIncomplete();
  return result;
}

int queryRecords(Selection const& selection, std::vector<Record>& records, bool quiet,
                 std::string* why)
{
  records.clear();
  std::size_t bytes = 0;
  Record::Source const* source = nullptr; // of the last record, kept by it
  int const result = visitRecords(
      selection,
      [&](Record record)
      {
        bytes += sizeof record + record.subject.capacity() + record.authority.capacity();
        if (record.source.get() != source)
        {
          source = record.source.get();
          bytes += sizeof *source + source->host.capacity() + source->service.capacity() +
                   source->ownName.capacity();
        }
        records.push_back(std::move(record));
        return bytes <= MOST_LISTED;
      },
      quiet, why);
  if (!isListed(result))
  {
    records.clear();
    return result;
  }
  std::sort(records.begin(), records.end(),
            [](Record const& a, Record const& b) {
              return std::tie(a.subject, a.authority, a.type) <
                     std::tie(b.subject, b.authority, b.type);
            });
  return result;
}

bool isListedBefore(Record const& a, Record const& b)
{
  auto const key = [](Record const& record)
  { return std::tie(record.subject, record.authority, record.type); };
  if (key(a) != key(b))
    return key(a) < key(b);
  return a.discovered == b.discovered ? masterOf(a) < masterOf(b) : b.discovered < a.discovered;
}

std::string const& masterOf(Record const& record)
{
  static std::string const NONE;
  return record.source ? record.source->master : NONE;
}

std::string nameWithMaster(Record const& record)
{
  std::string const& master = masterOf(record);
  return master.empty() ? record.subject : record.subject + " (" + master + ")";
}

namespace
{

// Has each of the masters asked; an exit code. ask: an exit code, with the reason.
int askEach(Connection const& connection, Selection const& selection, bool quiet,
            std::function<int(Selection const&, std::size_t, std::string&)> const& ask)
{
  AuthorityType type = AT_ANYANDALL;
  if (!selectedType(selection, type))
    return EXIT_USAGE;
  Masters& masters = connection.masters();
  masters.each(
      [&](Master& master, std::size_t number)
      {
        Selection own = selection;
        own.master = master.name;
        std::string reason;
        int const result = ask(own, number, reason);
        master.incomplete = result == EXIT_PARTLY;
        master.refused = result == EXIT_REFUSED;
        return isListed(result) ? std::string() : reason;
      });
  bool whole = masters.missing() == 0;
  for (Master const& master : masters.all())
  {
    whole = whole && !master.incomplete;
    if (master.missing.empty() && master.incomplete && !quiet)
      complain("the list of the master " + master.place +
               " is incomplete: it could not read all that it has; its log tells why");
  }
  if (masters.missing() == masters.size())
    return EXIT_FAILED;
  return whole ? EXIT_DONE : EXIT_PARTLY;
}

} // namespace

int queryRecords(Connection const& connection, Selection const& selection,
                 std::vector<Record>& records, bool quiet, std::string* why)
{
  if (!connection.several())
    return queryRecords(selection, records, quiet, why);
  std::vector<std::vector<Record>> lists(connection.masters().size());
  int const result = askEach(connection, selection, quiet,
                             [&](Selection const& own, std::size_t number, std::string& reason)
                             { return queryRecords(own, lists[number], true, &reason); });
  records.clear();
  for (std::vector<Record>& list : lists)
    std::move(list.begin(), list.end(), std::back_inserter(records));
  std::sort(records.begin(), records.end(), isListedBefore);
  return result;
}

int visitRecords(Connection const& connection, Selection const& selection, RecordSink const& take,
                 bool quiet)
{
  if (!connection.several())
    return visitRecords(selection, take, quiet);
  std::mutex mutex;
  RecordSink const takeOne = [&](Record record)
  {
    std::lock_guard const guard(mutex);
    return take(std::move(record));
  };
  return askEach(connection, selection, quiet,
                 [&](Selection const& own, std::size_t, std::string& reason)
                 { return visitRecords(own, takeOne, true, &reason); });
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
  return connection.conclude(queryRecords(connection, selection, records));
}

std::optional<Announcement> announcementOf(Record const& record)
{
  Selection selection;
  selection.subject = record.subject;
  selection.authority = record.authority;
  selection.typeName = formatType(AT_REMOTEPULL);
  selection.master = record.source->master;
  std::vector<Record> announcements;
  std::string text;
  if (!isListed(queryRecords(selection, announcements, true)) || announcements.size() != 1 ||
      !readPayload(*announcements.front().open(), text))
    return std::nullopt;

  auto const registration = readPullRegistration(text);
  if (!registration)
    return std::nullopt;
  return Announcement{registration->sourceHost.str(), registration->serviceName.str(),
                      registration->originType};
}

AutoDereference<Discovery> elsewhere(Record const& record, Announcement const& place)
{
  return remoteDiscovery(record, place.host, place.service, place.type, DQ_UNDEFINED, {});
}

AutoDereference<Discovery> ownCollection(Record const& record, Announcement const& place)
{
  return remoteDiscovery(record, place.host, place.service, place.type, DQ_UNDEFINED, {}, true);
}

Announcement masterAs(Record const& record, AuthorityType type)
{
  return {hostOf(record.source->master).exportNarrow(), DISCOVERY_SERVICE, type};
}

bool isShadowed(Record const& record, std::vector<Record> const& records)
{
  auto const byNames = [](Record const& a, Record const& b)
  { return std::tie(a.subject, a.authority) < std::tie(b.subject, b.authority); };
  auto const [first, last] = std::equal_range(records.begin(), records.end(), record, byNames);
  return !record.onDemand() &&
         std::any_of(first, last,
                     [&](Record const& other)
                     { return other.onDemand() && masterOf(other) == masterOf(record); });
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
  nlohmann::json result = {{"subject", record.subject},
                           {"authority", record.authority},
                           {"type", static_cast<int>(record.type)},
                           {"typeName", formatType(record.type)},
                           {"onDemand", record.onDemand()},
                           {"discoveryTime", timeOrNull(record.discovered)},
                           {"expiresTime", timeOrNull(record.expires)}};
  if (!masterOf(record).empty())
    result["master"] = masterOf(record);
  return result;
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
