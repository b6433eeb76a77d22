// Discoveries written to the service, another process on loopback: one writer
// beside bare calls and bare files, and many writers at once beside the local
// database.

#include "bench/BareFiles.h"
#include "bench/BareServer.h"
#include "bench/Bench.h"
#include "bench/Records.h"
#include "bench/Service.h"

#include "discovery/RemoteDB.h"
#include "discovery/Researcher.h"
#include "ozf/base/OzfHostname.h"
#include "ozf/config/Configuration.h"
#include "ozf/orb/Orb.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <optional>
#include <thread>

namespace tqbench
{
namespace
{

constexpr std::size_t PAYLOAD_SIZE = 4096;
constexpr std::size_t CHUNK_SIZE = 1024; // what the library puts in a call
constexpr int ROUNDS = 40;
constexpr std::size_t BLOCK = 25;

constexpr std::size_t CLIENTS = 50;
constexpr std::size_t WRITES = 40; // of each client in a round
constexpr int FLEET_ROUNDS = 5;

std::string const& largePayload()
{
  static std::string const text = []
  {
    std::string made;
    while (made.size() < PAYLOAD_SIZE)
      made += payload();
    return made;
  }();
  return text;
}

// A service over one root, a bare server beside it, and this process, whose
// own database lies elsewhere on the same disk.
class Writing
{
public:
  explicit Writing(Settings const& settings) : m_orb(0, "", "tqbench", 1, 1024)
  {
    std::string const local = settings.directory + "/local";
    std::filesystem::create_directory(local);
    openDatabase(local);
    ::setenv("TESSARINE_ROOT", settings.directory.c_str(), 1);
    std::string const bare = BareServer::SERVICE;
    writeConfiguration(settings.directory, freePort(),
                       "ORB_PORT." + bare + " = " + std::to_string(freePort()) + '\n');
    require(reloadConfiguration(), "the configuration was refused");
    m_bare.emplace(std::vector<BareServer::Record>(), "");
    m_service.emplace(settings.service);
    require(m_orb.init() && m_orb.run(0) == 0, "no ORB");
    setOrb(&m_orb);
    initDiscoveryResearch();
    m_host.setHostname(HOST);
    // As soon as they answer.
    Remote::DiscoveryService_var ready =
        connectTo<Remote::DiscoveryService>(m_orb, "DiscoveryService", "DiscoveryService");
    ready = connectTo<Remote::DiscoveryService>(m_orb, BareServer::SERVICE, BareServer::MASTER);
  }
  ~Writing()
  {
    deinitDiscoveryResearch();
    m_orb.shutdown();
  }
  Writing(Writing const&) = delete;
  Writing& operator=(Writing const&) = delete;

