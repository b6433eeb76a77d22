// What one collection may hold, and what its reading may write to the log.

#include "discovery/DefaultExplorerDataParser.h"
#include "discovery/Researcher.h"
#include "tests/support/FakeDiscoveries.h"
#include "tests/support/LogCapture.h"
#include "tests/support/NoAttributes.h"
#include "tests/support/TempDir.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

using namespace tqtest;

namespace
{

constexpr char PARSING[] = "AuthSubIterator::parseDiscovery";
constexpr char NAMED[] =
    "Gave up reading the discovery of authority about subject, line 1, column ";

std::string repeated(std::string const& piece, std::size_t times)
{
  std::string text;
  text.reserve(piece.size() * times);
  for (std::size_t i = 0; i < times; ++i)
    text += piece;
  return text;
}

struct ResearcherBoundsTest : testing::Test
{
  TempDir root;
  LogCapture log{1};

  void SetUp() override { setenv("TESSARINE_ROOT", root.path().c_str(), 1); }

  // The collection is refused for the reason, with what was read before.
  void expectRefused(std::string const& content, std::string const& reason, std::size_t items)
  {
    auto const read = itemsOf("<DiscoveredItems>" + content + "</DiscoveredItems>");
    EXPECT_FALSE(read.parsed) << reason;
    EXPECT_EQ(items, read.items.size()) << reason;
    std::string const text = log.text().substr(0, 2000);
    auto const line = text.find("1 " + std::string(PARSING) + ": " + NAMED);
    EXPECT_NE(std::string::npos, line) << text;
    EXPECT_NE(std::string::npos, text.find(": more than " + reason + " (", line)) << text;
    EXPECT_TRUE(log.has(1, PARSING, "Failed to parse the discovery stream")) << text;
    EXPECT_TRUE(
        log.has(1, "AuthSubIterator::getNextCollectionItemIterator", "Failed to parse discovery"))
        << text;
  }

  void expectRead(std::string const& content)
  {
    auto const read = itemsOf("<DiscoveredItems>" + content + "</DiscoveredItems>");
    EXPECT_TRUE(read.parsed) << log.text().substr(0, 2000);
  }

  // Elements that all have names of their own.
  static std::string names(std::size_t count)
  {
    std::string text;
    for (std::size_t i = 0; i < count; ++i)
      text += "<e" + std::to_string(i) + "/>";
    return text;
  }

  static std::string attributes(std::size_t count)
  {
    std::string text = "<e";
    for (std::size_t i = 0; i < count; ++i)
      text += " a" + std::to_string(i) + "=\"\"";
    return text + "/>";
  }

