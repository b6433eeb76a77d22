#include "discovery/Researcher.h"

#include "discovery/FilterParameters.h"
#include "ozf/log/Assertion.h"
#include "tests/support/FakeDiscoveries.h"
#include "tests/support/FakeExplorers.h"
#include "tests/support/LogCapture.h"
#include "tests/unit/discovery/RepositoryTesting.h"

#include <gtest/gtest.h>

#include <optional>
#include <sstream>
#include <xercesc/util/PlatformUtils.hpp>

using namespace tqtest;

namespace
{

constexpr char PARSE[] = "AuthSubIterator::parseDiscovery";
constexpr char NEXT[] = "AuthSubIterator::getNextCollectionItemIterator";

using ItemIterator = AutoDereference<CollectionItemIterator>;

std::string itemsWith(std::string const& content)
{
  return "<DiscoveredItems>" + content + "</DiscoveredItems>";
}

ItemIterator nextOf(AutoDereference<AuthSubIterator> const& discoveries,
                    FilterParameters const* filter = nullptr)
{
  return ItemIterator(discoveries->getNextCollectionItemIterator(filter));
}

std::string namesOf(ItemIterator const& iterator)
{
  std::string names;
  for (;;)
  {
    AutoDereference<CollectionItem> const item(iterator->getNextCollectionItem());
    if (!item)
      return names;
    names += dynamic_cast<DiscoveredItem const&>(*item).getName() + ";";
  }
}

struct ResearcherTest : testing::Test
{
  TempDir root;
  LogCapture log;

  void SetUp() override { setenv("TESSARINE_ROOT", root.path().c_str(), 1); }
};

// One discovery with a collection that the test can look at afterwards.
struct OneDiscovery
{
  explicit OneDiscovery(std::string const& text) : data(new TextCollection(text))
  {
    auto* const all = new FakeIterator;
    discovery.reset(
        new FakeDiscovery(new Authority("authority", AT_EXTSRC), new Subject("subject"), data));
    all->add(AutoDereference<Discovery>(discovery).release());
    discoveries.reset(new AuthSubIterator(all));
  }
  TextCollection* data; // lives as long as discovery
  AutoDereference<Discovery> discovery;
  AutoDereference<AuthSubIterator> discoveries;
};

// ---- walking ----

TEST_F(ResearcherTest, EachDiscoveryGivesOneIteratorAndThenNull)
{
  auto* const all = new FakeIterator;
  all->add(new FakeDiscovery("s1", itemsWith("<DISCOVERED Name=\"a\"/><DISCOVERED Name=\"b\"/>")));
  all->add(new FakeDiscovery("s2", itemsWith("")));
  all->add(new FakeDiscovery("s3", itemsWith("<DISCOVERED Name=\"c\"/>")));
  AutoDereference<AuthSubIterator> const discoveries(new AuthSubIterator(all));

  auto const first = nextOf(discoveries);
  EXPECT_EQ("s1", first->getSubject().getName());
  EXPECT_TRUE(first->isParsed());
  auto const second = nextOf(discoveries);
  EXPECT_EQ("s2", second->getSubject().getName());
  EXPECT_TRUE(second->isParsed());
  auto const third = nextOf(discoveries);
  EXPECT_FALSE(nextOf(discoveries));
  EXPECT_FALSE(nextOf(discoveries));

  // What was read of a discovery stays, in whatever order it is looked at.
  EXPECT_EQ("c;", namesOf(third));
  EXPECT_EQ("", namesOf(second));
  EXPECT_EQ("a;b;", namesOf(first));
}

TEST_F(ResearcherTest, AnItemIteratorOutlivesTheIteratorThatMadeIt)
{
  ItemIterator iterator;
  {
    auto const discoveries = iteratorOver(itemsWith("<DISCOVERED Name=\"a\"/>"));
    iterator = nextOf(discoveries);
  }
  EXPECT_EQ("subject", iterator->getSubject().getName());
  EXPECT_EQ("a;", namesOf(iterator));
}

TEST_F(ResearcherTest, TheRecordsOfTheDiscoveryAreCopied)
{
  OneDiscovery one(itemsWith(""));
  one.discovery->setAttributes(new CollectionAttributes(CT_REAL_TIME, CS_CENTRALREPOSITORY,
                                                        OzfObjTime(5), OzfObjTime(6), 7));
  auto const iterator = nextOf(one.discoveries);
  one.discovery->setAttributes(nullptr);
  one.discovery->setSubject(nullptr);
  one.discovery->setAuthority(nullptr);
  EXPECT_EQ("subject", iterator->getSubject().getName());
  EXPECT_EQ("authority", iterator->getAuthority().getName());
  EXPECT_EQ(AT_EXTSRC, iterator->getAuthority().getType());
  ASSERT_NE(nullptr, iterator->getAttributes());
  EXPECT_EQ(CT_REAL_TIME, iterator->getAttributes()->getType());
  EXPECT_EQ(7U, iterator->getAttributes()->getPriority());
}

TEST_F(ResearcherTest, AttributesAreThoseOfTheDiscoveryInHandOrNone)
{
  auto* const all = new FakeIterator;
  auto* const first = new FakeDiscovery("s1", itemsWith(""));
  first->setAttributes(
      new CollectionAttributes(CT_REAL_TIME, CS_CENTRALREPOSITORY, OzfObjTime(), OzfObjTime(), 7));
  all->add(first);
  all->add(new FakeDiscovery("s2", itemsWith("")));
  AutoDereference<AuthSubIterator> const discoveries(new AuthSubIterator(all));
  EXPECT_NE(nullptr, nextOf(discoveries)->getAttributes());
  EXPECT_EQ(nullptr, nextOf(discoveries)->getAttributes());
}

TEST_F(ResearcherTest, ADiscoveryWithoutSubjectOrAuthorityIsPassedOver)
{
  auto* const all = new FakeIterator;
  all->add(new FakeDiscovery(new Authority("a", AT_EXTSRC), nullptr, nullptr));
  all->add(new FakeDiscovery(nullptr, new Subject("s"), nullptr));
  all->add(new FakeDiscovery("s3", itemsWith("")));
  AutoDereference<AuthSubIterator> const discoveries(new AuthSubIterator(all));
  EXPECT_EQ("s3", nextOf(discoveries)->getSubject().getName());
  EXPECT_EQ(2, log.count(1, NEXT, "Ignoring a discovery without authority or subject"))
      << log.text();
}

TEST_F(ResearcherTest, ReferencesAreCounted)
{
  auto const discoveries = iteratorOver(itemsWith("<DISCOVERED/>"));
  auto const iterator = nextOf(discoveries);
  EXPECT_EQ(1, iterator->referenceCount());
  AutoDereference<CollectionItem> const item(iterator->getNextCollectionItem());
  EXPECT_EQ(2, item->referenceCount()); // the list's and ours
}

// ---- the items of one discovery ----

struct ItemListTest : testing::Test
{
  std::shared_ptr<CollectionItems> list = std::make_shared<CollectionItems>();
  Authority authority{"a", AT_EXTSRC};
  Subject subject{"s"};

