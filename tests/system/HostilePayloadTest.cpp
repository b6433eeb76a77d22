// Collections and filters that somebody made to do harm, or broke: the reader
// gets an iterator that says so, the items before the mistake and log lines,
// and the next discovery as if nothing had been; the service goes on.

#include "discovery/DiscDB.h"
#include "discovery/DiscoveryFramework.h"
#include "discovery/FilterParameters.h"
#include "discovery/Researcher.h"
#include "tests/support/LiveService.h"
#include "tests/support/LogCapture.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <map>
#include <sstream>

namespace
{

using namespace tqtest;
using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;
using testing::HasSubstr;

constexpr char PARSE[] = "AuthSubIterator::parseDiscovery";
constexpr char NEXT[] = "AuthSubIterator::getNextCollectionItemIterator";
constexpr char NOT_READ[] = "Failed to read collection data";
constexpr char NOT_PARSED[] = "Failed to parse the discovery stream";

std::string items(std::string const& content)
{
  return "<DiscoveredItems>" + content + "</DiscoveredItems>";
}

std::string const GOOD = items("<DISCOVERED Name=\"good\"/>");

struct ReadCollection
{
  bool parsed = false;
  std::string names;
  std::string written;
};

void storePayload(std::string const& subject, std::string const& payload)
{
  AutoDereference<Discovery> const discovery(
      getDiscoveryDBDatabase()->newDiscovery(DQ_DISCOVERY_DATA));
  discovery->setAuthority(new Authority("test", AT_TQUCLIENT));
  discovery->setSubject(new Subject(subject));
  discovery->setAttributes(new CollectionAttributes(CT_POINT_IN_TIME, CS_CENTRALREPOSITORY,
                                                    OzfObjTime::now(), OzfObjTime(3600), 1));
  ASSERT_EQ(discovery->open(OM_UPDATE, ""), DS_SUCCESS);
  if (!payload.empty())
  {
    ASSERT_NE(discovery->getCollectionData()->writeCollection(payload.size(), payload.data()), 0);
  }
  ASSERT_EQ(discovery->persist(), DS_SUCCESS);
}

// Reads in this process: from the database as the master's service does, or
// from a service in another process.
class HostilePayloadTest : public testing::TestWithParam<char const*>
{
protected:
  bool remote() const { return std::string(GetParam()) == "remote"; }

  void SetUp() override
  {
    setenv("TESSARINE_ROOT", m_service.root().c_str(), 1);
    reloadConfiguration();
    getDiscoveryDBDatabase()->init("");
    storePayload("before", GOOD);
    storePayload("zafter", GOOD);
  }

  void TearDown() override
  {
    if (!remote())
      getDiscoveryRepository().setDiscoveryFramework(nullptr);
    else if (m_researching)
    {
      deinitDiscoveryResearch();
      EXPECT_EQ(m_service.stop(), 0) << m_service.log();
    }
  }

  void startReading()
  {
    if (remote())
    {
      ASSERT_TRUE(m_service.start()) << m_service.log();
      initDiscoveryResearch();
      m_researching = true;
      return;
    }
    m_framework.reset(new DiscoveryFramework("", DST_GENERIC, nullptr, false));
    getDiscoveryRepository().setDiscoveryFramework(m_framework.get());
  }

  // Reads everything there is; the good ones are checked here.
  ReadCollection readWithHostile(std::string const& payload,
                                 FilterParameters const* filter = nullptr)
  {
    storePayload("hostile", payload);
    startReading();
    std::map<std::string, ReadCollection> all;
    auto const discoveries = getAuthSubIterator(DQ_DISCOVERY_DATA, "", "", AT_ANYANDALL);
    EXPECT_TRUE(discoveries) << m_log.text();
    while (discoveries)
    {
      AutoDereference<CollectionItemIterator> const iterator(
          discoveries->getNextCollectionItemIterator(filter));
      if (!iterator)
        break;
      ReadCollection& read = all[iterator->getSubject().getName().str()];
      read.parsed = iterator->isParsed();
      for (;;)
      {
        AutoDereference<CollectionItem> const item(iterator->getNextCollectionItem());
        if (!item)
          break;
        if (auto const* const discovered = dynamic_cast<DiscoveredItem const*>(item.get()))
          read.names += discovered->getName() + ";";
        std::ostringstream text;
        item->writeXml(text, XmlStr::UTF_8);
        read.written += text.str();
      }
    }
    for (char const* good : {"before", "zafter"})
    {
      EXPECT_TRUE(all[good].parsed) << good << '\n' << m_log.text();
      EXPECT_EQ(all[good].names, "good;") << good;
    }
    EXPECT_EQ(all.count("hostile"), 1U);
    return all["hostile"];
  }

