// Discoveries and payloads read from the service, another process on loopback,
// beside bare calls that fetch pages of the same size.

#include "bench/BareServer.h"
#include "bench/Bench.h"
#include "bench/Records.h"
#include "bench/Service.h"

#include "discovery/DiscoveryRepository.h"
#include "discovery/RemoteDB.h"
#include "discovery/Researcher.h"
#include "ozf/base/OzfHostname.h"
#include "ozf/config/Configuration.h"
#include "ozf/orb/Orb.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <optional>
#include <string_view>

namespace tqbench
{
namespace
{

constexpr int QUERY_ROUNDS = 21;
constexpr std::size_t QUERIED_RECORDS = 10000;
constexpr CORBA::Long DEFAULT_RECORDS = 8; // a page; one more is sent
constexpr CORBA::Long MANY_RECORDS = 500;

constexpr int PAYLOAD_ROUNDS = 201;
constexpr std::size_t PAYLOAD_SIZE = std::size_t(1) << 20;
constexpr long LARGE_PAGE = 64L << 10;

// Pages of the default size make a call of eight bytes.
constexpr int SMALL_PAGE_ROUNDS = 3;
constexpr long DEFAULT_PAGE = 8;

// The records that a service on HOST with this database sends.
std::vector<BareServer::Record> wireRecords(std::size_t count)
{
  std::vector<BareServer::Record> records(count);
  for (std::size_t number = 0; number < count; ++number)
  {
    BareServer::Record& record = records[number];
    record.queryType = DQ_UNDEFINED;
    record.subject = subjectName(number).c_str();
    record.authority = AUTHORITY;
    record.authType = TYPE;
    record.attributes = {CT_POINT_IN_TIME, CS_CENTRALREPOSITORY, 0, 0, 0};
    record.sourceHost = HOST;
    record.sourceServiceName = "DiscoveryService";
  }
  return records;
}

struct Fetched
{
  std::size_t calls = 0;
  std::size_t items = 0; // records or bytes

  bool operator==(Fetched const&) const = default;
};

Fetched drain(Remote::DiscoveryIterator_ptr iterator)
{
  Fetched fetched;
  for (;;)
  {
    Remote::DiscoverySeq_var const page = iterator->getNextPage();
    ++fetched.calls;
    fetched.items += page->length();
    if (page->length() == 0)
      return fetched;
  }
}

// A service over the root, a bare server beside it, and this process as their
// reader.
class Processes
{
public:
  Processes(Settings const& settings, std::string const& payload,
            std::vector<BareServer::Record> const& records)
      : m_root(settings.directory), m_orb(0, "", "tqbench", 1, 1024)
  {
    configure("");
    m_bare.emplace(records, payload);
    m_service.emplace(settings.service);
    require(m_orb.init() && m_orb.run(0) == 0, "no ORB");
    setOrb(&m_orb);
    initDiscoveryResearch();
    service = connectTo<Remote::DiscoveryService>(m_orb, "DiscoveryService", "DiscoveryService");
    bareRecords =
        connectTo<Remote::DiscoveryIterator>(m_orb, BareServer::SERVICE, BareServer::RECORDS);
    barePayload =
        connectTo<Remote::CollectionDataIterator>(m_orb, BareServer::SERVICE, BareServer::PAYLOAD);
  }
  ~Processes()
  {
    deinitDiscoveryResearch();
    service = Remote::DiscoveryService::_nil();
    bareRecords = Remote::DiscoveryIterator::_nil();
    barePayload = Remote::CollectionDataIterator::_nil();
    m_orb.shutdown();
  }
  Processes(Processes const&) = delete;
  Processes& operator=(Processes const&) = delete;

  // One call, as the library makes it for every payload.
  Remote::DiscoveryService_ptr connectBare()
  {
    OzfHostname host;
    host.setHostname(HOST);
    CORBA::Object_var const object =
        m_orb.resolveObject(host, BareServer::SERVICE, BareServer::MASTER, ACE_Time_Value::zero);
    return Remote::DiscoveryService::_narrow(object);
  }