  void add(char const* name) { list->emplace_back(new DiscoveredItem(name)); }
  ItemIterator make() const
  {
    return ItemIterator(new CollectionItemIterator(authority, subject, nullptr, list, true));
  }
};

TEST_F(ItemListTest, ANullElementIsReturnedAlthoughItemsFollow)
{
  add("a");
  list->emplace_back();
  add("b");
  auto const iterator = make();
  EXPECT_EQ("a;", namesOf(iterator));
  EXPECT_EQ("b;", namesOf(iterator));
  EXPECT_EQ("", namesOf(iterator));
}

TEST_F(ItemListTest, ACopyHasTheRecordsTheItemsAndThePlace)
{
  add("a");
  add("b");
  auto const iterator = make();
  AutoDereference<CollectionItem>(iterator->getNextCollectionItem());
  ItemIterator const copy(new CollectionItemIterator(*iterator));
  EXPECT_EQ("b;", namesOf(copy));
  EXPECT_EQ("b;", namesOf(iterator)) << "each walks for itself";
  EXPECT_EQ("a", copy->getAuthority().getName());
  EXPECT_EQ("s", copy->getSubject().getName());
  EXPECT_TRUE(copy->isParsed());
  EXPECT_EQ(1, copy->referenceCount());
}

TEST_F(ItemListTest, ACopyHasTheAttributesAndKnowsThatTheReadingFailed)
{
  add("a");
  CollectionAttributes const attributes(CT_POINT_IN_TIME, CS_CENTRALREPOSITORY, OzfObjTime(100),
                                        OzfObjTime(60), 7);
  ItemIterator copy;
  {
    ItemIterator const iterator(
        new CollectionItemIterator(authority, subject, &attributes, list, false));
    copy.reset(new CollectionItemIterator(*iterator));
    ASSERT_NE(nullptr, copy->getAttributes());
    EXPECT_NE(iterator->getAttributes(), copy->getAttributes()) << "its own";
  }
  EXPECT_FALSE(copy->isParsed());
  EXPECT_EQ(7U, copy->getAttributes()->getPriority());
  EXPECT_EQ(100, copy->getAttributes()->getDiscoveryTime().seconds());
  EXPECT_EQ("a;", namesOf(copy));
}

// ---- reading one collection ----

TEST_F(ResearcherTest, ADiscoveryWithoutCollectionGivesAnUnparsedIterator)
{
  auto* const all = new FakeIterator;
  all->add(new FakeDiscovery(new Authority("a", AT_EXTSRC), new Subject("s"), nullptr));
  AutoDereference<AuthSubIterator> const discoveries(new AuthSubIterator(all));
  auto const iterator = nextOf(discoveries);
  ASSERT_TRUE(iterator);
  EXPECT_FALSE(iterator->isParsed());
  EXPECT_EQ("", namesOf(iterator));
  EXPECT_TRUE(log.has(1, PARSE, "Invalid collection data pointer")) << log.text();
  EXPECT_TRUE(log.has(1, NEXT, "Failed to parse discovery")) << log.text();
}

TEST_F(ResearcherTest, ACollectionThatCannotBeOpenedGivesAnUnparsedIterator)
{
  OneDiscovery one(itemsWith("<DISCOVERED/>"));
  one.data->openResult = 0;
  auto const iterator = nextOf(one.discoveries);
  EXPECT_FALSE(iterator->isParsed());
  EXPECT_EQ("", namesOf(iterator));
  EXPECT_TRUE(one.data->asked.empty()) << "nothing may be read";
  EXPECT_TRUE(log.has(1, PARSE, "Failed to read collection data")) << log.text();
  EXPECT_TRUE(log.has(1, NEXT, "Failed to parse discovery")) << log.text();
}

TEST_F(ResearcherTest, ACollectionThatIsNotWellFormedGivesTheItemsReadSoFar)
{
  OneDiscovery one("<DiscoveredItems><DISCOVERED Name=\"a\"/><DISCOVERED Name=\"b\"></Wrong>");
  auto const iterator = nextOf(one.discoveries);
  EXPECT_FALSE(iterator->isParsed());
  EXPECT_EQ("a;", namesOf(iterator));
  EXPECT_TRUE(log.has(1, PARSE, "Failed to parse the discovery stream")) << log.text();
  EXPECT_TRUE(log.has(1, NEXT, "Failed to parse discovery")) << log.text();
}

TEST_F(ResearcherTest, AnEmptyCollectionGivesAnUnparsedIteratorThatYieldsNothing)
{
  OneDiscovery one("");
  auto const iterator = nextOf(one.discoveries);
  ASSERT_TRUE(iterator);
  EXPECT_FALSE(iterator->isParsed());
  EXPECT_EQ("", namesOf(iterator));
}

TEST_F(ResearcherTest, AFailureDoesNotSpoilTheNextDiscovery)
{
  auto* const all = new FakeIterator;
  all->add(new FakeDiscovery("s1", "<DiscoveredItems><DISCOVERED><StatusMsg>"));
  all->add(new FakeDiscovery("s2", itemsWith("<DISCOVERED Name=\"a\"/>")));
  AutoDereference<AuthSubIterator> const discoveries(new AuthSubIterator(all));
  EXPECT_FALSE(nextOf(discoveries)->isParsed());
  auto const second = nextOf(discoveries);
  EXPECT_TRUE(second->isParsed());
  EXPECT_EQ("a;", namesOf(second));
}

TEST_F(ResearcherTest, ASuccessLogsNothing)
{
  OneDiscovery one(itemsWith("<DISCOVERED/>"));
  nextOf(one.discoveries);
  EXPECT_EQ("", log.text());
}

TEST_F(ResearcherTest, TheFilterTravelsWithTheRequestToOpen)
{
  OneDiscovery one(itemsWith(""));
  FilterParameters const filter(nullptr, "size > 10G");
  nextOf(one.discoveries, &filter);
  std::ostringstream text;
  filter.writeXml(text, XmlStr::UTF_8);
  EXPECT_EQ(text.str(), one.data->openedWith);
  EXPECT_NE(std::string::npos, one.data->openedWith.find("<QueryString>size &gt; 10G<"));
  EXPECT_EQ(OM_READ, one.data->openMode);
}

TEST_F(ResearcherTest, WithoutAFilterTheRequestCarriesAnEmptyText)
{
  OneDiscovery one(itemsWith(""));
  nextOf(one.discoveries);
  EXPECT_EQ("", one.data->openedWith);
  EXPECT_EQ(OM_READ, one.data->openMode);
}

TEST_F(ResearcherTest, TheCollectionIsReadInPieces)
{
  std::string content;
  for (int i = 0; i < 100000; ++i)
    content += "<DISCOVERED Name=\"" + std::to_string(i) + "\"/>";
  OneDiscovery one(itemsWith(content));
  auto const iterator = nextOf(one.discoveries);
  EXPECT_TRUE(iterator->isParsed());
  auto const largest = *std::max_element(one.data->asked.begin(), one.data->asked.end());
  EXPECT_LT(largest, 1U << 17);
  EXPECT_GT(one.data->asked.size(), one.data->text.size() / (1U << 17));
  std::string const names = namesOf(iterator);
  EXPECT_EQ(100000, std::count(names.begin(), names.end(), ';'));
}

TEST_F(ResearcherTest, AStoreMayHandOutByteByByte)
{
  OneDiscovery one(itemsWith("<DISCOVERED Name=\"a\"/>"));
  one.data->largestPiece = 1;
  auto const iterator = nextOf(one.discoveries);
  EXPECT_TRUE(iterator->isParsed());
  EXPECT_EQ("a;", namesOf(iterator));
}

TEST_F(ResearcherTest, AFailedReadFailsTheParseEvenBehindTheDocument)
{
  std::string const text = itemsWith("<DISCOVERED Name=\"a\"/>");
  for (std::size_t failAt = 0; failAt <= text.size(); ++failAt)
  {
    OneDiscovery one(text);
    one.data->failAt = failAt;
    auto const iterator = nextOf(one.discoveries);
    EXPECT_FALSE(iterator->isParsed()) << failAt;
  }
  EXPECT_EQ(static_cast<long>(text.size()) + 1,
            log.count(1, PARSE, "Failed to parse the discovery stream"))
      << log.text();
}

TEST_F(ResearcherTest, ParseDiscoveryReturnsWhetherItWorked)
{
  auto const discoveries = iteratorOver("");
  TextCollection good(itemsWith(""));
  TextCollection bad("<a>");
  EXPECT_TRUE(discoveries->parseDiscovery(&good, nullptr));
  EXPECT_FALSE(discoveries->parseDiscovery(&bad, nullptr));
  EXPECT_FALSE(discoveries->parseDiscovery(nullptr, nullptr));
}

TEST_F(ResearcherTest, TheIteratorItselfWritesNothing)
{
  std::ostringstream os;
  EXPECT_EQ(&os, &iteratorOver("")->writeXml(os, XmlStr::UTF_8));
  EXPECT_EQ("", os.str());
}

// ---- the stream ----

TEST_F(ResearcherTest, TheStreamCountsWhatItRead)
{
  TextCollection data("0123456789");
  initializeXml();
  DiscoverySetBinInputStream stream(data);
  XMLByte buffer[8] = {};
  EXPECT_EQ(0U, stream.curPos());
  EXPECT_EQ(8U, stream.readBytes(buffer, 8));
  EXPECT_EQ("01234567", std::string(reinterpret_cast<char const*>(buffer), 8));
  EXPECT_EQ(8U, stream.curPos());
  EXPECT_EQ(2U, stream.readBytes(buffer, 8));
  EXPECT_EQ(10U, stream.curPos());
  EXPECT_EQ(0U, stream.readBytes(buffer, 8));
  EXPECT_EQ(10U, stream.curPos());
  EXPECT_EQ((std::vector<unsigned long>{8, 8, 8}), data.asked);
  EXPECT_EQ(nullptr, stream.getContentType());
}

TEST_F(ResearcherTest, TheSourceMakesANewStreamOverTheSameCollectionEachTime)
{
  TextCollection data("0123456789");
  DiscoverySetInputSource const source(data, u"sysid");
  EXPECT_EQ(std::u16string(u"sysid"), source.getSystemId());
  std::unique_ptr<xercesc::BinInputStream> const first(source.makeStream());
  std::unique_ptr<xercesc::BinInputStream> const second(source.makeStream());
  XMLByte buffer[4];
  EXPECT_EQ(4U, first->readBytes(buffer, 4));
  EXPECT_EQ(0U, second->curPos());
  EXPECT_EQ(4U, second->readBytes(buffer, 4));
  EXPECT_EQ('4', buffer[0]);
}

// ---- asking the repository ----

struct LocalResearchTest : ResearcherTest
{
  std::optional<LocalMaster> master;

