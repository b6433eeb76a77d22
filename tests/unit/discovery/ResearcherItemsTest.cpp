#include "discovery/ResearcherItems.h"

#include "discovery/DefaultExplorerDataParser.h"
#include "discovery/DiscoveryRepository.h"
#include "ozf/log/Assertion.h"
#include "ozf/orb/Corba.h"
#include "tests/support/FakeDiscoveries.h"
#include "tests/support/LogCapture.h"
#include "tests/support/NoAttributes.h"
#include "tests/support/TempDir.h"

#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <sstream>
#include <xercesc/sax/SAXException.hpp>

using namespace tqtest;

namespace
{

constexpr char UNKNOWN[] = "Ignoring Unknown Tag";
constexpr char START[] = "AuthSubIterator::xmlStartElement";
constexpr char END[] = "AuthSubIterator::xmlEndElement";
constexpr char ITEM_END[] = "DiscoveredItem::xmlEndElement";

std::string items(std::string const& content)
{
  return "<?xml version=\"1.0\"?><DiscoveredItems>" + content + "</DiscoveredItems>";
}

std::string itemNames(ReadItems const& read)
{
  std::string names;
  for (auto const& item : read.items)
  {
    auto const* const discovered = dynamic_cast<DiscoveredItem const*>(item.get());
    names += (discovered != nullptr ? discovered->getName() : "(filter)") + ";";
  }
  return names;
}

// A parser of a plug-in's own: counts the elements.
class CountedData : public virtual ExplorerData
{
public:
  int elements = 0;
  std::string text;
  std::ostream& writeXml(std::ostream& os, XmlStr::Encoding) const override
  {
    return os << "<Count>" << elements << "</Count>";
  }
};

class CountingContext : public XmlObjParseContext
{
public:
  using XmlObjParseContext::XmlObjParseContext;
  AutoDereference<CountedData> data{new CountedData};
};

class CountingParser : public virtual ExplorerDataParser
{
public:
  explicit CountingParser(std::string name) : m_name(std::move(name)) {}

  std::string lastName;
  bool givesContext = true;
  std::function<void(std::string const&)> enter = [](std::string const&) {}; // told each call

  int xmlStartElement(XmlObjParseContext* context, XMLCh const*, AttributeList&) override
  {
    enter("xmlStartElement");
    ++dynamic_cast<CountingContext&>(*context).data->elements;
    return 1;
  }
  int xmlCharacters(XmlObjParseContext* context, XMLCh const* chars, unsigned long length) override
  {
    enter("xmlCharacters");
    return ExplorerDataParser::xmlCharacters(context, chars, length);
  }
  int xmlEndElement(XmlObjParseContext* context, XMLCh const* name) override
  {
    enter("xmlEndElement");
    if (!context->isEndTag(name))
      return 1;
    dynamic_cast<CountingContext&>(*context).data->text = context->text().str();
    return 0;
  }
  std::ostream& writeXml(std::ostream& os, XmlStr::Encoding) const override { return os; }
  XmlObjParseContext* getParseContext(OzfString const& explorerName, XMLCh const* elementName,
                                      XmlObjParseContext const* parent) override
  {
    enter("getParseContext");
    lastName = explorerName.str();
    return givesContext ? new CountingContext(elementName, parent) : nullptr;
  }
  ExplorerData* getExplorerData(XmlObjParseContext* context) override
  {
    enter("getExplorerData");
    return AutoDereference<ExplorerData>(dynamic_cast<CountingContext&>(*context).data).release();
  }
  char const* getExplorerParserName() const override { return m_name.c_str(); }

private:
  std::string m_name;
};

// Reads without plug-ins: the product's root is empty.
struct ResearcherItemsTest : testing::Test
{
  TempDir root;
  LogCapture log;

  void SetUp() override { setenv("TESSARINE_ROOT", root.path().c_str(), 1); }