  // One call, as the library makes it for every discovery.
  Remote::DiscoveryService_ptr connect(char const* service, char const* name)
  {
    CORBA::Object_var const object =
        m_orb.resolveObject(m_host, service, name, ACE_Time_Value::zero);
    return Remote::DiscoveryService::_narrow(object);
  }

private:
  OzfHostname m_host;
  std::optional<BareServer> m_bare;
  std::optional<ServiceProcess> m_service;
  Orb m_orb;
};

Remote::Discovery wireRecord(std::size_t number)
{
  Remote::Discovery record;
  record.queryType = DQ_DISCOVERY_DATA;
  record.subject = subjectName(number).c_str();
  record.authority = AUTHORITY;
  record.authType = TYPE;
  record.attributes = {CT_POINT_IN_TIME, CS_CENTRALREPOSITORY, 1, 3600,
                       static_cast<CORBA::ULongLong>(OzfObjTime::now().seconds())};
  record.sourceHost = HOST;
  record.sourceServiceName = "DiscoveryService";
  return record;
}

// The calls of one write without the library around them.
void writeByCalls(Remote::DiscoveryService_ptr service, std::size_t number)
{
  Remote::RemoteWriter_var writer;
  require(service->putCollection(wireRecord(number), writer.out()).discStatus == DS_SUCCESS,
          "a write was refused");
  std::string const& text = largePayload();
  for (std::size_t at = 0; at < text.size(); at += CHUNK_SIZE)
  {
    Remote::CollectionDataSeq chunk;
    chunk.length(CHUNK_SIZE);
    std::copy_n(text.data() + at, CHUNK_SIZE, chunk.get_buffer());
    require(writer->put(chunk), "a part was refused");
  }
  require(writer->close().discStatus == DS_SUCCESS, "a discovery was not stored");
}

// The same through the library, into the database of a creator.
void write(DiscoveryCreator& database, std::size_t number)
{
  AutoDereference<Discovery> const discovery(database.newDiscovery(DQ_DISCOVERY_DATA));
  describe(*discovery, number);
  require(discovery->open(OM_UPDATE, "") == DS_SUCCESS, "cannot open for update");
  std::string const& text = largePayload();
  for (std::size_t at = 0; at < text.size(); at += CHUNK_SIZE)
    require(discovery->getCollectionData()->writeCollection(CHUNK_SIZE, text.data() + at) != 0,
            "cannot write the payload");
  require(discovery->persist() == DS_SUCCESS, "cannot persist");
}

// A round does the work for the next block of records.
Side side(char const* name, std::function<void(std::size_t)> const& work)
{
  return {name, [work, next = std::size_t{0}]() mutable
          {
            std::size_t const first = next;
            next += BLOCK;
            return timed(
                       [&]
                       {
                         for (std::size_t number = first; number < next; ++number)
                           work(number);
                       }) /
                   BLOCK;
          }};
}

// Seconds until each of the clients, which run at once, has done its writes.
std::vector<double> together(std::size_t clients, std::size_t writes,
                             std::function<void(std::size_t)> const& write)
{
  std::vector<double> times(clients);
  std::atomic<bool> complete = true;
  {
    std::vector<std::jthread> threads;
    for (std::size_t client = 0; client < clients; ++client)
      threads.emplace_back(
          [&, client]
          {
            try
            {
              times[client] = timed(
                  [&]
                  {
                    for (std::size_t i = 0; i < writes; ++i)
                      write(client * writes + i);
                  });
            }
            catch (CORBA::Exception const& exception)
            {
              std::cerr << "a client met " << exception._name() << '\n';
              complete = false;
            }
            catch (std::exception const& exception)
            {
              std::cerr << exception.what() << '\n';
              complete = false;
            }
          });
  }
  require(complete, "a client could not write");
  return times;
}

} // namespace

std::vector<Row> benchWrite(Settings const& settings)
{
  Writing writing(settings);
  std::string const bareFolder = settings.directory + "/bare";
  std::filesystem::create_directory(bareFolder);
  std::string const metadata = document(0);

  auto const calls = [&](std::size_t number)
  {
    Remote::DiscoveryService_var const service =
        writing.connect(BareServer::SERVICE, BareServer::MASTER);
    writeByCalls(service, number);
  };
  auto const files = [&](std::size_t number)
  { barePersist(bareFolder, baseName(number), metadata, largePayload()); };
  std::vector<double> const times = alternate(
      settings,
      {side("product", [](std::size_t number) { write(getRemoteDiscoveryDatabase(), number); }),
       side("calls", calls), side("floor", files)},
      ROUNDS);
  std::string const work = "write a discovery with 4 KiB payload to the master";
  return {
      {work, "us", times[0] * 1e6, "7 bare calls and bare files", (times[1] + times[2]) * 1e6, 1.3},
      {work, "us", times[0] * 1e6, "the calls alone", times[1] * 1e6, {}},
      {work, "us", times[0] * 1e6, "the files alone", times[2] * 1e6, {}}};
}

std::vector<Row> benchFleetWrites(Settings const& settings)
{
  Writing writing(settings);
  constexpr std::size_t ALL = CLIENTS * WRITES;
  std::vector<double> unevenness;
  auto const perDiscovery = [](std::vector<double> const& times)
  { return *std::max_element(times.begin(), times.end()) / ALL; };

  auto const fleet = [&]
  {
    std::vector<double> const times =
        together(CLIENTS, WRITES,
                 [&](std::size_t number)
                 {
                   Remote::DiscoveryService_var const service =
                       writing.connect("DiscoveryService", "DiscoveryService");
                   writeByCalls(service, number);
                 });
    unevenness.push_back(*std::max_element(times.begin(), times.end()) / median(times));
    return perDiscovery(times);
  };
  auto const local = [&](std::size_t threads)
  {
    return [=]
    {
      return perDiscovery(together(threads, ALL / threads,
                                   [](std::size_t number)
                                   { write(*getDiscoveryDBDatabase(), number); }));
    };
  };
  std::vector<double> const times =
      alternate(settings, {{"product", fleet}, {"floor", local(1)}, {"threads", local(CLIENTS)}},
                FLEET_ROUNDS);
  std::string const work =
      std::to_string(CLIENTS) + " clients write at once, 4 KiB payload, a discovery";
  return {{work, "us", times[0] * 1e6, "local persist, one thread", times[1] * 1e6, 1 / 0.8},
          {work, "us", times[0] * 1e6, "local persist, as many threads", times[2] * 1e6, {}},
          {"the slowest client of them", "x median", median(unevenness), "median client", 1, 2}};
}

} // namespace tqbench
