// Facts for programs, of a service of another process: typed as their explorer says,
// and who is at fault where something is missing.

#include "discovery/Discoveries.h"
#include "ozf/config/Configuration.h"
#include "tests/support/CommandTest.h"
#include "tests/support/FreePort.h"
#include "tests/support/LogCapture.h"
#include "tests/support/NoHost.h"

#include <gmock/gmock.h>

#include <thread>

namespace
{

using namespace tqtest;
using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using Fault = DiscoveryProblem::Fault;

class DiscoveriesTest : public CommandTest
{
protected:
  void SetUp() override
  {
    CommandTest::SetUp();
    setenv("TESSARINE_ROOT", m_service.root().c_str(), 1);
    reloadConfiguration();
  }

  // Lines of a configuration that names this service no more, or besides.
  void configure(std::string const& text)
  {
    writeText(m_service / "etc/tq.conf", text);
    reloadConfiguration();
  }

  void storeItems(std::string const& subject, std::string const& items)
  {
    store(subject, "disks", "<DiscoveredItems>" + items + "</DiscoveredItems>", {"--unchecked"});
  }

  void describeDisks()
  {
    store("web1", "disks",
          "<FilterData><QueryDescription><Attribute Name=\"Size\" Type=\"size\"/>"
          "<Attribute Name=\"Use\" Type=\"number\" Unit=\"%\"/>"
          "<Attribute Name=\"Age\" Type=\"duration\"/><Attribute Name=\"Made\" Type=\"time\"/>"
          "<Attribute Name=\"Hot\" Type=\"boolean\"/><Attribute Name=\"Serial\" Type=\"text\"/>"
          "</QueryDescription></FilterData>",
          {"--filter-data", "--type", "external"});
  }

  static std::vector<std::string> namesOf(FoundItems items)
  {
    std::vector<std::string> names;
    for (FoundItem const& item : items)
      names.push_back(item.name());
    return names;
  }

  // The one problem of asking for everything.
  static DiscoveryProblem problemOf(Discoveries& discoveries, std::string const& query = {})
  {
    namesOf(discoveries.items("*", "*", query));
    EXPECT_THAT(discoveries.problems(), SizeIs(1));
    return discoveries.problems().empty() ? DiscoveryProblem{} : discoveries.problems().front();
  }

