#include "discovery/DiscoveryService_i.h"

#include "discovery/DiscoveryLog.h"

#include "discovery/DiscoveryService_iIterators.h"
#include "discovery/DiscoveryService_iWriter.h"
#include "discovery/ExplorerRemotePull.h"
#include "tests/support/FakeExplorers.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Service.h"
#include "tests/unit/discovery/SystemCalls.h"

#include <gtest/gtest.h>

#include <algorithm>

using namespace tqtest;
using namespace Quillon::Tessarine::Ozf;
namespace Remote = Quillon::Tessarine::Ozf::DiscoverySvc::Remote;

namespace
{

struct DiscoveryService_iTest : ServiceTest
{
  svc::DiscoveryStatus get(char const* subject, char const* authority,
                           svc::AuthorityType type = svc::AT_TQUCLIENT)
  {
    return service->getCollectionData(Service::record(subject, authority, type), "",
                                      iterator.out());
  }

  // Whether what was caught is told as an error, and then its text as another.
  bool toldOf(std::string const& operation, std::string const& line, std::string const& exception)
  {
    auto const is = [&](LogLine const& logged, std::string const& beginning)
    {
      return logged.level == 1 && logged.operation == operation &&
             logged.text.starts_with(beginning + " (");
    };
    auto const lines = log.lines();
    auto const first = std::find_if(lines.begin(), lines.end(),
                                    [&](LogLine const& logged) { return is(logged, line); });
    return first != lines.end() && first + 1 != lines.end() && is(first[1], exception);
  }

  // Writes a discovery through the service; the status of close.
  svc::DiscoveryStatus put(Remote::Discovery const& record, std::vector<std::string> const& chunks)
  {
    Remote::RemoteWriter_var writer;
    svc::DiscoveryResult const opened = service->putCollection(record, writer.out());
    if (opened.discStatus != svc::DS_SUCCESS)
    {
      EXPECT_TRUE(CORBA::is_nil(writer));
      return opened.discStatus;
    }
    for (std::string const& chunk : chunks)
      EXPECT_TRUE(writer->put(bytes(chunk)));
    return writer->close().discStatus;
  }

  static Remote::CollectionDataSeq bytes(std::string const& text)
  {
    Remote::CollectionDataSeq data;
    data.length(static_cast<CORBA::ULong>(text.size()));
    std::copy(text.begin(), text.end(), data.get_buffer());
    return data;
  }

