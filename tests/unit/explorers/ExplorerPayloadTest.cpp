#include "discovery/ExplorerPayload.h"

#include "explorers/HostExplorer.h"
#include "tests/support/LogCapture.h"
#include "tests/unit/explorers/ExplorerStore.h"
#include "tests/unit/explorers/ExplorerTesting.h"

using namespace ExplorerTesting;
using namespace Explorers;

namespace
{

struct Thing
{
  std::optional<std::string> value;
};

Fact<Thing> const FACTS[] = {
    {"Value", OzfQuery::Type::TEXT, "", [](Thing const& thing) { return thing.value; }},
    {"Fixed", OzfQuery::Type::TEXT, "",
     [](Thing const&) { return std::optional<std::string>("yes"); }},
};

std::string documentOf(std::string const& name, std::optional<std::string> const& value)
{
  AutoDereference<HostExplorer> const explorer(new HostExplorer);
  DiscoveredItems items(*explorer);
  items.addItem(name, Facts<Thing>(FACTS), Thing{value});
  return items.finish();
}

} // namespace

TEST(ExplorerPayload, anItemIsWrittenAsReadersExpectIt)
{
  EXPECT_EQ("<?xml version=\"1.0\" encoding=\"UTF-8\"?><DiscoveredItems>"
            "<DISCOVERED Name=\"/home\"><ExplorerData Name=\"host\">"
            "<Value>1</Value><Fixed>yes</Fixed></ExplorerData></DISCOVERED></DiscoveredItems>\n",
            documentOf("/home", "1"));
}

TEST(ExplorerPayload, aFactThatIsNotKnownHasNoElement)
{
  EXPECT_EQ(std::string::npos, documentOf("a", std::nullopt).find("Value"));
}

TEST(ExplorerPayload, aDocumentWithoutItemsIsADocument)
{
  AutoDereference<HostExplorer> const explorer(new HostExplorer);
  Document const document(DiscoveredItems(*explorer).finish());
  EXPECT_TRUE(document.wellFormed);
  EXPECT_EQ("DiscoveredItems", document.root);
  EXPECT_TRUE(document.items.empty());
}

TEST(ExplorerPayload, markupInNamesAndValuesComesBackAsText)
{
  std::string const nasty = "a<b>&\"c' ]]> </Value>\n\t";
  Document const document(documentOf(nasty, nasty));
  ASSERT_TRUE(document.wellFormed) << document.lastError();
  ASSERT_EQ(1U, document.items.size());
  EXPECT_EQ(nasty, document.items[0].name);
  EXPECT_EQ(nasty, document.items[0].facts.at("Value"));
}

TEST(ExplorerPayload, bytesThatAreNoTextAreReplaced)
{
  Document const document(documentOf("caf\xe9", std::string("\x01\xff", 2)));
  ASSERT_TRUE(document.wellFormed) << document.lastError();
  EXPECT_EQ("caf\xef\xbf\xbd", document.items.at(0).name);
  EXPECT_EQ("\xef\xbf\xbd\xef\xbf\xbd", document.items.at(0).facts.at("Value"));
}

TEST(ExplorerPayload, storingPersistsTheDocument)
{
  Store records;
  EXPECT_EQ(DS_SUCCESS, store(records, DQ_DISCOVERY_DATA, Subject("h"),
                              Authority("a", AT_TQUCLIENT), attributes(), "text", "test"));
  EXPECT_EQ("text", records.only(AT_TQUCLIENT).payload);
}

TEST(ExplorerPayload, aRefusedRecordIsReportedAndLogged)
{
  Store records;
  Subject const subject("h");
  Authority const authority("a", AT_TQUCLIENT);
  ASSERT_EQ(DS_SUCCESS, store(records, DQ_DISCOVERY_DATA, subject, authority, attributes(11),
                              "better", "test"));
  LogCapture const log;
  EXPECT_EQ(DS_DATA_EXISTS, store(records, DQ_DISCOVERY_DATA, subject, authority, attributes(10),
                                  "worse", "Test::explore"));
  EXPECT_TRUE(log.has(1, "Test::explore",
                      "Cannot open the discovery of a about h: data of higher priority exists"))
      << log.text();
  EXPECT_EQ("better", records.only(AT_TQUCLIENT).payload);
}

TEST(ExplorerPayload, filterDataHasItsOwnAuthorityType)
{
  Authority const filter = filterAuthority(Authority("volume", AT_TQUCLIENT));
  EXPECT_EQ(AT_EXTSRC, filter.getType());
  EXPECT_EQ("volume", filter.getName().str());
}
