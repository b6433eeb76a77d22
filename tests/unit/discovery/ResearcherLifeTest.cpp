// The researcher's coming and going, and what it reads from another service.

#include "discovery/DiscoveryFramework.h"
#include "discovery/DiscoveryRepository.h"
#include "discovery/FilterParameters.h"
#include "discovery/Researcher.h"
#include "ozf/log/Assertion.h"
#include "tests/support/RemoteService.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <dirent.h>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

using namespace tqtest;

namespace
{

constexpr char CONSTRUCTION[] = "DiscoveryResearcher::DiscoveryResearcher";

std::string newOrbLine(int number)
{
  return "DiscoveryResearcher::DiscoveryResearcher() .... new Orb(researcher_" +
         std::to_string(number) + ")";
}

long entriesOf(char const* directory)
{
  long count = 0;
  DIR* const dir = opendir(directory);
  while (dir != nullptr && readdir(dir) != nullptr)
    ++count;
  if (dir != nullptr)
    closedir(dir);
  return count;
}

// The ORB's threads end a little after it has gone.
bool fallsTo(char const* directory, long most)
{
  for (int i = 0; i < 500; ++i)
  {
    if (entriesOf(directory) <= most)
      return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

struct ResearcherLifeTest : testing::Test
{
  TempDir root;
  LogCapture log;

  void SetUp() override
  {
    setenv("TESSARINE_ROOT", root.path().c_str(), 1);
    std::filesystem::create_directories(root / "etc");
    writeText(root / "etc/tq.conf", "ORB_BIND = 127.0.0.1\nCLIENT_NAME = here\n");
    reloadConfiguration();
  }
};

TEST_F(ResearcherLifeTest, TheOrbHandedInIsKeptForTheProcess)
{
  EXPECT_EQ(nullptr, getOrb());
  Orb orb(0, "", "mine", 0, 0);
  setOrb(&orb);
  EXPECT_EQ(&orb, getOrb());
  setOrb(nullptr);
  EXPECT_EQ(nullptr, getOrb());
}

TEST_F(ResearcherLifeTest, EachResearcherWithoutAnOrbNumbersItsOwn)
{
  initDiscoveryResearch();
  EXPECT_EQ("researcher_1", getDiscoveryRepository().getOrb()->name());
  EXPECT_NE(nullptr, getDiscoveryRepository().getOrb()->getReactor()) << "it runs";
  EXPECT_TRUE(getDiscoveryRepository().getOrb()->isEvictorEnabled());
  deinitDiscoveryResearch();
  initDiscoveryResearch();
  EXPECT_EQ("researcher_2", getDiscoveryRepository().getOrb()->name());
  deinitDiscoveryResearch();
  EXPECT_EQ(1, log.count(6, CONSTRUCTION, newOrbLine(1))) << log.text();
  EXPECT_EQ(1, log.count(6, CONSTRUCTION, newOrbLine(2))) << log.text();
}

TEST_F(ResearcherLifeTest, TheFrameworkOnlyUsesTheClassesAndIsCalledDiscovery)
{
  initDiscoveryResearch();
  EXPECT_EQ(static_cast<unsigned>(DST_NONE), getDiscoveryRepository().getDSType());
  EXPECT_EQ("discovery", getDiscoveryRepository().getDSName());
  deinitDiscoveryResearch();
}

TEST_F(ResearcherLifeTest, ASecondInitChangesNothing)
{
  initDiscoveryResearch();
  Orb* const orb = getDiscoveryRepository().getOrb();
  initDiscoveryResearch();
  EXPECT_EQ(orb, getDiscoveryRepository().getOrb());
  EXPECT_EQ(0, log.count(6, CONSTRUCTION, newOrbLine(2)));
  deinitDiscoveryResearch();
}

TEST_F(ResearcherLifeTest, DeinitWithoutInitDoesNothing)
{
  deinitDiscoveryResearch();
  deinitDiscoveryResearch();
  EXPECT_EQ("", log.text());
}

TEST_F(ResearcherLifeTest, AfterDeinitTheRepositoryNamesNoFramework)
{
  initDiscoveryResearch();
  deinitDiscoveryResearch();
  EXPECT_THROW(getDiscoveryRepository().getOrb(), AssertionFailure);
  deinitDiscoveryResearch();
}

TEST_F(ResearcherLifeTest, TheFrameworkGoesBeforeTheOrb)
{
  initDiscoveryResearch();
  deinitDiscoveryResearch();
  auto const lines = log.lines();
  auto const shutdown = std::find_if(lines.begin(), lines.end(),
                                     [](auto const& line)
                                     { return line.operation == "DiscoveryRepository::shutdown"; });
  EXPECT_NE(shutdown, lines.end()) << log.text();
  for (auto const& line : lines)
    EXPECT_NE(1, line.level) << line.operation << ": " << line.text;
}

TEST_F(ResearcherLifeTest, ComesAndGoesAgainAndAgainWithAnOrbOfItsOwn)
{
  long descriptors = 0;
  long threads = 0;
  for (int i = 0; i < 20; ++i)
  {
    initDiscoveryResearch();
    deinitDiscoveryResearch();
    if (i == 4)
    {
      descriptors = entriesOf("/proc/self/fd");
      threads = entriesOf("/proc/self/task");
    }
  }
  EXPECT_TRUE(fallsTo("/proc/self/fd", descriptors)) << descriptors;
  EXPECT_TRUE(fallsTo("/proc/self/task", threads)) << threads;
  EXPECT_EQ(1, log.count(6, CONSTRUCTION, newOrbLine(20)));
  for (auto const& line : log.lines())
    EXPECT_NE(1, line.level) << line.operation << ": " << line.text;
}

TEST_F(ResearcherLifeTest, ComesAndGoesAgainAndAgainOnAnOrbOfSomebodyElse)
{
  Orb orb(0, "", "outside", 1, 16);
  ASSERT_TRUE(orb.init()) << log.text();
  ASSERT_EQ(0, orb.run(0));
  setOrb(&orb);
  for (int i = 0; i < 20; ++i)
  {
    initDiscoveryResearch();
    ASSERT_EQ(&orb, getDiscoveryRepository().getOrb());
    ASSERT_FALSE(getDiscoveryRepository().isShuttingDown());
    deinitDiscoveryResearch();
  }
  EXPECT_NE(nullptr, orb.getReactor()) << "the ORB is its owner's";
  CORBA::Object_var const rootPOA = orb.resolveInitialReference("RootPOA");
  EXPECT_FALSE(CORBA::is_nil(rootPOA));
  EXPECT_EQ(0, log.count(6, CONSTRUCTION, newOrbLine(1)));
  setOrb(nullptr);
  orb.shutdown();
}

TEST_F(ResearcherLifeTest, AnOrbThatCannotStartIsReportedAndFailsTheQuery)
{
  writeText(root / "etc/tq.conf", "ORB_BIND = 192.0.2.1\nCLIENT_NAME = here\nSERVER = there\n"
                                  "HOST_ADDRESS.there = 127.0.0.1\n");
  ASSERT_TRUE(reloadConfiguration());
  initDiscoveryResearch();
  EXPECT_TRUE(log.has(1, CONSTRUCTION, "Failed to start the ORB researcher_1")) << log.text();
  EXPECT_FALSE(getAuthSubIterator(DQ_DISCOVERY_DATA, "", "", AT_ANYANDALL));
  EXPECT_TRUE(log.has(1, "getAuthSubIterator", "Failed to get a handle to discoveries"))
      << log.text();
  deinitDiscoveryResearch();
}

// What the system refuses is an exception of the ORB's thread library, or of the
// standard one, and no CORBA exception.
TEST_F(ResearcherLifeTest, WithoutThreadsToBeHadNothingIsThrown)
{
  auto const tryIt = []
  {
    constexpr uid_t NOBODY = 65534; // the limit does not hold for root
    rlimit const none{0, 0};
    if ((geteuid() == 0 && setuid(NOBODY) != 0) || setrlimit(RLIMIT_NPROC, &none) != 0)
      return 2;
    try
    {
      initDiscoveryResearch();
    }
    catch (...)
    {
      return 1;
    }
    return getAuthSubIterator(DQ_DISCOVERY_DATA, "", "", AT_ANYANDALL) ? 3 : 0;
  };
  EXPECT_EXIT(_exit(tryIt()), testing::ExitedWithCode(0), "Failed to start the ORB researcher_1");
}

// ---- reading from the master ----

class RemoteResearchTest : public RemoteServiceTest
{
protected:
  void SetUp() override
  {
    RemoteServiceTest::SetUp();
    setOrb(m_orb.get());
    initDiscoveryResearch();
  }
  void TearDown() override
  {
    deinitDiscoveryResearch();
    setOrb(nullptr);
    RemoteServiceTest::TearDown();
  }
};

TEST_F(RemoteResearchTest, EmptyNamesAreAskedForAsAll)
{
  serveRecords({});
  auto const discoveries = getAuthSubIterator(DQ_FILTER_DATA, "", "", AT_EXTSRC);
  ASSERT_TRUE(discoveries) << m_log.text();
  ASSERT_EQ(1U, m_service->queries.size());
  EXPECT_EQ("*", m_service->queries[0].subject);
  EXPECT_EQ("*", m_service->queries[0].authority);
  EXPECT_EQ(DQ_FILTER_DATA, m_service->queries[0].query);
  EXPECT_EQ(AT_EXTSRC, m_service->queries[0].type);
}

TEST_F(RemoteResearchTest, NamesAreAskedForAsGiven)
{
  serveRecords({});
  auto const discoveries = getAuthSubIterator(DQ_DISCOVERY_DATA, "web*", "host", AT_ANYANDALL);
  ASSERT_EQ(1U, m_service->queries.size());
  EXPECT_EQ("web*", m_service->queries[0].subject);
  EXPECT_EQ("host", m_service->queries[0].authority);
}

TEST_F(RemoteResearchTest, ItemsAndFilterTravelBetweenHosts)
{
  serveRecords({{makeRecord("s1", "a1")}});
  serveData({"<DiscoveredItems><DISCO", "VERED Name=\"a\"/></Discov", "eredItems>"});
  auto const discoveries = getAuthSubIterator(DQ_DISCOVERY_DATA, "*", "*", AT_ANYANDALL);
  ASSERT_TRUE(discoveries);
  FilterParameters const filter(nullptr, "a = 1");
  AutoDereference<CollectionItemIterator> const items(
      discoveries->getNextCollectionItemIterator(&filter));
  ASSERT_TRUE(items) << m_log.text();
  EXPECT_TRUE(items->isParsed()) << m_log.text();
  EXPECT_EQ("s1", items->getSubject().getName());
  AutoDereference<CollectionItem> const item(items->getNextCollectionItem());
  ASSERT_TRUE(item);
  EXPECT_EQ("a", dynamic_cast<DiscoveredItem&>(*item).getName());
  ASSERT_EQ(1U, m_service->dataRequests.size());
  EXPECT_NE(std::string::npos,
            m_service->dataRequests[0].second.find("<QueryString>a = 1</QueryString>"));
}

TEST_F(RemoteResearchTest, AMasterThatDoesNotAnswerGivesNothing)
{
  m_service->before = [] { throw CORBA::INTERNAL(0, CORBA::COMPLETED_NO); };
  EXPECT_FALSE(getAuthSubIterator(DQ_DISCOVERY_DATA, "*", "*", AT_ANYANDALL));
  EXPECT_TRUE(m_log.has(1, "getAuthSubIterator", "Failed to get a handle to discoveries"))
      << m_log.text();
}

} // namespace