  // Takes hold in this process; the others have read theirs.
  void configure(std::string const& more)
  {
    std::string const bare = BareServer::SERVICE;
    writeConfiguration(m_root, m_servicePort,
                       "ORB_PORT." + bare + " = " + std::to_string(m_barePort) + '\n' + more);
    require(reloadConfiguration(), "the configuration was refused");
  }

  std::vector<pid_t> servers() const { return {m_service->pid(), m_bare->pid()}; }

  Remote::DiscoveryService_var service;
  Remote::DiscoveryIterator_var bareRecords;
  Remote::CollectionDataIterator_var barePayload;

private:
  std::string const m_root;
  unsigned short const m_servicePort = freePort();
  unsigned short const m_barePort = freePort();
  std::optional<BareServer> m_bare;
  std::optional<ServiceProcess> m_service;
  Orb m_orb;
};

AutoDereference<DiscoveryIterator> query(std::string const& subject)
{
  AutoDereference<DiscoveryIterator> found(getDiscoveryRepository().queryDiscoveries(
      DQ_DISCOVERY_DATA, subject, AUTHORITY, AT_ANYANDALL));
  require(static_cast<bool>(found), "the service could not be queried");
  return found;
}

std::size_t countAll()
{
  AutoDereference<DiscoveryIterator> const discoveries = query("*");
  std::size_t count = 0;
  while (AutoDereference<Discovery> const discovery{discoveries->getNext()})
    ++count;
  return count;
}

// Both end with the payload in the buffer, which has room for more than it.
std::size_t readProduct(Remote::Discovery const& record, std::string& buffer)
{
  AutoDereference<Discovery> const discovery(
      getRemoteDiscoveryDatabase().newDiscovery(new Remote::Discovery(record)));
  CollectionData const& data = *discovery->getCollectionData();
  require(discovery->open(OM_READ, "") == DS_SUCCESS, "the payload could not be opened");
  std::size_t size = 0;
  while (long const count = data.readCollection(buffer.size() - size, buffer.data() + size))
  {
    require(count > 0, "the payload could not be read");
    size += static_cast<std::size_t>(count);
  }
  return size;
}

std::size_t readBare(Remote::CollectionDataIterator_ptr iterator, std::string& buffer)
{
  std::size_t size = 0;
  for (;;)
  {
    Remote::CollectionDataSeq_var const page = iterator->getNextPage();
    if (page->length() == 0)
      return size;
    require(page->length() <= buffer.size() - size, "the payload is too long");
    std::memcpy(buffer.data() + size, page->get_buffer(), page->length());
    size += page->length();
  }
}

// All calls of the product's reader, with pages of that size.
std::size_t readByCalls(Remote::DiscoveryService_ptr service, Remote::Discovery const& record,
                        long pageSize, std::string& buffer)
{
  Remote::CollectionDataIterator_var iterator;
  require(service->getCollectionData(record, "", iterator.out()) == DS_SUCCESS,
          "the bare payload could not be opened");
  iterator->pageSize(static_cast<CORBA::Long>(pageSize));
  std::size_t const size = readBare(iterator, buffer);
  iterator->release();
  return size;
}

} // namespace

std::vector<Row> benchQuery(Settings const& settings)
{
  std::size_t const records = std::min(settings.records, QUERIED_RECORDS);
  makeDatabase(settings.directory, records);
  openDatabase(settings.directory);
  Processes processes(settings, "", wireRecords(records));
  CORBA::Long pageSize = DEFAULT_RECORDS;

  auto const walkService = [&]
  {
    Remote::DiscoveryIterator_var const iterator =
        processes.service->queryDiscoveries(DQ_DISCOVERY_DATA, AT_ANYANDALL, "*", AUTHORITY);
    iterator->pageSize(pageSize);
    Fetched const fetched = drain(iterator.in());
    iterator->release();
    return fetched;
  };
  auto const walkBare = [&] { return drain(processes.bareRecords.in()); };
  auto const round = [](auto walk, auto wanted)
  {
    return [=]
    {
      decltype(wanted) found{};
      double const seconds = timed([&] { found = walk(); });
      require(found == wanted, "not every discovery was found");
      return seconds;
    };
  };
  auto const compare = [&](std::string const& pages, double target) -> std::vector<Row>
  {
    processes.bareRecords->pageSize(pageSize);
    Fetched const expected = walkBare();
    require(expected.items == records && walkService() == expected, "the two sides are not alike");
    std::string const floor = std::to_string(expected.calls) + " bare calls, pages ready";
    auto const rows = [&](std::string const& work, std::string const& more) -> std::vector<Row>
    {
      std::vector<double> const times = alternate(settings,
                                                  {{"product", round(countAll, records)},
                                                   {"service", round(walkService, expected)},
                                                   {"floor", round(walkBare, expected)}},
                                                  QUERY_ROUNDS);
      return {{work + more, "ms", times[0] * 1e3, floor, times[2] * 1e3, target},
              {work + ", service alone", "ms", times[1] * 1e3, floor, times[2] * 1e3, {}}};
    };
    std::vector<Row> all =
        rows("query " + std::to_string(records) + " discoveries, " + pages, ", remote reader");
    if (Placement::canBeApart())
    {
      Placement const apart(Placement::APART, processes.servers());
      std::vector<Row> const more =
          rows("the same, a processor for the reader, one for the servers", "");
      all.insert(all.end(), more.begin(), more.end());
    }
    return all;
  };

  std::vector<Row> rows = compare("pages of 9 (default)", 1.5);
  pageSize = MANY_RECORDS;
  processes.configure("DISCOVERY_PAGE_SIZE = " + std::to_string(MANY_RECORDS) + '\n');
  std::vector<Row> const more = compare("pages of 500", 2.0);
  rows.insert(rows.end(), more.begin(), more.end());
  return rows;
}

std::vector<Row> benchPayload(Settings const& settings)
{
  std::string text;
  for (std::size_t number = 0; text.size() < PAYLOAD_SIZE; ++number)
    text += std::to_string(number) + '\n';
  text.resize(PAYLOAD_SIZE);
  makeDatabase(settings.directory, 1);
  std::string const directory = openDatabase(settings.directory);
  std::ofstream(directory + '/' + baseName(0) + ".dat", std::ios::binary) << text;
  Processes processes(settings, text, {});
  Remote::Discovery const record = wireRecords(1).front();
  std::string buffer(PAYLOAD_SIZE + 1, '\0');
  auto const round = [&](auto read)
  {
    return [&buffer, &text, read]
    {
      std::size_t size = 0;
      double const seconds = timed([&] { size = read(); });
      require(std::string_view(buffer).substr(0, size) == text,
              "the payload is not what was written");
      return seconds;
    };
  };
  auto const compare = [&](int rounds, long pageSize)
  {
    return alternate(settings,
                     {{"product", round([&] { return readProduct(record, buffer); })},
                      {"floor", round([&] { return readBare(processes.barePayload, buffer); })},
                      {"calls", round(
                                    [&]
                                    {
                                      Remote::DiscoveryService_var const service =
                                          processes.connectBare();
                                      return readByCalls(service, record, pageSize, buffer);
                                    })}},
                     rounds);
  };

  processes.configure("COLLECTION_PAGE_SIZE = " + std::to_string(LARGE_PAGE) + '\n');
  processes.barePayload->pageSize(LARGE_PAGE);
  std::vector<double> const large = compare(PAYLOAD_ROUNDS, LARGE_PAGE);
  processes.configure("");
  processes.barePayload->pageSize(DEFAULT_PAGE);
  std::vector<double> const small = compare(SMALL_PAGE_ROUNDS, DEFAULT_PAGE);
  std::string const work = "read a payload of 1 MiB, remote reader, pages of ";
  return {
      {work + "64 KiB", "ms", large[0] * 1e3, "the same calls, pages ready", large[2] * 1e3, 1.3},
      {work + "64 KiB", "ms", large[0] * 1e3, "the calls for pages alone", large[1] * 1e3, {}},
      {work + "8 bytes (default)",
       "ms",
       small[0] * 1e3,
       "the calls for pages alone",
       small[1] * 1e3,
       {}}};
}

} // namespace tqbench