  static AutoDereference<CountingParser> registered(std::string const& name)
  {
    AutoDereference<CountingParser> parser(new CountingParser(name));
    getDiscoveryRepository().registerExplorerParser(name, parser.get());
    return parser;
  }
  static DiscoveredItem const& itemOf(ReadItems const& read, std::size_t index = 0)
  {
    return dynamic_cast<DiscoveredItem const&>(*read.items.at(index));
  }
  static AutoDereference<ExplorerData> dataOf(ReadItems const& read, std::size_t index = 0)
  {
    return AutoDereference<ExplorerData>(itemOf(read, index).getExplorerData());
  }
  static std::string capturedOf(ReadItems const& read, std::size_t index = 0)
  {
    auto const data = dataOf(read, index);
    std::ostringstream os;
    if (data)
      data->writeXml(os, XmlStr::UTF_8);
    return data ? os.str() : "(none)";
  }
};

// ---- the document ----

TEST_F(ResearcherItemsTest, EveryItemIsReadInOrder)
{
  auto const read = itemsOf(items("<DISCOVERED Name=\"a\"/><DISCOVERED Name=\"b &amp; c\">"
                                  "</DISCOVERED>\n<DISCOVERED/>"));
  EXPECT_TRUE(read.parsed);
  EXPECT_EQ("a;b & c;;", itemNames(read));
  EXPECT_FALSE(log.has(1, START, UNKNOWN)) << log.text();
  EXPECT_FALSE(log.has(1, END, UNKNOWN)) << log.text();
}

TEST_F(ResearcherItemsTest, ARootOfAnotherNameYieldsNoItems)
{
  auto const read = itemsOf("<Other><DISCOVERED Name=\"a\"/><DiscoveredItems>"
                            "<DISCOVERED Name=\"b\"/></DiscoveredItems><FilterData>"
                            "<QueryDescription/></FilterData></Other>");
  EXPECT_TRUE(read.parsed);
  EXPECT_EQ(0U, read.items.size());
  EXPECT_TRUE(log.has(1, START, UNKNOWN));
  EXPECT_TRUE(log.has(1, END, UNKNOWN));
}

TEST_F(ResearcherItemsTest, LetterCaseOfTheElementsCounts)
{
  EXPECT_EQ(0U, itemsOf("<discovereditems><DISCOVERED/></discovereditems>").items.size());
  EXPECT_EQ(0U, itemsOf(items("<discovered/><Discovered/>")).items.size());
}

TEST_F(ResearcherItemsTest, AnUnknownElementBesideItemsIsLoggedAndPassedOver)
{
  auto const read =
      itemsOf(items("<DISCOVERED Name=\"a\"/><New Name=\"x\">text</New><DISCOVERED Name=\"b\"/>"));
  EXPECT_TRUE(read.parsed);
  EXPECT_EQ("a;b;", itemNames(read));
  EXPECT_EQ(1, log.count(1, START, UNKNOWN)) << log.text();
  EXPECT_EQ(1, log.count(1, END, UNKNOWN)) << log.text();
}

TEST_F(ResearcherItemsTest, AnItemInsideAnUnknownElementIsReadSinceOnlyKnownElementsNest)
{
  auto const read = itemsOf(items("<New><New><DISCOVERED Name=\"a\"/></New></New>"));
  EXPECT_TRUE(read.parsed);
  EXPECT_EQ("a;", itemNames(read));
  EXPECT_EQ(2, log.count(1, START, UNKNOWN)) << log.text();
  EXPECT_EQ(2, log.count(1, END, UNKNOWN)) << log.text();
}

TEST_F(ResearcherItemsTest, ItemsInsideUnknownElementsAndBesideThemEndAtTheirOwnEnd)
{
  auto const read = itemsOf(items("<DISCOVERED Name=\"a\"/><New><DISCOVERED Name=\"b\">"
                                  "<ExplorerData Name=\"x\">1</ExplorerData></DISCOVERED>"
                                  "<DISCOVERED Name=\"c\"/></New><DISCOVERED Name=\"d\"/>"
                                  "<DISCOVERED><ExplorerData Name=\"x\">2</ExplorerData>"
                                  "</DISCOVERED><DISCOVERED Name=\"f\"/>"));
  EXPECT_TRUE(read.parsed);
  EXPECT_EQ("a;b;c;d;;f;", itemNames(read));
  EXPECT_EQ("1", capturedOf(read, 1));
  EXPECT_EQ("(none)", capturedOf(read, 3));
  EXPECT_EQ("2", capturedOf(read, 4));
  EXPECT_EQ("(none)", capturedOf(read, 5));
}

TEST_F(ResearcherItemsTest, ElementsNamedLikeTheirParentsAreNoEndOfThem)
{
  auto const read =
      itemsOf(items("<DiscoveredItems><DISCOVERED Name=\"a\"/></DiscoveredItems>"
                    "<DISCOVERED Name=\"b\"><DISCOVERED Name=\"inner\"/><DiscoveredItems/>"
                    "</DISCOVERED><DISCOVERED Name=\"c\"/>"));
  EXPECT_TRUE(read.parsed);
  EXPECT_EQ("a;b;c;", itemNames(read));
}

TEST_F(ResearcherItemsTest, EachFilterDescriptionGivesAFilterItem)
{
  auto const read = itemsOf("<FilterData><QueryDescription><Attribute Name=\"size\" Type=\"size\"/>"
                            "</QueryDescription>\n<QueryDescription/></FilterData>");
  EXPECT_TRUE(read.parsed);
  ASSERT_EQ(2U, read.items.size());
  auto const& filter = dynamic_cast<FilterItem const&>(*read.items[0]);
  ASSERT_NE(nullptr, filter.getQuery().findAttribute("size"));
  EXPECT_EQ(OzfQuery::Type::SIZE, filter.getQuery().findAttribute("size")->type);
  EXPECT_EQ("<QueryDescription><Attribute Name=\"size\" Type=\"size\"/></QueryDescription>",
            written(filter));
  EXPECT_EQ("<QueryDescription></QueryDescription>", written(*read.items[1]));
  EXPECT_FALSE(log.has(1, START, UNKNOWN)) << log.text();
}

TEST_F(ResearcherItemsTest, FilterDataHoldsNoItemsAndItemsNoFilterDescriptions)
{
  auto const read = itemsOf("<FilterData><DISCOVERED Name=\"a\"/><X/></FilterData>");
  EXPECT_TRUE(read.parsed);
  EXPECT_EQ(0U, read.items.size());
  EXPECT_EQ(2, log.count(1, START, UNKNOWN)) << log.text();
  EXPECT_EQ(2, log.count(1, END, UNKNOWN)) << log.text();
  EXPECT_EQ(0U, itemsOf(items("<QueryDescription/>")).items.size());
}

TEST_F(ResearcherItemsTest, ContextsOfAnotherKindFailTheAssertion)
{
  auto const iterator = iteratorOver("");
  auto const name = OzfString("DiscoveredItems").toUtf16();
  XmlObjParseContext other(name.c_str(), nullptr);
  NoAttributes none;
  EXPECT_THROW(iterator->xmlStartElement(&other, name.c_str(), none), AssertionFailure);
  EXPECT_THROW(iterator->xmlEndElement(&other, name.c_str()), AssertionFailure);
  EXPECT_THROW(iterator->xmlCharacters(&other, name.c_str(), 1), AssertionFailure);
  AutoDereference<DiscoveredItem> const item(new DiscoveredItem("n"));
  EXPECT_THROW(item->xmlStartElement(&other, name.c_str(), none), AssertionFailure);
  EXPECT_THROW(item->xmlEndElement(&other, name.c_str()), AssertionFailure);
  EXPECT_THROW(item->xmlCharacters(&other, name.c_str(), 1), AssertionFailure);
  for (char const* operation :
       {START, END, "AuthSubIterator::xmlCharacters", "DiscoveredItem::xmlStartElement", ITEM_END,
        "DiscoveredItem::xmlCharacters"})
    EXPECT_TRUE(log.has(1, operation, "Assertion failed: ctxt")) << operation << log.text();
}

TEST_F(ResearcherItemsTest, AnEndTagThatDoesNotMatchTheTopOfTheStackFailsTheAssertion)
{
  auto const iterator = iteratorOver("");
  auto const rootTag = OzfString("DiscoveredItems").toUtf16();
  auto const other = OzfString("Other").toUtf16();
  NoAttributes none;
  std::unique_ptr<XmlObjParseContext> const context(iterator->getObjParseContext(rootTag.c_str()));
  iterator->xmlStartElement(context.get(), rootTag.c_str(), none);
  EXPECT_THROW(iterator->xmlEndElement(context.get(), other.c_str()), AssertionFailure);
  EXPECT_TRUE(log.has(1, END, "Assertion failed: ctxt->isEndTag(name)")) << log.text();
  EXPECT_EQ(0, iterator->xmlEndElement(context.get(), rootTag.c_str()));
}

// ---- one item ----

TEST_F(ResearcherItemsTest, AnItemWithoutNameIsWrittenAsABareStartTag)
{
  auto const read = itemsOf(items("<DISCOVERED/>"));
  ASSERT_EQ(1U, read.items.size());
  EXPECT_EQ("", itemOf(read).getName());
  EXPECT_EQ("<Discovered></Discovered>", written(itemOf(read)));
}

TEST_F(ResearcherItemsTest, AllPartsAreReadAndWrittenInOrder)
{
  auto const read =
      itemsOf(items("<DISCOVERED Name=\"a\">\n <ExplorerData Name=\"E&quot;1\"><x a=\"1\">t&lt;</x>"
                    "</ExplorerData> <TQUPolicy Name=\"p\" Type=\"t\"/>\n"
                    "<StatusMsg Code=\"13\" Severity=\"2\">bad</StatusMsg>\n</DISCOVERED>"));
  ASSERT_TRUE(read.parsed);
  auto const& item = itemOf(read);
  ASSERT_NE(nullptr, item.getStatusMsg());
  EXPECT_EQ(13U, item.getStatusMsg()->code());
  EXPECT_EQ("bad", item.getStatusMsg()->text());
  ASSERT_NE(nullptr, item.getPolicy());
  EXPECT_EQ("p", item.getPolicy()->name());
  EXPECT_EQ("<x \"a\"=\"1\">t&lt;</x>", capturedOf(read));
  EXPECT_EQ("<Discovered Name=\"a\"><StatusMsg Code=\"13\" Severity=\"2\">bad</StatusMsg>"
            "<TQUPolicy Name=\"p\" Type=\"t\"></TQUPolicy>"
            "<ExplorerData Name=\"E&quot;1\"><x \"a\"=\"1\">t&lt;</x></ExplorerData></Discovered>",
            written(item));
  EXPECT_FALSE(log.has(1, ITEM_END, UNKNOWN)) << log.text();
}

TEST_F(ResearcherItemsTest, AnItemWithoutPartsHasNone)
{
  auto const read = itemsOf(items("<DISCOVERED Name=\"a\">text</DISCOVERED>"));
  ASSERT_EQ(1U, read.items.size());
  EXPECT_EQ(nullptr, itemOf(read).getStatusMsg());
  EXPECT_EQ(nullptr, itemOf(read).getPolicy());
  EXPECT_FALSE(dataOf(read));
  EXPECT_EQ("<Discovered Name=\"a\"></Discovered>", written(itemOf(read)));
}

TEST_F(ResearcherItemsTest, TheNameIsEscapedForTheEncoding)
{
  AutoDereference<DiscoveredItem> const item(new DiscoveredItem("<\xC3\xA4 \"&\">"));
  EXPECT_EQ("<Discovered Name=\"&lt;&#xE4; &quot;&amp;&quot;&gt;\"></Discovered>",
            written(*item, XmlStr::US_ASCII));
}

TEST_F(ResearcherItemsTest, ASecondExplorerDataReplacesTheFirst)
{
  auto const read = itemsOf(items("<DISCOVERED><ExplorerData Name=\"one\">1</ExplorerData>"
                                  "<ExplorerData Name=\"two\">2</ExplorerData></DISCOVERED>"));
  ASSERT_EQ(1U, read.items.size());
  EXPECT_EQ("2", capturedOf(read));
  EXPECT_EQ("<Discovered><ExplorerData Name=\"two\">2</ExplorerData></Discovered>",
            written(itemOf(read)));
}

TEST_F(ResearcherItemsTest, WhatIsWrittenIsReadBackOnlyWithTheReadersElementName)
{
  AutoDereference<DiscoveredItem> const item(new DiscoveredItem("a"));
  std::string text = written(*item);
  EXPECT_EQ(0U, itemsOf(items(text)).items.size());
  EXPECT_TRUE(log.has(1, START, UNKNOWN)) << log.text();
  for (std::size_t at; (at = text.find("Discovered")) != std::string::npos;)
    text.replace(at, 10, "DISCOVERED");
  EXPECT_EQ("a;", itemNames(itemsOf(items(text))));
}

TEST_F(ResearcherItemsTest, AnUnknownElementInAnItemIsSilentAtItsStartAndLoggedAtItsEnd)
{
  auto const read = itemsOf(items("<DISCOVERED Name=\"a\"><New x=\"1\">text</New>"
                                  "<TQUPolicy Name=\"p\"/></DISCOVERED>"));
  EXPECT_TRUE(read.parsed);
  ASSERT_EQ(1U, read.items.size());
  EXPECT_EQ("p", itemOf(read).getPolicy()->name());
  EXPECT_FALSE(log.has(1, "DiscoveredItem::xmlStartElement", UNKNOWN)) << log.text();
  EXPECT_EQ(1, log.count(1, ITEM_END, UNKNOWN)) << log.text();
}

TEST_F(ResearcherItemsTest, PartsWithChildrenOfTheirOwnNameEndAtTheirOwnEnd)
{
  auto const read = itemsOf(
      items("<DISCOVERED Name=\"a\"><StatusMsg Code=\"1\">m<StatusMsg Code=\"2\"/></StatusMsg>"
            "<ExplorerData Name=\"e\"><ExplorerData Name=\"i\">t</ExplorerData>"
            "<DISCOVERED/></ExplorerData></DISCOVERED>"));
  EXPECT_TRUE(read.parsed);
  ASSERT_EQ(1U, read.items.size());
  EXPECT_EQ(1U, itemOf(read).getStatusMsg()->code());
  EXPECT_EQ("<ExplorerData \"Name\"=\"i\">t</ExplorerData><DISCOVERED></DISCOVERED>",
            capturedOf(read));
}

TEST_F(ResearcherItemsTest, TheExplorersOwnParserIsUsed)
{
  auto const parser = registered("mine");
  auto const read = itemsOf(items("<DISCOVERED><ExplorerData Name=\"mine\"><a/><b>te<c/>xt</b>"
                                  "</ExplorerData></DISCOVERED>"));
  ASSERT_EQ(1U, read.items.size());
  auto const data = dataOf(read);
  auto const* const counted = dynamic_cast<CountedData const*>(data.get());
  ASSERT_NE(nullptr, counted);
  EXPECT_EQ(3, counted->elements);
  EXPECT_EQ("text", counted->text);
  EXPECT_EQ("mine", parser->lastName);
  EXPECT_EQ("<Discovered><ExplorerData Name=\"mine\"><Count>3</Count></ExplorerData></Discovered>",
            written(itemOf(read)));
}

TEST_F(ResearcherItemsTest, AnExplorerWithoutParserIsReadByTheOneRegisteredAsDefault)
{
  auto const fallback = registered(DFLT_EXPLORER_DATA_PARSER);
  auto const read = itemsOf(items("<DISCOVERED><ExplorerData Name=\"unheard\"/></DISCOVERED>"));
  EXPECT_EQ("unheard", fallback->lastName);
  EXPECT_NE(nullptr, dynamic_cast<CountedData const*>(dataOf(read).get()));
  EXPECT_EQ(
      "<Discovered><ExplorerData Name=\"unheard\"><Count>0</Count></ExplorerData></Discovered>",
      written(itemOf(read)));
}

TEST_F(ResearcherItemsTest, WithoutAnyParserTheDataIsKeptAsText)
{
  auto const read = itemsOf(items("<DISCOVERED><ExplorerData Name=\"unheard\"><x/>"
                                  "</ExplorerData></DISCOVERED>"));
  EXPECT_NE(nullptr, dynamic_cast<DefaultExplorerData const*>(dataOf(read).get()));
  EXPECT_EQ("<x></x>", capturedOf(read));
}

TEST_F(ResearcherItemsTest, ExplorerDataWithoutNameIsReadAsThatOfANamelessExplorer)
{
  auto const read = itemsOf(items("<DISCOVERED><ExplorerData>t</ExplorerData></DISCOVERED>"));
  EXPECT_TRUE(read.parsed);
  EXPECT_EQ("t", capturedOf(read));
  EXPECT_EQ("<Discovered><ExplorerData Name=\"\">t</ExplorerData></Discovered>",
            written(itemOf(read)));
}

TEST_F(ResearcherItemsTest, GetExplorerDataAddsAReference)
{
  auto const read = itemsOf(items("<DISCOVERED><ExplorerData Name=\"e\"/></DISCOVERED>"));
  auto const first = dataOf(read);
  long const before = first->referenceCount();
  auto const second = dataOf(read);
  EXPECT_EQ(first.get(), second.get());
  EXPECT_EQ(before + 1, first->referenceCount());
}

TEST_F(ResearcherItemsTest, AnExceptionOfAParserFailsTheParseAndNothingElse)
{
  auto const parser = registered("mine");
  parser->enter = [](std::string const&) { throw std::runtime_error("plug-in at fault"); };
  auto const read = itemsOf(items("<DISCOVERED Name=\"a\"/><DISCOVERED><ExplorerData Name=\"mine\">"
                                  "<x/></ExplorerData></DISCOVERED>"));
  EXPECT_FALSE(read.parsed);
  EXPECT_EQ("a;", itemNames(read));
  EXPECT_TRUE(log.has(4, "AuthSubIterator::parseDiscovery", "plug-in at fault")) << log.text();
}

TEST_F(ResearcherItemsTest, WhateverAParserThrowsInWhicheverCallFailsTheParseAndNothingElse)
{
  auto const parser = registered("mine");
  std::vector<std::string> entered;
  parser->enter = [&](std::string const& call) { entered.push_back(call); };
  std::string const document = items("<DISCOVERED Name=\"a\"/><DISCOVERED><ExplorerData "
                                     "Name=\"mine\"><x>text</x></ExplorerData></DISCOVERED>");
  ASSERT_TRUE(itemsOf(document).parsed);
  std::set<std::string> const calls(entered.begin(), entered.end());
  EXPECT_EQ(5u, calls.size()) << "getParseContext, three of the text, getExplorerData";
  for (std::string const& call : calls)
  {
    parser->enter = [&](std::string const& entering)
    {
      if (entering == call)
        throw CORBA::NO_RESOURCES();
    };
    auto const read = itemsOf(document);
    EXPECT_FALSE(read.parsed) << call;
    EXPECT_EQ("a;", itemNames(read)) << call;
  }
  EXPECT_EQ(5, log.count(4, "AuthSubIterator::parseDiscovery",
                         "an exception of type CORBA::NO_RESOURCES"))
      << log.text();
  parser->enter = [](std::string const&) { throw 5; };
  EXPECT_FALSE(itemsOf(document).parsed);
}

TEST_F(ResearcherItemsTest, NoTypeOfExceptionOfAParserPasses)
{
  auto const parser = registered("mine");
  std::string const document = items("<DISCOVERED Name=\"a\"/><DISCOVERED><ExplorerData "
                                     "Name=\"mine\"><x>text</x></ExplorerData></DISCOVERED>");
  struct OfItsOwn
  {
  };
  std::vector<std::function<void()>> const throwing = {
      [] { throw std::logic_error("logic"); },
      [] { throw std::exception(); },
      [] { throw "a text"; },
      [] { throw OfItsOwn(); },
      [] { throw xercesc::SAXException("sax"); },
  };
  for (auto const& fail : throwing)
  {
    parser->enter = [&](std::string const&) { fail(); };
    auto const read = itemsOf(document);
    EXPECT_FALSE(read.parsed);
    EXPECT_EQ("a;", itemNames(read));
  }
  parser->enter = [](std::string const&) {};
  EXPECT_TRUE(itemsOf(document).parsed);
}

TEST_F(ResearcherItemsTest, DataThatThrowsWhenItIsWrittenMarksTheStream)
{
  struct Unwritable : virtual ExplorerData
  {
    std::ostream& writeXml(std::ostream&, XmlStr::Encoding) const override
    {
      throw CORBA::NO_RESOURCES();
    }
  };
  struct UnwritableParser : CountingParser
  {
    using CountingParser::CountingParser;
    ExplorerData* getExplorerData(XmlObjParseContext*) override { return new Unwritable; }
  };
  AutoDereference<UnwritableParser> const parser(new UnwritableParser("mine"));
  getDiscoveryRepository().registerExplorerParser("mine", parser.get());
  auto const read = itemsOf(items("<DISCOVERED><ExplorerData Name=\"mine\"/></DISCOVERED>"));
  std::ostringstream os;
  itemOf(read).writeXml(os, XmlStr::UTF_8);
  EXPECT_TRUE(os.fail());
  EXPECT_TRUE(log.has(1, "DiscoveredItem::writeXml",
                      "The data of explorer mine cannot be written: an exception of type "
                      "CORBA::NO_RESOURCES"))
      << log.text();
}

TEST_F(ResearcherItemsTest, AParserThatGivesNoContextFailsAnAssertion)
{
  auto const parser = registered("mine");
  parser->givesContext = false;
  EXPECT_THROW(
      itemsOf(items("<DISCOVERED><ExplorerData Name=\"mine\"><x/></ExplorerData></DISCOVERED>")),
      AssertionFailure);
  EXPECT_TRUE(log.has(1, "DiscoveredItem::xmlStartElement", "Assertion failed: ctxt->m_subContext"))
      << log.text();
  EXPECT_THROW(
      itemsOf(items("<DISCOVERED><ExplorerData Name=\"mine\">text</ExplorerData></DISCOVERED>")),
      AssertionFailure);
  EXPECT_TRUE(log.has(1, "DiscoveredItem::xmlCharacters", "Assertion failed: ctxt->m_subContext"))
      << log.text();
}

// ---- hostile documents ----

TEST_F(ResearcherItemsTest, WhatIsNoDocumentFailsWithoutItems)
{
  for (char const* text : {"", " ", "not XML", "<", "\xEF\xBB\xBF", "{\"a\":1}", "<a></b>",
                           "<DiscoveredItems/><DiscoveredItems/>"})
  {
    auto const read = itemsOf(text);
    EXPECT_FALSE(read.parsed) << text;
    EXPECT_EQ(0U, read.items.size()) << text;
  }
}

TEST_F(ResearcherItemsTest, ADocumentCutOffAnywhereYieldsTheItemsReadSoFar)
{
  std::string const text = items("<DISCOVERED Name=\"a\"><StatusMsg>m</StatusMsg></DISCOVERED>"
                                 "<DISCOVERED Name=\"b\"><ExplorerData Name=\"e\"><x>t</x>"
                                 "</ExplorerData><TQUPolicy/></DISCOVERED>");
  auto const firstEnd = text.find("<DISCOVERED Name=\"b\"");
  auto const secondEnd = text.rfind("</DiscoveredItems>");
  for (std::size_t length = 0; length < text.size(); ++length)
  {
    auto const read = itemsOf(text.substr(0, length));
    EXPECT_FALSE(read.parsed) << length;
    EXPECT_EQ((length >= firstEnd) + (length >= secondEnd), static_cast<int>(read.items.size()))
        << length;
  }
}

TEST_F(ResearcherItemsTest, ElementsNestedTooDeepFail)
{
  std::string deep = "<DiscoveredItems><DISCOVERED Name=\"a\"/><DISCOVERED><ExplorerData>";
  for (int i = 0; i < 100000; ++i)
    deep += "<x>";
  auto const read = itemsOf(deep);
  EXPECT_FALSE(read.parsed);
  EXPECT_EQ("a;", itemNames(read));
}

TEST_F(ResearcherItemsTest, LongAttributesAndTextsAreTaken)
{
  std::string const value(1 << 20, 'x');
  auto const read = itemsOf(items("<DISCOVERED Name=\"" + value + "\"><ExplorerData Name=\"" +
                                  value + "\">" + value + "</ExplorerData></DISCOVERED>"));
  ASSERT_TRUE(read.parsed);
  EXPECT_EQ(value, itemOf(read).getName());
  EXPECT_EQ(value, capturedOf(read));
}

TEST_F(ResearcherItemsTest, ADocumentTypeIsRefused)
{
  auto const read = itemsOf("<!DOCTYPE DiscoveredItems [<!ENTITY e \"x\">]><DiscoveredItems>"
                            "<DISCOVERED Name=\"&e;\"/></DiscoveredItems>");
  EXPECT_FALSE(read.parsed);
  EXPECT_EQ(0U, read.items.size());
}

TEST_F(ResearcherItemsTest, UnknownElementsEverywhereStopNothing)
{
  auto const read =
      itemsOf(items("<U/>t<DISCOVERED Name=\"a\"><U/>t<StatusMsg Code=\"7\"><U/>m</StatusMsg><U>"
                    "<V/></U><TQUPolicy Name=\"p\"><U/></TQUPolicy><ExplorerData Name=\"e\"><U/>"
                    "</ExplorerData><U/></DISCOVERED><U><V/></U>"));
  EXPECT_TRUE(read.parsed);
  ASSERT_EQ("a;", itemNames(read));
  EXPECT_EQ(7U, itemOf(read).getStatusMsg()->code());
  EXPECT_EQ("p", itemOf(read).getPolicy()->name());
  EXPECT_EQ("<U></U>", capturedOf(read));
}

} // namespace
