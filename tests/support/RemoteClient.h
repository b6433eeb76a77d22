// A client of a service process, over its remote interface.

#pragma once

#include "discovery/DiscoveryRepository.h"
#include "ozf/config/Configuration.h"
#include "ozf/orb/Orb.h"

#include <DiscoveryServiceC.h>

#include <algorithm>
#include <cstdlib>
#include <set>
#include <string>

namespace tqtest
{

namespace client
{

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

inline Remote::Discovery makeRecord(std::string const& subject, std::string const& authority,
                                    int priority = 1)
{
  Remote::Discovery record;
  record.queryType = DQ_DISCOVERY_DATA;
  record.subject = subject.c_str();
  record.authority = authority.c_str();
  record.authType = AT_TQUCLIENT;
  record.attributes = {CT_POINT_IN_TIME, CS_CENTRALREPOSITORY, priority, 3600, 1000};
  record.sourceHost = "";
  record.sourceServiceName = "";
  return record;
}

inline Remote::CollectionDataSeq makeChunk(std::string const& bytes)
{
  Remote::CollectionDataSeq chunk;
  chunk.length(static_cast<CORBA::ULong>(bytes.size()));
  std::copy(bytes.begin(), bytes.end(), chunk.get_buffer());
  return chunk;
}

// One at a time in a process.
class Client
{
public:
  // root: the product root whose configuration says where the service is.
  Client(std::string const& root, std::string const& host) : m_host(host)
  {
    setenv("TESSARINE_ROOT", root.c_str(), 1);
    reloadConfiguration();
    if (m_orb.init() && m_orb.run(0) == 0)
      connect();
  }
  ~Client()
  {
    m_service = Remote::DiscoveryService::_nil();
    m_orb.shutdown();
    unsetenv("TESSARINE_ROOT");
  }
  Client(Client const&) = delete;
  Client& operator=(Client const&) = delete;

  bool connect()
  {
    OzfHostname host;
    host.setHostname(m_host);
    m_service = connectToRemoteDS(host, &m_orb, "DiscoveryService");
    return !CORBA::is_nil(m_service);
  }

  Remote::DiscoveryService_ptr operator->() { return m_service.in(); }
  bool connected() const { return !CORBA::is_nil(m_service); }

  // Stores in chunks as other hosts do; the status of the first step that
  // fails.
  DiscoveryStatus store(Remote::Discovery const& record, std::string const& payload)
  {
    constexpr std::size_t CHUNK = 1024;
    Remote::RemoteWriter_var writer;
    DiscoveryResult const opened = m_service->putCollection(record, writer.out());
    if (opened.discStatus != DS_SUCCESS)
      return opened.discStatus;
    bool written = true;
    for (std::size_t done = 0; written && done < payload.size(); done += CHUNK)
      written = writer->put(makeChunk(payload.substr(done, CHUNK)));
    return writer->close().discStatus;
  }
  DiscoveryStatus store(std::string const& subject, std::string const& authority,
                        std::string const& payload)
  {
    return store(makeRecord(subject, authority), payload);
  }

  // The subjects of what matches. With incomplete, the service may say that some
  // are missing.
  std::multiset<std::string> subjects(std::string const& authority = "*",
                                      bool* incomplete = nullptr)
  {
    std::multiset<std::string> found;
    Remote::DiscoveryIterator_var const iterator =
        m_service->queryDiscoveries(DQ_DISCOVERY_DATA, AT_ANYANDALL, "*", authority.c_str());
    for (;;)
    {
      Remote::DiscoverySeq_var page;
      try
      {
        page = iterator->getNextPage();
      }
      catch (CORBA::PERSIST_STORE const&)
      {
        if (incomplete == nullptr)
          throw;
        *incomplete = true;
        break;
      }
      if (page->length() == 0)
        break;
      for (CORBA::ULong i = 0; i < page->length(); ++i)
        found.insert(page[i].subject.in());
    }
    iterator->release();
    return found;
  }

  // The payload, or "(status N)".
  std::string read(std::string const& subject, std::string const& authority)
  {
    Remote::CollectionDataIterator_var iterator;
    DiscoveryStatus const status =
        m_service->getCollectionData(makeRecord(subject, authority), "", iterator.out());
    if (status != DS_SUCCESS)
      return "(status " + std::to_string(status) + ")";
    iterator->pageSize(65536);
    std::string payload;
    for (;;)
    {
      Remote::CollectionDataSeq_var const page = iterator->getNextPage();
      if (page->length() == 0)
        break;
      payload.append(reinterpret_cast<char const*>(page->get_buffer()), page->length());
    }
    iterator->release();
    return payload;
  }

private:
  std::string m_host;
  Orb m_orb{0, "", "tqtestclient", 0, 0};
  Remote::DiscoveryService_var m_service;
};

} // namespace client
} // namespace tqtest