  void SetUp() override
  {
    ResearcherTest::SetUp();
    master.emplace(root);
  }

  static void store(std::string const& subject, std::string const& authority,
                    std::string const& payload)
  {
    LocalMaster::store(DQ_DISCOVERY_DATA, subject, Authority(authority, AT_TQUCLIENT), payload);
  }

  static std::string found(std::string const& subject, std::string const& authority)
  {
    std::set<std::string> all; // the database has no order
    auto const discoveries =
        getAuthSubIterator(DQ_DISCOVERY_DATA, subject, authority, AT_ANYANDALL);
    while (auto const iterator = nextOf(discoveries))
      all.insert(iterator->getSubject().getName().str() + ":" + namesOf(iterator));
    std::string text;
    for (auto const& one : all)
      text += one + " ";
    return text;
  }
};

TEST_F(LocalResearchTest, StoredDiscoveriesAreReadWithTheirItems)
{
  store("web1", "filesystem", itemsWith("<DISCOVERED Name=\"/\"/><DISCOVERED Name=\"/home\"/>"));
  store("web2", "filesystem", itemsWith("<DISCOVERED Name=\"/var\"/>"));
  store("web2", "host", itemsWith(""));
  EXPECT_EQ("web1:/;/home; web2:/var; ", found("web*", "filesystem"));
  EXPECT_EQ("web2:/var; ", found("web2", "f*"));
  EXPECT_EQ("", found("db", "*"));
}

TEST_F(LocalResearchTest, EmptyNamesAskForAll)
{
  store("web1", "filesystem", itemsWith(""));
  store("web2", "host", itemsWith(""));
  EXPECT_EQ("web1: web2: ", found("", ""));
  EXPECT_EQ("web2: ", found("", "host"));
}

TEST_F(LocalResearchTest, APullExplorerIsGivenTheFilter)
{
  AutoDereference<FakePull> const explorer(
      new FakePull("pull", nullptr, itemsWith("<DISCOVERED Name=\"a\"/>")));
  getDiscoveryRepository().registerExplorer(new Subject("s"), explorer.get(), 1,
                                            new Authority("a", AT_TQUCLIENT), true);
  auto const discoveries = getAuthSubIterator(DQ_DISCOVERY_DATA, "s", "a", AT_ANYANDALL);
  ASSERT_TRUE(discoveries);
  FilterParameters const filter(nullptr, "size > 1");
  auto const iterator = nextOf(discoveries, &filter);
  ASSERT_TRUE(iterator);
  EXPECT_EQ("a;", namesOf(iterator));
  EXPECT_NE(std::string::npos, explorer->lastFilter.find("<QueryString>size &gt; 1</QueryString>"))
      << explorer->lastFilter;
}

TEST_F(ResearcherTest, WithoutAnyMasterThereIsNothingToReturn)
{
  AutoDereference<DiscoveryFramework> const framework(
      new DiscoveryFramework("discovery", DST_NONE, nullptr, false));
  getDiscoveryRepository().setDiscoveryFramework(framework.get());
  EXPECT_FALSE(getAuthSubIterator(DQ_DISCOVERY_DATA, "", "", AT_ANYANDALL));
  EXPECT_TRUE(log.has(1, "getAuthSubIterator", "Failed to get a handle to discoveries"))
      << log.text();
  getDiscoveryRepository().setDiscoveryFramework(nullptr);
}

TEST_F(ResearcherTest, AskingBeforeTheApiIsUpFailsAnAssertion)
{
  EXPECT_THROW(getAuthSubIterator(DQ_DISCOVERY_DATA, "", "", AT_ANYANDALL), AssertionFailure);
}

} // namespace