  void expectFailed(ReadCollection const& read, char const* names, char const* line = NOT_PARSED)
  {
    EXPECT_FALSE(read.parsed);
    EXPECT_EQ(read.names, names);
    EXPECT_EQ(m_log.count(1, PARSE, line), 1) << m_log.text();
    EXPECT_EQ(m_log.count(1, NEXT, "Failed to parse discovery"), 1) << m_log.text();
  }

  LiveService m_service;
  LogCapture m_log{1};
  AutoDereference<DiscoveryFramework> m_framework;
  bool m_researching = false;
};

INSTANTIATE_TEST_SUITE_P(From, HostilePayloadTest, testing::Values("local", "remote"),
                         [](auto const& instance) { return std::string(instance.param); });

TEST_P(HostilePayloadTest, AnEmptyPayloadIsNotParsed)
{
  // Another host's counts as one that cannot be opened.
  expectFailed(readWithHostile(""), "", remote() ? NOT_READ : NOT_PARSED);
}

TEST_P(HostilePayloadTest, WhatIsNotXmlIsNotParsed)
{
  expectFailed(readWithHostile("{\"items\": [1, 2, 3]}"), "");
}

TEST_P(HostilePayloadTest, BytesOfNoTextAreNotParsed)
{
  expectFailed(readWithHostile(std::string("\0\xff\xfe\x01\x80<a>\0", 8)), "");
}

TEST_P(HostilePayloadTest, ACutOffPayloadGivesTheItemsBeforeTheCut)
{
  std::string const whole =
      items("<DISCOVERED Name=\"a\"/><DISCOVERED Name=\"b\"><StatusMsg Code=\"1\">text</StatusMsg>"
            "</DISCOVERED>");
  expectFailed(readWithHostile(whole.substr(0, whole.find("text") + 2)), "a;");
}

TEST_P(HostilePayloadTest, AHundredThousandLevelsAreRefused)
{
  std::string payload = "<DiscoveredItems><DISCOVERED Name=\"a\"/><DISCOVERED>"
                        "<ExplorerData Name=\"deep\">";
  for (int i = 0; i < 100'000; ++i)
    payload += "<level>";
  for (int i = 0; i < 100'000; ++i)
    payload += "</level>";
  expectFailed(readWithHostile(payload + "</ExplorerData></DISCOVERED></DiscoveredItems>"), "a;");
}

TEST_P(HostilePayloadTest, AHundredThousandLevelsOfUnknownElementsAreRefused)
{
  std::string payload = "<DiscoveredItems><DISCOVERED Name=\"a\"/>";
  for (int i = 0; i < 100'000; ++i)
    payload += "<u>";
  expectFailed(readWithHostile(payload), "a;");
}

TEST_P(HostilePayloadTest, MegabyteAttributesAreTaken)
{
  // By default it would take a call for each eight bytes, which says no more.
  m_service.configure("COLLECTION_PAGE_SIZE = 65536\n");
  reloadConfiguration();
  std::string const value(3 << 20, 'v');
  ReadCollection const read = readWithHostile(
      items("<DISCOVERED Name=\"" + value + "\" Other=\"" + value + "\"><ExplorerData Name=\"" +
            value + "\"><f a=\"" + value + "\"/></ExplorerData></DISCOVERED>"));
  EXPECT_TRUE(read.parsed) << m_log.text();
  EXPECT_TRUE(read.names == value + ";");
  EXPECT_GT(read.written.size(), 3 * value.size());
}

TEST_P(HostilePayloadTest, ADocumentTypeIsRefusedBeforeItsEntitiesCount)
{
  expectFailed(readWithHostile("<!DOCTYPE DiscoveredItems [<!ENTITY a \"aaaaaaaaaa\">"
                               "<!ENTITY b \"&a;&a;&a;&a;&a;&a;&a;&a;\">"
                               "<!ENTITY c SYSTEM \"file:///etc/passwd\">]>" +
                               items("<DISCOVERED Name=\"&b;\">&c;</DISCOVERED>")),
               "");
}

TEST_P(HostilePayloadTest, UnknownElementsAtEveryPlaceStopNothing)
{
  std::string const unknown = "<Unknown A=\"1\">text<Inner/></Unknown>";
  ReadCollection const read = readWithHostile(
      items(unknown + "<DISCOVERED Name=\"a\">" + unknown + "<StatusMsg Code=\"7\">" + unknown +
            "</StatusMsg>" + unknown + "<TQUPolicy Name=\"p\">" + unknown + "</TQUPolicy>" +
            "<ExplorerData Name=\"e\">" + unknown + "</ExplorerData>" + unknown + "</DISCOVERED>" +
            unknown + "<DISCOVERED Name=\"b\"/>" + unknown));
  EXPECT_TRUE(read.parsed) << m_log.text();
  EXPECT_EQ(read.names, "a;b;");
  EXPECT_THAT(m_log.text(), HasSubstr("AuthSubIterator::xmlStartElement: Ignoring Unknown Tag"));
}

TEST_P(HostilePayloadTest, AnUnknownRootHoldsNoItems)
{
  ReadCollection const read =
      readWithHostile("<Unknown>" + items("<DISCOVERED Name=\"a\"/>") + "</Unknown>");
  EXPECT_TRUE(read.parsed) << m_log.text();
  EXPECT_EQ(read.names, "");
}

TEST_P(HostilePayloadTest, ExplorerDataWithoutANameIsThatOfANamelessExplorer)
{
  ReadCollection const read =
      readWithHostile(items("<DISCOVERED Name=\"a\"><ExplorerData><f>1</f></ExplorerData>"
                            "</DISCOVERED>"));
  EXPECT_TRUE(read.parsed) << m_log.text();
  EXPECT_EQ(read.written, "<Discovered Name=\"a\"><ExplorerData Name=\"\"><f>1</f></ExplorerData>"
                          "</Discovered>");
}

TEST_P(HostilePayloadTest, AHostileFilterChangesNothingOfWhatIsStored)
{
  std::string const query = "\x01</QueryString><!DOCTYPE x>&b; " + std::string(100'000, '(');
  FilterParameters const filter(nullptr, query.c_str());
  ReadCollection const read = readWithHostile(items("<DISCOVERED Name=\"a\"/>"), &filter);
  EXPECT_TRUE(read.parsed) << m_log.text();
  EXPECT_EQ(read.names, "a;");
}

// ---- the operator's view ----

TEST(HostilePayloadCommandTest, TheGoodOnesAreShownAndTheOthersNamed)
{
  LiveService service;
  setenv("TESSARINE_ROOT", service.root().c_str(), 1);
  getDiscoveryDBDatabase()->init("");
  storePayload("cut", "<DiscoveredItems><DISCOVERED Name=\"half\"/><DISC");
  storePayload("garbage", "no XML");
  storePayload("good", GOOD);
  storePayload("void", "");
  ASSERT_TRUE(service.start()) << service.log();

  Outcome const all = service.tqdiscoctl({"items"});
  EXPECT_EQ(all.exitCode, 4) << all.errors;
  EXPECT_THAT(all.output, testing::AllOf(HasSubstr("half"), HasSubstr("good")));
  for (char const* subject : {"cut", "garbage", "void"})
    EXPECT_THAT(all.errors, HasSubstr("subject \"" + std::string(subject) + "\""));
  EXPECT_THAT(all.errors, testing::Not(HasSubstr("subject \"good\"")));

  nlohmann::json const parsed =
      nlohmann::json::parse(service.tqdiscoctl({"items", "--json"}).output);
  std::map<std::string, bool> complete;
  for (auto const& each : parsed)
    complete[each["subject"]] = each["complete"];
  EXPECT_EQ(complete, (std::map<std::string, bool>{
                          {"cut", false}, {"garbage", false}, {"good", true}, {"void", false}}));
  EXPECT_EQ(service.tqdiscoctl({"show", "garbage", "test"}).exitCode, 1);
  EXPECT_EQ(service.tqdiscoctl({"show", "cut", "test"}).exitCode, 4);
  EXPECT_EQ(service.stop(), 0) << service.log();
}

// ---- filters on their way to an explorer ----

TEST(HostileFilterTest, WhateverIsSentAPullExplorerAnswersAndTheServiceGoesOn)
{
  LiveService service(LiveService::WITH_EXPLORERS);
  ASSERT_TRUE(service.start()) << service.log();
  setenv("TESSARINE_ROOT", service.root().c_str(), 1);
  reloadConfiguration();
  Orb orb(0, "", "reader", 1, 64);
  ASSERT_TRUE(orb.init());
  ASSERT_EQ(orb.run(0), 0);
  OzfHostname host;
  host.setHostname(LiveService::NAME);
  Remote::DiscoveryService_var const remote = connectToRemoteDS(host, &orb, "DiscoveryService");
  ASSERT_FALSE(CORBA::is_nil(remote.in()));
  Remote::Discovery record;
  record.queryType = DQ_UNDEFINED;
  record.subject = LiveService::NAME;
  record.authority = "volume";
  record.authType = AT_TQUCLIENT;
  record.attributes = {CT_CONFIGURATION, CS_LOCALONLY, 0, 0, 0};
  record.sourceHost = "";
  record.sourceServiceName = "";

  auto const parameters = [](std::string const& query)
  {
    std::ostringstream text;
    FilterParameters(nullptr, query.c_str()).writeXml(text, XmlStr::UTF_8);
    return text.str();
  };
  // The length of what the explorer wrote, -1 when it wrote nothing.
  auto const ask = [&](std::string const& filter) -> long
  {
    Remote::CollectionDataIterator_var pages;
    DiscoveryStatus const status = remote->getCollectionData(record, filter.c_str(), pages.out());
    if (status != DS_SUCCESS)
    {
      EXPECT_EQ(status, DS_OPEN_FAILED) << filter.substr(0, 80);
      return -1;
    }
    pages->pageSize(65536);
    long length = 0;
    for (;;)
    {
      Remote::CollectionDataSeq_var const page = pages->getNextPage();
      if (page->length() == 0)
        break;
      length += page->length();
    }
    pages->release();
    return length;
  };

  long const everything = ask("");
  ASSERT_GT(everything, 0);
  std::string deep;
  for (int i = 0; i < 100'000; ++i)
    deep += "<FilterParameters>";
  // What cannot be understood asks for nothing in particular.
  for (std::string const& filter :
       {std::string("no XML"), std::string("<FilterParameters>"), deep,
        std::string("<!DOCTYPE a [<!ENTITY b \"c\">]><FilterParameters/>"), parameters("size >"),
        parameters(std::string(100'000, '(')),
        parameters("size > " + std::string(100'000, '9') + "Z"), parameters("\xff\xfe"),
        parameters(std::string(1 << 20, 'a')),
        std::string("<FilterParameters><JobExecInfo>") + std::string(100'000, '"') +
            "</JobExecInfo></FilterParameters>",
        R"(<?xml version="1.1"?><FilterParameters><JobExecInfo>"$A)" + std::string(500, 'A') +
            "&#11;" + std::string(9000, 'B') + "\"</JobExecInfo></FilterParameters>"})
    EXPECT_EQ(ask(filter), everything) << filter.substr(0, 80);
  EXPECT_LT(ask(parameters("size < 0")), everything) << "one that can be understood is honoured";
  EXPECT_EQ(ask(""), everything);
  orb.shutdown();
  EXPECT_EQ(service.stop(), 0) << service.log();
}

} // namespace