  static std::string item(std::string const& data)
  {
    return "<DISCOVERED Name=\"a\"><ExplorerData Name=\"e\">" + data +
           "</ExplorerData></DISCOVERED>";
  }
};

TEST_F(ResearcherBoundsTest, aCollectionHasAMillionItemsAtMost)
{
  constexpr std::size_t MOST_ITEMS = AuthSubIterator::MOST_ITEMS;
  expectRefused(repeated("<DISCOVERED/>", MOST_ITEMS + 1), "1000000 items", MOST_ITEMS);
}

TEST_F(ResearcherBoundsTest, anItemHasAMillionAttributesAndElementsAtMost)
{
  expectRefused("<DISCOVERED/>" + item(repeated("<x/>", AuthSubIterator::MOST_FACTS)),
                "1000000 attributes and elements in one item", 1);
}

TEST_F(ResearcherBoundsTest, theBoundOfAnItemIsEachItemsOwn)
{
  std::string const some = item(repeated("<x a=\"\"/>", 100000));
  expectRead(repeated(some, 6));
}

TEST_F(ResearcherBoundsTest, elementsHaveTenThousandNamesAtMost)
{
  expectRead(item(names(9990)));
  expectRefused("<DISCOVERED/>" + item(names(10000)), "10000 different names of elements", 1);
  expectRead(item("<x/>"));
}

TEST_F(ResearcherBoundsTest, namesOutsideTheItemsCountAsWell)
{
  expectRefused("<DISCOVERED/>" + names(10000), "10000 different names of elements", 1);
}

TEST_F(ResearcherBoundsTest, anElementHasTenThousandAttributesAtMost)
{
  expectRead(item(attributes(10000)));
  expectRefused("<DISCOVERED/>" + item(attributes(10001)), "10000 attributes of one element", 1);
}

TEST_F(ResearcherBoundsTest, theParserTakes64MebibytesAtMost)
{
  std::string const reason = "67108864 bytes for names, attributes and comments";
  expectRefused("<DISCOVERED/><!--" + std::string(40 << 20, 'c') + "-->", reason, 1);
  expectRead(item("<!--" + std::string(1 << 20, 'c') + "-->"));
}

TEST_F(ResearcherBoundsTest, oneElementCannotTakeMemoryWithoutEnd)
{
  expectRefused("<DISCOVERED/>" + item(attributes(2000000)),
                "67108864 bytes for names, attributes and comments", 1);
}

TEST_F(ResearcherBoundsTest, everyPartOfAnItemCounts)
{
  DocumentTally tally;
  XmlObjParseContext const document(u"DiscoveredItems", tally);
  NoAttributes none;
  std::size_t before = 0;
  auto const grewBy = [&] { return tally.built - std::exchange(before, tally.built); };

  StatusMsg* status = nullptr;
  std::unique_ptr<XmlObjParseContext> context(
      xmlCreateObject(u"StatusMsg", none, &document, status));
  context->appendText(u"four", 4);
  status->xmlEndElement(context.get(), u"StatusMsg");
  EXPECT_EQ(sizeof(StatusMsg) + 4, grewBy());
  AutoDereference<StatusMsg> const ownStatus(status);

  TquPolicy* policy = nullptr;
  context.reset(xmlCreateObject(u"TQUPolicy", none, &document, policy));
  AutoDereference<TquPolicy> const ownPolicy(policy);
  EXPECT_EQ(sizeof(TquPolicy), grewBy());
  policy->xmlStartElement(context.get(), u"Attribute", none);
  policy->xmlCharacters(context.get(), u"four", 4);
  policy->xmlEndElement(context.get(), u"Attribute");
  EXPECT_EQ(2 * sizeof(OzfString) + 4, grewBy());

  FilterItem* filter = nullptr;
  context.reset(xmlCreateObject(u"QueryDescription", none, &document, filter));
  AutoDereference<FilterItem> const ownFilter(filter);
  EXPECT_GE(grewBy(), sizeof(OzfQuery));
  filter->xmlStartElement(context.get(), u"Attribute", none);
  EXPECT_GE(grewBy(), sizeof(OzfQuery::Attribute));

  AutoDereference<DefaultExplorerDataParser> const parser(new DefaultExplorerDataParser);
  context.reset(parser->getParseContext("e", u"ExplorerData", &document));
  std::u16string const text(100000, u'x');
  for (int i = 0; i < 3; ++i)
  {
    context->appendText(text.data(), text.size());
    parser->xmlStartElement(context.get(), u"x", none);
  }
  AutoDereference<ExplorerData> const data(parser->getExplorerData(context.get()));
  EXPECT_GE(grewBy(), sizeof(DefaultExplorerData) + 3 * text.size());
}

// ---- items that nobody wants ----

TEST_F(ResearcherBoundsTest, itemsThatAreDroppedAreReadAllTheSame)
{
  auto* const discoveries = new FakeIterator;
  for (std::string const& text :
       {std::string("<DiscoveredItems><DISCOVERED Name=\"a\"/></DiscoveredItems>"),
        std::string("<DiscoveredItems/>"), std::string("<DiscoveredItems><DISCOVERED/>"),
        std::string("<FilterData><QueryDescription/></FilterData>")})
    discoveries->add(new FakeDiscovery("subject" + std::to_string(text.size()), text));
  AutoDereference<AuthSubIterator> const iterator(new AuthSubIterator(discoveries));
  iterator->dropItems();
  std::string seen;
  for (;;)
  {
    AutoDereference<CollectionItemIterator> const items(
        iterator->getNextCollectionItemIterator(nullptr));
    if (!items)
      break;
    EXPECT_EQ(nullptr, items->getNextCollectionItem());
    seen += items->getSubject().getName().str() + (items->isParsed() ? "+" : "-");
  }
  EXPECT_EQ("subject57+subject18+subject30-subject44+", seen);
  EXPECT_EQ(1, log.count(1, PARSING, "Failed to parse the discovery stream")) << log.text();
}

// ---- lines about unknown elements ----

TEST_F(ResearcherBoundsTest, unknownElementsHaveAFewLinesAndANumber)
{
  expectRead(repeated("<U/>", 1000) + "<DISCOVERED>" + repeated("<V/>", 500) + "</DISCOVERED>");
  EXPECT_EQ(4, log.count(1, "AuthSubIterator::xmlStartElement", "Ignoring Unknown Tag"));
  EXPECT_EQ(4, log.count(1, "AuthSubIterator::xmlEndElement", "Ignoring Unknown Tag"));
  EXPECT_EQ(1, log.count(1, PARSING,
                         "Ignored 2492 more unknown tags of the discovery of authority about "
                         "subject"))
      << log.text();
  EXPECT_EQ(9U, log.lines().size()) << log.text();
}

TEST_F(ResearcherBoundsTest, unknownElementsInItemsHaveAFewLinesToo)
{
  expectRead(repeated("<DISCOVERED><V/></DISCOVERED>", 100));
  EXPECT_EQ(8, log.count(1, "DiscoveredItem::xmlEndElement", "Ignoring Unknown Tag"));
  EXPECT_EQ(9U, log.lines().size()) << log.text();
}

TEST_F(ResearcherBoundsTest, aFewUnknownElementsHaveTheirLinesAndNoNumber)
{
  expectRead(repeated("<U/>", 4));
  EXPECT_EQ(8U, log.lines().size()) << log.text();
  expectRead(repeated("<U/>", 4));
  EXPECT_EQ(16U, log.lines().size()) << "each document for itself\n" << log.text();
}

TEST_F(ResearcherBoundsTest, theNumberIsToldOfADocumentThatBreaksOffAsWell)
{
  auto const read = itemsOf("<DiscoveredItems>" + repeated("<U/>", 10) + "<U>");
  EXPECT_FALSE(read.parsed);
  EXPECT_EQ(1, log.count(1, PARSING,
                         "Ignored 13 more unknown tags of the discovery of authority about "
                         "subject"))
      << log.text();
}

} // namespace
