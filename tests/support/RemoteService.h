// A host with a configuration and an ORB of its own, on which a discovery
// service made of test servants answers. The library reaches it through
// loopback sockets like a service on any other host.

#pragma once

#include "discovery/DiscoveryFramework.h"
#include "discovery/DiscoveryRepository.h"
#include "ozf/config/Configuration.h"
#include "ozf/orb/Orb.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

#include <DiscoveryServiceC.h>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tqtest
{

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;
namespace Skeletons = POA_Quillon::Tessarine::Ozf::DiscoverySvc::Remote;

// A loopback port that was free a moment ago.
inline unsigned short findFreePort()
{
  int const fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  bool const found =
      fd >= 0 && bind(fd, generic, length) == 0 && getsockname(fd, generic, &length) == 0;
  if (fd >= 0)
    close(fd);
  return found ? ntohs(address.sin_port) : 0;
}

// What a test wants done in a call; empty: the servant's own answer.
using Before = std::function<void()>;

inline void runBefore(Before const& before)
{
  if (before)
    before();
}

// Hands out its pages in order, then empty ones; once released it can be read
// again.
class DataPages : public Skeletons::CollectionDataIterator
{
public:
  std::vector<std::string> pages;
  bool endless = false; // the last page again and again
  Before beforePage;
  Before beforeRelease;
  std::atomic<int> pagesAsked{0};
  std::atomic<int> releases{0};
  std::atomic<long> pageSizeSet{-1};

  CORBA::Long pageSize() override { return 8; }
  void pageSize(CORBA::Long size) override { pageSizeSet = size; }

  Remote::CollectionDataSeq* getNextPage() override
  {
    runBefore(beforePage);
    ++pagesAsked;
    std::size_t const index = m_next++;
    Remote::CollectionDataSeq_var page = new Remote::CollectionDataSeq;
    if (index < pages.size() || (endless && !pages.empty()))
    {
      std::string const& bytes = pages[std::min(index, pages.size() - 1)];
      page->length(static_cast<CORBA::ULong>(bytes.size()));
      std::copy(bytes.begin(), bytes.end(), page->get_buffer());
    }
    return page._retn();
  }

  void release() override
  {
    ++releases;
    m_next = 0;
    runBefore(beforeRelease);
  }

private:
  std::size_t m_next = 0;
};

class RecordPages : public Skeletons::DiscoveryIterator
{
public:
  std::vector<std::vector<Remote::Discovery>> pages;
  bool endless = false; // the last page again and again
  Before beforePage;
  Before beforeRelease;
  std::function<void(long)> takePageSize; // empty: nobody sets it
  std::atomic<int> pagesAsked{0};
  std::atomic<int> releases{0};

  CORBA::Long pageSize() override { return 8; }
  void pageSize(CORBA::Long size) override
  {
    if (takePageSize)
      takePageSize(size);
    else
      ADD_FAILURE() << "nobody sets this page size";
  }

  Remote::DiscoverySeq* getNextPage() override
  {
    runBefore(beforePage);
    ++pagesAsked;
    std::size_t const index = m_next++;
    Remote::DiscoverySeq_var page = new Remote::DiscoverySeq;
    if (index < pages.size() || (endless && !pages.empty()))
    {
      auto const& records = pages[std::min(index, pages.size() - 1)];
      page->length(static_cast<CORBA::ULong>(records.size()));
      for (CORBA::ULong i = 0; i < page->length(); ++i)
        page[i] = records[i];
    }
    return page._retn();
  }

  void release() override
  {
    ++releases;
    m_next = 0;
    runBefore(beforeRelease);
  }

private:
  std::size_t m_next = 0;
};

// Notes what is written.
class NotingWriter : public Skeletons::RemoteWriter
{
public:
  Before beforePut;
  Before beforeClose;
  CORBA::Boolean accept = true;
  DiscoveryStatus closeStatus = DS_SUCCESS;
  std::vector<std::string> chunks;
  int closes = 0;

  CORBA::Boolean put(Remote::CollectionDataSeq const& data) override
  {
    runBefore(beforePut);
    chunks.emplace_back(reinterpret_cast<char const*>(data.get_buffer()), data.length());
    return accept;
  }
  DiscoveryResult close() override
  {
    ++closes;
    runBefore(beforeClose);
    return {closeStatus, 0};
  }
};

// The service: answers with what the test put in, notes what it was asked.
class TestService : public Skeletons::DiscoveryService
{
public:
  Before before; // on every call that reads or writes discoveries
  Before beforeRegister;
  Before beforeRestart;
  Remote::DiscoveryIterator_var records;
  Remote::CollectionDataIterator_var data;
  std::function<Remote::DiscoveryIterator_ptr()> makeRecords;   // instead of records
  std::function<Remote::CollectionDataIterator_ptr()> makeData; // instead of data
  DiscoveryStatus dataStatus = DS_SUCCESS;
  Remote::RemoteWriter_var writer;
  DiscoveryStatus writeStatus = DS_SUCCESS;

  struct Query
  {
    DiscoveryQuery query;
    AuthorityType type;
    std::string subject;
    std::string authority;
    std::thread::id thread;
  };
  std::mutex mutex;
  std::vector<Query> queries;
  std::vector<std::pair<Remote::Discovery, std::string>> dataRequests;
  std::vector<Remote::Discovery> written;
  std::vector<std::string> registered; // the subjects
  std::atomic<int> restarts{0};

  Remote::DiscoveryIterator_ptr queryDiscoveries(DiscoveryQuery query, AuthorityType type,
                                                 char const* subject,
                                                 char const* authority) override
  {
    {
      std::lock_guard guard(mutex);
      queries.push_back({query, type, subject, authority, std::this_thread::get_id()});
    }
    runBefore(before);
    return makeRecords ? makeRecords() : Remote::DiscoveryIterator::_duplicate(records);
  }
  DiscoveryStatus getCollectionData(Remote::Discovery const& record, char const* filter,
                                    Remote::CollectionDataIterator_out iterator) override
  {
    iterator = Remote::CollectionDataIterator::_nil();
    {
      std::lock_guard guard(mutex);
      dataRequests.emplace_back(record, filter);
    }
    runBefore(before);
    if (dataStatus == DS_SUCCESS)
      iterator = makeData ? makeData() : Remote::CollectionDataIterator::_duplicate(data);
    return dataStatus;
  }
  DiscoveryResult putCollection(Remote::Discovery const& record,
                                Remote::RemoteWriter_out out) override
  {
    out = Remote::RemoteWriter::_nil();
    {
      std::lock_guard guard(mutex);
      written.push_back(record);
    }
    runBefore(before);
    if (writeStatus == DS_SUCCESS)
      out = Remote::RemoteWriter::_duplicate(writer);
    return {writeStatus, 0};
  }
  void registerExplorer(char const*, char const*, char const* subject, char const*, AuthorityType,
                        CORBA::Short) override
  {
    {
      std::lock_guard guard(mutex);
      registered.push_back(subject);
    }
    runBefore(beforeRegister);
  }
  CORBA::Boolean terminate() override { return false; }
  void restartLocalPushTimer() override
  {
    ++restarts;
    runBefore(beforeRestart);
  }
  CORBA::Boolean restartAllPushTimers() override { return false; }
};

// The host. SERVER is itself, under a name that the ORB does not take for its
// own address.
class RemoteServiceTest : public testing::Test
{
protected:
  static constexpr char const* MASTER = "localhost";
  static constexpr char const* SERVICE = "DiscoveryService";

  explicit RemoteServiceTest(std::string const& extraConfiguration = "")
      : m_configuration("SERVER = localhost\nCLIENT_NAME = clienthost\nORB_BIND = 127.0.0.1\n"
                        "ORB_PORT.DiscoveryService = " +
                        std::to_string(findFreePort()) + "\n" + extraConfiguration)
  {
    std::filesystem::create_directories(m_root / "etc");
    setenv("TESSARINE_ROOT", m_root.path().c_str(), 1);
    configure("");
  }
  ~RemoteServiceTest() override { unsetenv("TESSARINE_ROOT"); }

  void configure(std::string const& more)
  {
    writeText(m_root / "etc/tq.conf", m_configuration + more);
    EXPECT_TRUE(reloadConfiguration());
  }

  void SetUp() override
  {
    m_orb = std::make_unique<Orb>(0, "", SERVICE, 1, 0);
    ASSERT_TRUE(m_orb->init()) << m_log.text();
    ASSERT_EQ(m_orb->run(0), 0);
    m_framework.reset(new DiscoveryFramework("", DST_NONE, m_orb.get(), false));
    m_framework->init(nullptr);
    m_service = new TestService;
    m_serviceVar = m_service;
    CORBA::Object_var const reference = m_orb->activateObject(m_service);
    m_orb->advertiseObject(SERVICE, reference);
  }
  void TearDown() override
  {
    getDiscoveryRepository().setDiscoveryFramework(nullptr);
    m_framework.reset();
    m_orb->shutdown();
  }

  // Activates a servant, which the test keeps until its end, and narrows. Any
  // thread.
  template <class Interface, class Servant>
  typename Interface::_ptr_type activate(Servant* servant)
  {
    {
      std::lock_guard guard(m_servantsMutex);
      m_servants.emplace_back(servant);
    }
    CORBA::Object_var const reference = m_orb->activateObject(servant);
    return Interface::_narrow(reference);
  }

  DataPages* serveData(std::vector<std::string> pages)
  {
    auto* const servant = new DataPages;
    servant->pages = std::move(pages);
    m_service->data = activate<Remote::CollectionDataIterator>(servant);
    return servant;
  }
  RecordPages* serveRecords(std::vector<std::vector<Remote::Discovery>> pages)
  {
    auto* const servant = new RecordPages;
    servant->pages = std::move(pages);
    m_service->records = activate<Remote::DiscoveryIterator>(servant);
    return servant;
  }
  NotingWriter* serveWriter()
  {
    auto* const servant = new NotingWriter;
    m_service->writer = activate<Remote::RemoteWriter>(servant);
    return servant;
  }

  // A record as this service would send it.
  static Remote::Discovery makeRecord(char const* subject = "subject",
                                      char const* authority = "authority")
  {
    Remote::Discovery record;
    record.queryType = DQ_UNDEFINED;
    record.subject = subject;
    record.authority = authority;
    record.authType = AT_TQUCLIENT;
    record.attributes = {CT_POINT_IN_TIME, CS_CENTRALREPOSITORY, 3, 400, 1000};
    record.sourceHost = MASTER;
    record.sourceServiceName = SERVICE;
    return record;
  }

  TempDir m_root;
  std::string m_configuration;
  LogCapture m_log;
  std::unique_ptr<Orb> m_orb;
  AutoDereference<DiscoveryFramework> m_framework;
  TestService* m_service = nullptr;
  PortableServer::ServantBase_var m_serviceVar;
  std::mutex m_servantsMutex;
  std::deque<PortableServer::ServantBase_var> m_servants;
};

} // namespace tqtest
