#include "bench/Writers.h"

#include "bench/Records.h"

#include "discovery/Researcher.h"
#include "ozf/config/Configuration.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <thread>

namespace tqbench
{
namespace
{

constexpr char SAME_HOST[] = "benchmaster6";

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

} // namespace

Writing::Writing(Settings const& settings) : m_orb(0, "", "tqbench", 1, 1024)
{
  std::string const local = settings.directory + "/local";
  std::filesystem::create_directory(local);
  openDatabase(local);
  ::setenv("TESSARINE_ROOT", settings.directory.c_str(), 1);
  std::string const bare = BareServer::SERVICE;
  writeConfiguration(settings.directory, freePort(),
                     "ORB_PORT." + bare + " = " + std::to_string(freePort()) +
                         "\nORB_BIND = ::1\nHOST_ADDRESS." + SAME_HOST + " = ::1\n");
  require(reloadConfiguration(), "the configuration was refused");
  m_bare.emplace(std::vector<BareServer::Record>(), "");
  m_service.emplace(settings.service);
  require(m_orb.init() && m_orb.run(0) == 0, "no ORB");
  setOrb(&m_orb);
  initDiscoveryResearch();
  m_host.setHostname(HOST);
  m_sameHost.setHostname(SAME_HOST);
  // As soon as they answer.
  Remote::DiscoveryService_var ready =
      connectTo<Remote::DiscoveryService>(m_orb, "DiscoveryService", "DiscoveryService");
  ready = connectTo<Remote::DiscoveryService>(m_orb, BareServer::SERVICE, BareServer::MASTER);
}

Writing::~Writing()
{
  deinitDiscoveryResearch();
  m_orb.shutdown();
}

Writing::Service::_ptr_type Writing::connect()
{
  return connect(m_host, "DiscoveryService", "DiscoveryService");
}

Writing::Service::_var_type Writing::connectOfFleet(std::size_t client)
{
  return connect(client % 2 == 0 ? m_host : m_sameHost, "DiscoveryService", "DiscoveryService");
}

Writing::Service::_ptr_type Writing::connectBare()
{
  return connect(m_host, BareServer::SERVICE, BareServer::MASTER);
}

Writing::Service::_ptr_type Writing::connect(OzfHostname const& host, char const* service,
                                             char const* name)
{
  CORBA::Object_var const object = m_orb.resolveObject(host, service, name, ACE_Time_Value::zero);
  return Service::_narrow(object);
}

std::string payloadOf(std::size_t chunks)
{
  std::string text;
  while (text.size() < chunks * CHUNK_SIZE)
    text += payload();
  return text;
}

void writeByCalls(Remote::DiscoveryService_ptr service, std::size_t number, std::string const& text,
                  std::size_t size)
{
  Remote::RemoteWriter_var writer;
  require(service->putCollection(wireRecord(number), writer.out()).discStatus == DS_SUCCESS,
          "a write was refused");
  for (std::size_t at = 0; at < text.size(); at += size)
  {
    Remote::CollectionDataSeq chunk;
    chunk.length(static_cast<CORBA::ULong>(size));
    std::copy_n(text.data() + at, size, chunk.get_buffer());
    require(writer->put(chunk), "a part was refused");
  }
  require(writer->close().discStatus == DS_SUCCESS, "a discovery was not stored");
}

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

} // namespace tqbench