  LogCapture m_log; // keeps lines out of the output
};

constexpr char SDA[] = "<DISCOVERED Name=\"sda\"><ExplorerData Name=\"disks\"><Size>2048</Size>"
                       "<Use>41%</Use><Age>90.5</Age><Made>2026-01-01T10:00:00Z</Made>"
                       "<Hot>true</Hot><Serial>0123</Serial><Place><Rack>7</Rack></Place>"
                       "</ExplorerData></DISCOVERED>";

TEST_F(DiscoveriesTest, valuesAreOfTheKindThatTheExplorerDescribes)
{
  describeDisks();
  store("web1", "disks", itemsDocument(SDA), {"--type", "client"});
  Discoveries discoveries;
  std::vector<FoundItem> found;
  for (auto const& item : discoveries.items("disks"))
    found.push_back(item);
  EXPECT_THAT(discoveries.problems(), IsEmpty());
  ASSERT_THAT(found, SizeIs(1));
  FoundItem const& item = found[0];
  EXPECT_EQ(item.subject(), "web1");
  EXPECT_EQ(item.authority(), "disks");
  EXPECT_EQ(item.name(), "sda");
  EXPECT_LT(OzfObjTime::now().seconds() - item.discovered().seconds(), 60);
  EXPECT_GT(item.expires().seconds(), item.discovered().seconds());
  EXPECT_EQ(item["size"].bytes(), 2048U);
  EXPECT_EQ(item["Size"].number(), 2048);
  EXPECT_DOUBLE_EQ(item["Use"].number().value_or(0), 0.41);
  EXPECT_EQ(item["Age"].seconds(), 90.5);
  EXPECT_EQ(item["Made"].time(), OzfObjTime(1767261600));
  EXPECT_EQ(item["Hot"].flag(), true);
  EXPECT_EQ(item["Serial"].text(), "0123");
  EXPECT_EQ(item["Place.Rack"].number(), 7); // not described, so as it reads
  EXPECT_THAT(item.facts(), SizeIs(7));

  // Another kind than the described one is no value, whatever it looks like.
  EXPECT_FALSE(item["Serial"].number());
  EXPECT_FALSE(item["Use"].bytes());
  EXPECT_FALSE(item["Hot"].number());
  EXPECT_FALSE(item["Nothing"]);
  EXPECT_EQ(item["Nothing"].text(), "");
  ASSERT_NE(item["Use"].description(), nullptr);
  EXPECT_EQ(item["Use"].description()->unit.str(), "%");
}

TEST_F(DiscoveriesTest, givesTheItemsThatAnswer)
{
  for (std::string const subject : {"web1", "web2", "db1"})
    storeItems(subject, "<DISCOVERED Name=\"" + subject +
                            "-a\"><ExplorerData Name=\"disks\"><Size>1024</Size></ExplorerData>"
                            "</DISCOVERED><DISCOVERED Name=\"" +
                            subject +
                            "-b\"><ExplorerData Name=\"disks\"><Size>4096</Size></ExplorerData>"
                            "</DISCOVERED>");
  Discoveries discoveries;
  EXPECT_THAT(namesOf(discoveries.items("disks", "web*", "Size > 2K")),
              testing::UnorderedElementsAre("web1-b", "web2-b"));
  EXPECT_THAT(namesOf(discoveries.items("disks")), SizeIs(6));
  EXPECT_THAT(namesOf(discoveries.items("Disks")), IsEmpty());
  EXPECT_THAT(discoveries.problems(), IsEmpty());
}

TEST_F(DiscoveriesTest, aDescriptionThatOneHostLacksIsLookedForAtTheNext)
{
  for (std::string const subject : {"web0", "web1"})
    store(subject, "disks", itemsDocument(SDA), {"--type", "client"});
  describeDisks(); // of web1
  Discoveries discoveries;
  auto const isDescribed = [&discoveries](std::string const& subject)
  {
    bool described = false;
    for (FoundItem const& item : discoveries.items("disks", subject))
      described = item["Use"].description() != nullptr;
    return described;
  };
  EXPECT_FALSE(isDescribed("web0"));
  EXPECT_TRUE(isDescribed("web1"));
  EXPECT_TRUE(isDescribed("web0")) << "and holds from then on";
}

TEST_F(DiscoveriesTest, aSessionIsMovedAndItemsOutliveIt)
{
  storeItems("web1", SDA);
  std::optional<FoundItem> kept;
  {
    Discoveries first;
    Discoveries second(std::move(first));
    Discoveries third;
    first = std::move(second);
    FoundItems items = first.items("disks");
    first = Discoveries();
    for (FoundItem const& item : items)
      kept = item;
  }
  ASSERT_TRUE(kept);
  EXPECT_EQ((*kept)["Size"].bytes(), 2048U);
  EXPECT_THAT(namesOf(Discoveries().items("disks")), ElementsAre("sda"));
}

TEST_F(DiscoveriesTest, pagesAreOfASensibleSizeUnlessTheConfigurationHasOthers)
{
  {
    Discoveries const discoveries;
    EXPECT_EQ(*getConfiguration()->find("COLLECTION_PAGE_SIZE"), "65536");
    EXPECT_EQ(*getConfiguration()->find("DISCOVERY_PAGE_SIZE"), "500");
  }
}

TEST_F(DiscoveriesTest, aPageSizeOfTheConfigurationStays)
{
  m_service.configure("COLLECTION_PAGE_SIZE = 4096\n");
  reloadConfiguration();
  Discoveries const discoveries;
  EXPECT_EQ(*getConfiguration()->find("COLLECTION_PAGE_SIZE"), "4096");
}

TEST_F(DiscoveriesTest, theConfigurationIsAtFaultWithoutAMasterToBeFound)
{
  configure("CLIENT_NAME = reader\n");
  Discoveries none;
  EXPECT_THAT(none.problems(), SizeIs(1)); // before anything is asked
  DiscoveryProblem const missing = problemOf(none);
  EXPECT_EQ(missing.fault, Fault::CONFIGURATION);
  EXPECT_EQ(missing.text, "there is no SERVER in " + m_service / "etc/tq.conf");

  configure("CLIENT_NAME = reader\nSERVER = " + std::string(NO_HOST) + "\n");
  Discoveries lost;
  DiscoveryProblem const unknown = problemOf(lost);
  EXPECT_EQ(unknown.fault, Fault::CONFIGURATION);
  EXPECT_THAT(unknown.text, HasSubstr("SERVER = " + std::string(NO_HOST)));
}

TEST_F(DiscoveriesTest, theConfigurationIsAtFaultWithoutACertificate)
{
  m_service.configure("TLS = only\nTLS_CERTIFICATE = /nowhere\nTLS_KEY = /nowhere\n"
                      "TLS_CA = /nowhere\n");
  reloadConfiguration();
  Discoveries discoveries;
  DiscoveryProblem const problem = problemOf(discoveries);
  EXPECT_EQ(problem.fault, Fault::CONFIGURATION);
  EXPECT_THAT(problem.text, HasSubstr("/nowhere"));
}

TEST_F(DiscoveriesTest, theMasterIsAtFaultWhenItIsAway)
{
  m_service.process().sendSignal(SIGKILL);
  ASSERT_TRUE(m_service.process().wait());
  Discoveries discoveries;
  DiscoveryProblem const problem = problemOf(discoveries);
  EXPECT_EQ(problem.fault, Fault::MASTER);
  EXPECT_THAT(problem.text, HasSubstr(LiveService::NAME));
  ASSERT_TRUE(m_service.start());
  EXPECT_THAT(namesOf(discoveries.items("*")), IsEmpty());
  EXPECT_THAT(discoveries.problems(), IsEmpty()) << "what was wrong before is no problem now";
}

// The list is known, and what is in it cannot be had any more.
TEST_F(DiscoveriesTest, theRestIsLeftWhenTheMasterGoesAwayInTheMiddle)
{
  for (int i = 0; i < 30; ++i)
    storeItems("web" + std::to_string(i), SDA);
  Discoveries discoveries;
  FoundItems items = discoveries.items("disks");
  auto item = items.begin();
  ASSERT_NE(item, items.end());
  m_service.process().sendSignal(SIGKILL);
  ASSERT_TRUE(m_service.process().wait());
  ++item;
  EXPECT_EQ(item, items.end());
  ASSERT_THAT(discoveries.problems(), SizeIs(21));
  for (DiscoveryProblem const& problem : discoveries.problems())
    EXPECT_EQ(problem.fault, Fault::MASTER) << problem.text;
  EXPECT_THAT(discoveries.problems().back().text, HasSubstr("gave up after 20"));
  ASSERT_TRUE(m_service.start());
}

TEST_F(DiscoveriesTest, thePayloadIsAtFaultAndWhatStandsBeforeTheMistakeIsThere)
{
  store("web1", "disks", "<DiscoveredItems>" + std::string(SDA) + "</Wrong>", {"--unchecked"});
  storeItems("web2", SDA);
  Discoveries discoveries;
  EXPECT_THAT(namesOf(discoveries.items("disks")), ElementsAre("sda", "sda"));
  ASSERT_THAT(discoveries.problems(), SizeIs(1));
  EXPECT_EQ(discoveries.problems()[0].fault, Fault::PAYLOAD);
  EXPECT_THAT(discoveries.problems()[0].text, HasSubstr("disks found about web1"));
}

// That master answers whatever is asked with all that it has, notes of explorers among it.
TEST_F(DiscoveriesTest, whatWasNotAskedForIsLeftOut)
{
  configure("SERVER = 127.0.0.1\nCLIENT_NAME = reader\nORB_BIND = 127.0.0.1\n"
            "ORB_PORT.DiscoveryService = " +
            std::to_string(freePort()) + "\n");
  Process master(TQ_BIN_DIR "/hostile_master", {m_service.root(), "6", "6", "0", "announced"});
  ASSERT_TRUE(eventually([&] { return master.output().find("serving") != std::string::npos; }))
      << master.errors();
  Discoveries discoveries;
  auto const subjectsAskedFor = [&](std::string const& authority, std::string const& subject)
  {
    std::vector<std::string> subjects;
    for (FoundItem const& item : discoveries.items(authority, subject))
      subjects.push_back(item.subject());
    return subjects;
  };
  EXPECT_THAT(subjectsAskedFor("*", "*"), ElementsAre("host0", "host2", "host4"));
  EXPECT_THAT(subjectsAskedFor("service", "host[24]"), IsEmpty()) << "[ is no wildcard";
  EXPECT_THAT(subjectsAskedFor("service", "host2"), ElementsAre("host2"));
  EXPECT_THAT(subjectsAskedFor("disks", "*"), IsEmpty());
}

TEST_F(DiscoveriesTest, theQueryIsAtFault)
{
  Discoveries discoveries;
  DiscoveryProblem const problem = problemOf(discoveries, "Size >");
  EXPECT_EQ(problem.fault, Fault::QUERY);
  EXPECT_THAT(problem.text, HasSubstr("column 7: expected a value"));
}

TEST_F(DiscoveriesTest, threadsHaveSessionsOfTheirOwn)
{
  storeItems("web1", SDA);
  std::vector<std::thread> threads;
  std::atomic<int> found{0};
  for (int i = 0; i < 4; ++i)
    threads.emplace_back(
        [&found]
        {
          for (int round = 0; round < 5; ++round)
          {
            Discoveries discoveries;
            found += static_cast<int>(namesOf(discoveries.items("disks")).size());
          }
        });
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(found, 20);
}

} // namespace