  Remote::CollectionDataIterator_var iterator;
};

// ---- queryDiscoveries ----

TEST_F(DiscoveryService_iTest, AQueryWithoutAnIteratorRaisesCommFailure)
{
  // A repository without a framework of its own role: the master is gone from
  // the configuration and this process is not it.
  struct NotMaster : Remote::DiscoveryService_i
  {
  };
  host.stop();
  // Without the framework's database the repository has nothing to give.
  AutoDereference<svc::DiscoveryFramework> clientOnly(
      new svc::DiscoveryFramework("", svc::DST_NONE, &host.orb(), false));
  svc::getDiscoveryRepository().setDiscoveryFramework(clientOnly.get());
  host.configure("");
  PortableServer::ServantBase_var const owner(new NotMaster);
  auto& servant = dynamic_cast<NotMaster&>(*owner.in());
  EXPECT_THROW(servant.queryDiscoveries(svc::DQ_DISCOVERY_DATA, svc::AT_ANYANDALL, "*", "*"),
               CORBA::COMM_FAILURE);
  EXPECT_TRUE(
      log.has(1, "DiscoveryService_i::queryDiscoveries", "Failed to create discovery iterator"))
      << log.text();
}

TEST_F(DiscoveryService_iTest, AnIteratorThatCannotBeActivatedIsLoggedAndRaised)
{
  host.orb().getEvictor().shutdown();
  EXPECT_THROW(service->queryDiscoveries(svc::DQ_DISCOVERY_DATA, svc::AT_ANYANDALL, "*", "*"),
               CORBA::SystemException);
  EXPECT_TRUE(toldOf("DiscoveryService_i::queryDiscoveries",
                     "Caught CORBA exception creating object reference to discovery iterator",
                     "TRANSIENT"))
      << log.text();
}

TEST_F(DiscoveryService_iTest, OverlongPatternsAreRefused)
{
  std::string const tooLong(svc::MAX_WIRE_NAME + 1, 'x');
  EXPECT_THROW(
      service->queryDiscoveries(svc::DQ_DISCOVERY_DATA, svc::AT_ANYANDALL, tooLong.c_str(), "*"),
      CORBA::COMM_FAILURE);
}

TEST_F(DiscoveryService_iTest, AnIteratorIsGoneAfter300IdleSeconds)
{
  auto now = std::make_shared<std::chrono::steady_clock::time_point>();
  host.orb().getEvictor().setClock([now] { return *now; });
  Remote::DiscoveryIterator_var const discoveries =
      service->queryDiscoveries(svc::DQ_DISCOVERY_DATA, svc::AT_ANYANDALL, "*", "*");
  *now += std::chrono::seconds(299);
  host.orb().getEvictor().evictIdle();
  EXPECT_EQ(8, discoveries->pageSize()) << "the call counts as use";
  *now += std::chrono::seconds(299);
  host.orb().getEvictor().evictIdle();
  EXPECT_EQ(1u, host.orb().getEvictor().size());
  *now += std::chrono::seconds(2);
  host.orb().getEvictor().evictIdle();
  EXPECT_THROW(discoveries->pageSize(), CORBA::OBJECT_NOT_EXIST);
}

// ---- getCollectionData ----

TEST_F(DiscoveryService_iTest, AWildcardNamesNoSingleDiscovery)
{
  ASSERT_EQ(svc::DS_SUCCESS, Service::store("s", "a"));
  EXPECT_EQ(svc::DS_LOGIC_ERROR, get("*", "a"));
  EXPECT_EQ(svc::DS_LOGIC_ERROR, get("s", "a*"));
  EXPECT_TRUE(CORBA::is_nil(iterator));
  EXPECT_EQ(std::string::npos, log.text().find("Fount")) << "the store is not asked";
}

TEST_F(DiscoveryService_iTest, AnEmptyOrOverlongNameNamesNoSingleDiscovery)
{
  ASSERT_EQ(svc::DS_SUCCESS, Service::store("s", "a"));
  EXPECT_EQ(svc::DS_LOGIC_ERROR, get("", "a"));
  EXPECT_EQ(svc::DS_LOGIC_ERROR, get("s", ""));
  EXPECT_EQ(svc::DS_LOGIC_ERROR, get(std::string(svc::MAX_WIRE_NAME + 1, 'x').c_str(), "a"));
}

// Neither is a file looked at nor an explorer asked.
TEST_F(DiscoveryService_iTest, ANameThatIsRefusedTouchesNoStore)
{
  ASSERT_EQ(svc::DS_SUCCESS, Service::store("s", "a"));
  CallList asked;
  AutoDereference<FakePull> const explorer(new FakePull("pull", &asked));
  svc::getDiscoveryRepository().registerExplorer(new svc::Subject("p"), explorer.get(), 1,
                                                 new svc::Authority("a", svc::AT_TQUCLIENT), true);
  auto* const servant = new Remote::DiscoveryService_i;
  PortableServer::ServantBase_var const owner(servant);
  SystemCalls const calls(host.database());
  std::string const longName(svc::MAX_WIRE_NAME + 1, 'x');
  for (std::string const& subject : {std::string("*"), std::string(), std::string("s*"), longName})
  {
    EXPECT_EQ(svc::DS_LOGIC_ERROR, servant->getCollectionData(Service::record(subject.c_str(), "a"),
                                                              "", iterator.out()));
    Remote::RemoteWriter_var writer;
    if (subject.empty() || subject == longName)
    {
      EXPECT_EQ(
          svc::DS_OPEN_FAILED,
          servant->putCollection(Service::record(subject.c_str(), "a"), writer.out()).discStatus);
    }
  }
  EXPECT_EQ(std::vector<std::string>(), calls.seen());
  EXPECT_TRUE(asked.names().empty());
  EXPECT_EQ(svc::DS_SUCCESS,
            servant->getCollectionData(Service::record("s", "a"), "", iterator.out()));
  EXPECT_FALSE(calls.seen().empty());
  host.stop(); // tells the explorer, which writes to the list
}

TEST_F(DiscoveryService_iTest, NoDiscoveryIsNoneFound)
{
  EXPECT_EQ(svc::DS_NONE_FOUND, get("s", "a"));
  EXPECT_TRUE(CORBA::is_nil(iterator));
  EXPECT_TRUE(log.has(1, "DiscoveryService_i::getCollectionData",
                      "Fount no discoveries for subject s & authority a"))
      << log.text();
}

TEST_F(DiscoveryService_iTest, TwoMatchingDiscoveriesAreTooMany)
{
  ASSERT_EQ(svc::DS_SUCCESS, Service::store("s", "a", svc::AT_TQUCLIENT));
  ASSERT_EQ(svc::DS_SUCCESS, Service::store("s", "a", svc::AT_EXTSRC));
  EXPECT_EQ(svc::DS_LOGIC_ERROR, get("s", "a", svc::AT_ANYANDALL));
  EXPECT_TRUE(log.has(1, "DiscoveryService_i::getCollectionData",
                      "Fount too many matching discoveries for subject s & authority a"))
      << log.text();
  EXPECT_EQ(svc::DS_SUCCESS, get("s", "a", svc::AT_EXTSRC));
}

TEST_F(DiscoveryService_iTest, APayloadThatCannotBeOpenedIsOpenFailed)
{
  ASSERT_EQ(svc::DS_SUCCESS, Service::store("s", "a"));
  std::filesystem::remove(host.database() + "/2 a s.dat");
  EXPECT_EQ(svc::DS_OPEN_FAILED, get("s", "a"));
  EXPECT_TRUE(CORBA::is_nil(iterator));
  EXPECT_TRUE(log.has(1, "CollectionDataIterator_i::open", "Failed to open collection"));
  EXPECT_TRUE(log.has(1, "DiscoveryService_i::getCollectionData",
                      "Error encountered trying to open collection iterator"))
      << log.text();
}

TEST_F(DiscoveryService_iTest, AnIteratorThatCannotBeActivatedIsAComError)
{
  ASSERT_EQ(svc::DS_SUCCESS, Service::store("s", "a"));
  host.orb().getEvictor().shutdown();
  EXPECT_EQ(svc::DS_COM_ERROR, get("s", "a"));
  EXPECT_TRUE(CORBA::is_nil(iterator));
  EXPECT_TRUE(toldOf("DiscoveryService_i::getCollectionData",
                     "Caught CORBA exception creating object reference to collection data iterator",
                     "TRANSIENT"))
      << log.text();
}

TEST_F(DiscoveryService_iTest, APullExplorerIsGivenTheFilterOfTheRequest)
{
  AutoDereference<FakePull> explorer(new FakePull("p", nullptr, "<pulled/>"));
  svc::getDiscoveryRepository().registerExplorer(new svc::Subject("s"), explorer.get(), 1,
                                                 new svc::Authority("a", svc::AT_TQUCLIENT), true);
  ASSERT_EQ(svc::DS_SUCCESS,
            service->getCollectionData(Service::record("s", "a"), "<filter/>", iterator.out()));
  EXPECT_EQ("<filter/>", explorer->lastFilter);
}

TEST_F(DiscoveryService_iTest, OfSeveralPullHostsOnlyTheLastHasExactlyOneRecord)
{
  for (char const* const subject : {"host2", "host3", "host1"})
  {
    AutoDereference<FakePull> const explorer(new FakePull(subject, nullptr, "<pulled/>"));
    svc::getDiscoveryRepository().registerExplorer(new svc::Subject(subject), explorer.get(), 1,
                                                   new svc::Authority("a", svc::AT_TQUCLIENT),
                                                   true);
  }
  for (char const* const subject : {"host1", "host2"})
  {
    EXPECT_EQ(svc::DS_LOGIC_ERROR, get(subject, "a"));
    EXPECT_TRUE(CORBA::is_nil(iterator));
    EXPECT_EQ(1, log.count(1, "DiscoveryService_i::getCollectionData",
                           std::string("Fount too many matching discoveries for subject ") +
                               subject + " & authority a"))
        << log.text();
  }
  EXPECT_EQ(svc::DS_SUCCESS, get("host3", "a")) << log.text();
  iterator->pageSize(100);
  Remote::CollectionDataSeq_var const page = iterator->getNextPage();
  EXPECT_EQ("<pulled/>",
            std::string(reinterpret_cast<char const*>(page->get_buffer()), page->length()));
}

// ---- putCollection and the writer ----

TEST_F(DiscoveryService_iTest, ADiscoveryBecomesVisibleOnlyAtClose)
{
  Remote::RemoteWriter_var writer;
  ASSERT_EQ(svc::DS_SUCCESS,
            service->putCollection(Service::record("s", "a"), writer.out()).discStatus);
  EXPECT_TRUE(writer->put(bytes("<one>")));
  EXPECT_TRUE(writer->put(bytes("two</one>")));
  EXPECT_FALSE(std::filesystem::exists(host.database() + "/2 a s.xml"));
  svc::DiscoveryResult const result = writer->close();
  EXPECT_EQ(svc::DS_SUCCESS, result.discStatus);
  EXPECT_EQ("<one>two</one>", readText(host.database() + "/2 a s.dat"));
  EXPECT_THROW(writer->put(bytes("x")), CORBA::OBJECT_NOT_EXIST);
}

TEST_F(DiscoveryService_iTest, AWriterThatIsNeverClosedLeavesNothingAfterTheStop)
{
  Remote::RemoteWriter_var writer;
  ASSERT_EQ(svc::DS_SUCCESS,
            service->putCollection(Service::record("s", "a"), writer.out()).discStatus);
  EXPECT_TRUE(writer->put(bytes("<half")));
  EXPECT_TRUE(std::filesystem::exists(host.database() + "/0.updating"));
  host.stop();
  EXPECT_FALSE(std::filesystem::exists(host.database() + "/0.updating"));
  EXPECT_FALSE(std::filesystem::exists(host.database() + "/2 a s.xml"));
}

TEST_F(DiscoveryService_iTest, AHigherStoredPriorityIsToldAtOnce)
{
  ASSERT_EQ(svc::DS_SUCCESS, put(Service::record("s", "a", svc::AT_TQUCLIENT, 6), {"<x/>"}));
  EXPECT_EQ(svc::DS_DATA_EXISTS, put(Service::record("s", "a", svc::AT_TQUCLIENT, 5), {"<y/>"}));
  EXPECT_EQ(svc::DS_SUCCESS, put(Service::record("s", "a", svc::AT_TQUCLIENT, 6), {"<z/>"}));
  EXPECT_EQ("<z/>", readText(host.database() + "/2 a s.dat"));
}

TEST_F(DiscoveryService_iTest, ADatabaseThatCannotBeWrittenIsOpenFailed)
{
  std::filesystem::remove_all(host.database());
  EXPECT_EQ(svc::DS_OPEN_FAILED, put(Service::record("s", "a"), {}));
}

TEST_F(DiscoveryService_iTest, EmptyAndOverlongNamesAreNotStored)
{
  std::string const tooLong(svc::MAX_WIRE_NAME + 1, 'x');
  EXPECT_EQ(svc::DS_OPEN_FAILED, put(Service::record("", "a"), {}));
  EXPECT_EQ(svc::DS_OPEN_FAILED, put(Service::record("s", ""), {}));
  EXPECT_EQ(svc::DS_OPEN_FAILED, put(Service::record(tooLong.c_str(), "a"), {}));
}

TEST_F(DiscoveryService_iTest, NamesTooLongToBeListedAreNeitherStoredNorRegistered)
{
  std::string const tooLong(svc::MAX_KEPT_NAME + 1, 'x');
  EXPECT_EQ(svc::DS_OPEN_FAILED, put(Service::record(tooLong.c_str(), "a"), {}));
  EXPECT_EQ(svc::DS_OPEN_FAILED, put(Service::record("s", tooLong.c_str()), {}));
  service->registerExplorer("h", "f", tooLong.c_str(), "a", svc::AT_TQUCLIENT, 7);
  service->registerExplorer("h", "f", "s", tooLong.c_str(), svc::AT_TQUCLIENT, 7);
  service->registerExplorer(tooLong.c_str(), "f", "s", "a", svc::AT_TQUCLIENT, 7);
  service->registerExplorer("h", tooLong.c_str(), "s", "a", svc::AT_TQUCLIENT, 7);
  EXPECT_TRUE(svc::getDiscoveryRepository().getPullExplorers()->empty());
}

TEST_F(DiscoveryService_iTest, ARecordWhoseSourceHasAnOverlongNameIsNotStored)
{
  std::string const tooLong(svc::MAX_WIRE_NAME + 1, 'x');
  for (int which = 0; which < 2; ++which)
  {
    Remote::Discovery record = Service::record("s", "a");
    (which == 0 ? record.sourceHost : record.sourceServiceName) = tooLong.c_str();
    EXPECT_EQ(svc::DS_OPEN_FAILED, put(record, {}));
  }
  EXPECT_EQ(
      2, log.count(1, "DiscoveryService_i::putCollection",
                   "Refused a discovery of this service: the name of its source host or service is "
                   "too long"))
      << log.text();
}

TEST_F(DiscoveryService_iTest, NamesOfEveryKindCanBeWrittenAndReadBack)
{
  for (std::string const& name :
       {std::string("../../etc/passwd"), std::string("a b"), std::string("%41"),
        std::string("\"quoted\" & <marked>"), std::string("\xd0\xb6\xe2\x82\xac"),
        std::string("broken\xff\xc3"), std::string("line\nbreak"), std::string(1000, 'n'),
        std::string(".hidden"), std::string(".."), std::string("a\xef\xbf\xbe"),
        std::string("a\xef\xbf\xbf"), std::string("\xef\xb7\x90"), std::string("a\xef\xbf\xbd")})
  {
    EXPECT_EQ(svc::DS_SUCCESS, put(Service::record(name.c_str(), name.c_str()), {"<x/>"}));
    EXPECT_EQ(svc::DS_SUCCESS, get(name.c_str(), name.c_str())) << name;
    // And under the names that readers are told.
    Remote::DiscoveryIterator_var const found = service->queryDiscoveries(
        svc::DQ_DISCOVERY_DATA, svc::AT_ANYANDALL, name.c_str(), name.c_str());
    Remote::DiscoverySeq_var page = found->getNextPage();
    ASSERT_EQ(1u, page->length()) << name;
    EXPECT_EQ(svc::DS_SUCCESS, get(page[0].subject, page[0].authority)) << page[0].subject.in();
  }
  for (auto const& entry : std::filesystem::directory_iterator(host.root().path()))
    EXPECT_TRUE(entry.path().filename() == "etc" || entry.path().filename() == "db")
        << entry.path();
}

TEST_F(DiscoveryService_iTest, AWriterThatCannotBeActivatedIsAComError)
{
  CORBA::Object_var const root = host.orb().resolveInitialReference("RootPOA");
  PortableServer::POA_var const poa = PortableServer::POA::_narrow(root);
  PortableServer::ServantBase_var const owner(new Remote::DiscoveryService_i);
  auto& servant = dynamic_cast<Remote::DiscoveryService_i&>(*owner.in());
  poa->destroy(false, true);
  Remote::RemoteWriter_var writer;
  EXPECT_EQ(svc::DS_COM_ERROR,
            servant.putCollection(Service::record("s", "a"), writer.out()).discStatus);
  EXPECT_TRUE(CORBA::is_nil(writer));
  EXPECT_TRUE(toldOf("DiscoveryService_i::putCollection",
                     "Caught CORBA exception creating object reference to remote writer",
                     "OBJECT_NOT_EXIST"))
      << log.text();
  EXPECT_FALSE(std::filesystem::exists(host.database() + "/0.updating"))
      << "the writer is destroyed, and its temporary file with it";
}

TEST_F(DiscoveryService_iTest, AWriterThatWasNotOpenedFailsItsAssertion)
{
  PortableServer::ServantBase_var const owner(
      new Remote::RemoteWriter_i(Service::record("s", "a")));
  auto& writer = dynamic_cast<Remote::RemoteWriter_i&>(*owner.in());
  EXPECT_THROW(writer.put(bytes("x")), AssertionFailure);
  EXPECT_THROW(writer.close(), AssertionFailure);
  EXPECT_TRUE(log.has(1, "RemoteWriter_i::put", "Assertion failed: NULL != m_discovery"));
  EXPECT_TRUE(log.has(1, "RemoteWriter_i::close", "Assertion failed: NULL != m_discovery"));
}

TEST_F(DiscoveryService_iTest, ACallThatSlipsInBehindTheCloseMeetsNoObject)
{
  PortableServer::ServantBase_var const owner(
      new Remote::RemoteWriter_i(Service::record("s", "a")));
  auto& writer = dynamic_cast<Remote::RemoteWriter_i&>(*owner.in());
  ASSERT_EQ(svc::DS_SUCCESS, writer.open().discStatus);
  ASSERT_EQ(svc::DS_SUCCESS, writer.close().discStatus);
  EXPECT_THROW(writer.put(bytes("x")), CORBA::OBJECT_NOT_EXIST);
  EXPECT_THROW(writer.close(), CORBA::OBJECT_NOT_EXIST);
  EXPECT_EQ(std::string::npos, log.text().find("Assertion failed")) << log.text();
}

TEST_F(DiscoveryService_iTest, AWriterOfWhichAPutFailedStoresNothing)
{
  struct Failing : svc::CollectionData
  {
    int open(svc::OpenMode, char const*) override { return 1; }
    long readCollection(unsigned long, void*) const override { return 0; }
    long writeCollection(unsigned long, void const*) const override { return 0; }
  };
  struct Unwritable : svc::Discovery
  {
    Unwritable() : Discovery(new Failing, svc::DQ_DISCOVERY_DATA) {}
    svc::DiscoveryStatus open(svc::OpenMode, char const*) override { return svc::DS_SUCCESS; }
    svc::DiscoveryStatus persist() override
    {
      ADD_FAILURE() << "persisted half a payload";
      return svc::DS_SUCCESS;
    }
  };
  struct Repository : svc::DiscoveryRepository
  {
    void newDiscovery(AutoDereference<svc::Discovery>& discovery, svc::DiscoveryQuery,
                      svc::Subject const&, svc::Authority const&,
                      svc::CollectionAttributes const&) const override
    {
      discovery.reset(new Unwritable);
    }
  };
  struct Writer : Remote::RemoteWriter_i
  {
    explicit Writer(Repository& repository)
        : RemoteWriter_i(Service::record("s", "a")), m_repository(repository)
    {
    }
    svc::DiscoveryRepository& getDiscoveryRepository() const override { return m_repository; }
    Repository& m_repository;
  };
  Repository repository;
  repository.setDiscoveryFramework(&host.framework());
  PortableServer::ServantBase_var const owner(new Writer(repository));
  auto& writer = dynamic_cast<Writer&>(*owner.in());
  ASSERT_EQ(svc::DS_SUCCESS, writer.open().discStatus);
  EXPECT_FALSE(writer.put(bytes("x")));
  EXPECT_EQ(svc::DS_OPEN_FAILED, writer.close().discStatus);
}

// ---- the other operations ----

TEST_F(DiscoveryService_iTest, ARegistrationFromTheNetworkStandsInThePullSet)
{
  service->registerExplorer("far", "FarService", "s", "a", svc::AT_TQUCLIENT, 7);
  auto const entries = svc::getDiscoveryRepository().getPullExplorers();
  ASSERT_EQ(1u, entries->size());
  svc::ExplorerWrapper const& entry = **entries->begin();
  auto const* const explorer = dynamic_cast<svc::RemoteExplorerPull*>(entry.getExplorer());
  ASSERT_NE(nullptr, explorer);
  EXPECT_EQ("far", explorer->getHost().exportNarrow());
  EXPECT_EQ("FarService", explorer->getServiceName().str());
  EXPECT_EQ(svc::AT_TQUCLIENT, explorer->getAuthorityType());
  EXPECT_EQ(7u, entry.getPriority());
  EXPECT_EQ(svc::AT_TQUCLIENT, entry.getAuthority()->getType());
  EXPECT_EQ(1, explorer->referenceCount()) << "only the registry holds it";
  EXPECT_TRUE(log.has(1, "DiscoveryService_i::registerExplorer",
                      "Registered explorer: far FarService s a 7"))
      << log.text();
  EXPECT_TRUE(std::filesystem::exists(host.database() + "/4 a s.xml")) << "cached";
}

TEST_F(DiscoveryService_iTest, ANegativePriorityIsSignExtended)
{
  service->registerExplorer("far", "FarService", "s", "a", svc::AT_TQUCLIENT, -1);
  auto const entries = svc::getDiscoveryRepository().getPullExplorers();
  ASSERT_EQ(1u, entries->size());
  EXPECT_EQ(0xffffffffu, (*entries->begin())->getPriority());
}

TEST_F(DiscoveryService_iTest, ARegistrationWithAnEmptyOrOverlongNameIsRefused)
{
  std::string const tooLong(svc::MAX_WIRE_NAME + 1, 'x');
  service->registerExplorer("", "f", "s", "a", svc::AT_TQUCLIENT, 7);
  service->registerExplorer("h", "", "s", "a", svc::AT_TQUCLIENT, 7);
  service->registerExplorer("h", "f", "", "a", svc::AT_TQUCLIENT, 7);
  service->registerExplorer("h", "f", "s", "", svc::AT_TQUCLIENT, 7);
  service->registerExplorer("h", "f", tooLong.c_str(), "a", svc::AT_TQUCLIENT, 7);
  EXPECT_EQ(
      5,
      log.count(1, "DiscoveryService_i::registerExplorer",
                "Refused the registration of an explorer by this service: a name is empty or too "
                "long"))
      << log.text();
  EXPECT_TRUE(svc::getDiscoveryRepository().getPullExplorers()->empty());
}

TEST_F(DiscoveryService_iTest, TerminateWithoutAServiceObjectAnswersFalse)
{
  EXPECT_FALSE(service->terminate());
  EXPECT_TRUE(
      log.has(1, "DiscoveryService_i::terminate", "Unable to retrieve the OrbService instance"))
      << log.text();
}

TEST_F(DiscoveryService_iTest, RestartLocalPushTimerMovesThePushTimer)
{
  service->restartLocalPushTimer();
  EXPECT_NE(std::string::npos, log.text().find("triggering push in ")) << log.text();
}

TEST_F(DiscoveryService_iTest, RestartAllPushTimersStartsTheRefreshOnTheMaster)
{
  ASSERT_EQ(svc::DS_SUCCESS, Service::store("here", "volume"));
  EXPECT_TRUE(service->restartAllPushTimers());
  EXPECT_TRUE(
      eventually([this] { return log.text().find("triggering push in ") != std::string::npos; }))
      << log.text();
  EXPECT_TRUE(log.has(4, "RefreshDiscoveryTask::ozfsvc", "Restarting push timers on client: here"))
      << log.text();
}

TEST(DiscoveryService_iRoleTest, RestartAllPushTimersElsewhereAnswersFalse)
{
  Service host("4a", "elsewhere");
  LogCapture log;
  host.start();
  Remote::DiscoveryService_var const service = host.connect();
  ASSERT_FALSE(CORBA::is_nil(service));
  EXPECT_FALSE(service->restartAllPushTimers());
  EXPECT_EQ(std::string::npos, log.text().find("triggering push")) << "nothing is restarted";
}

TEST(DiscoveryService_iRoleTest, ElsewhereCollectionDataComesFromThePullExplorers)
{
  Service host("4a", "elsewhere");
  LogCapture log;
  host.start();
  Remote::DiscoveryService_var const service = host.connect();
  ASSERT_FALSE(CORBA::is_nil(service));
  Remote::CollectionDataIterator_var iterator;
  EXPECT_EQ(svc::DS_NONE_FOUND,
            service->getCollectionData(Service::record("s", "a"), "", iterator.out()));
  EXPECT_TRUE(log.has(1, "DiscoveryService_i::getCollectionData",
                      "Null iterator returned. Fount no discoveries for subject s & authority a"))
      << log.text();

  AutoDereference<FakePull> explorer(new FakePull("p", nullptr, "<pulled/>"));
  svc::getDiscoveryRepository().registerExplorer(new svc::Subject("s"), explorer.get(), 1,
                                                 new svc::Authority("a", svc::AT_TQUCLIENT), false);
  EXPECT_EQ(svc::DS_SUCCESS,
            service->getCollectionData(Service::record("s", "a"), "", iterator.out()));
}

// ---- the evictor helpers ----

TEST_F(DiscoveryService_iTest, AddingAnUnknownServantIsLoggedAndRaised)
{
  CORBA::OctetSeq unknown;
  unknown.length(3);
  EXPECT_THROW(Remote::add2Evictor(unknown, host.orb().getEvictingPOA(), host.orb(), 300),
               CORBA::Exception);
  EXPECT_NE(std::string::npos,
            log.text().find("1 add2Evictor: Caught CORBA exception while add2Evictor, "
                            "OBJECT_NOT_EXIST"))
      << log.text();
}

TEST_F(DiscoveryService_iTest, RemovingWithoutAnIdIsLogged)
{
  CORBA::OctetSeq_var unset;
  Remote::removeFromEvictor(unset, host.orb());
  EXPECT_TRUE(log.has(1, "removeFromEvictor", "Nothing to be evicted, Object ID is not valid"))
      << log.text();
}

} // namespace
