#include "discovery/MetadataCache.h"

#include "ozf/config/Configuration.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Records.h"

#include <gtest/gtest.h>

#include <malloc.h>

#include <atomic>
#include <fstream>
#include <thread>

using namespace records;

namespace
{

constexpr std::size_t AMPLE = std::size_t(64) << 20;

// Counts the documents that are parsed for it.
class CountingDiscovery : public DBDiscovery
{
public:
  CountingDiscovery() : DBDiscovery(OzfPathname("/nonexistent"), nullptr, DQ_DISCOVERY_DATA) {}

  XmlObjParseContext* getObjParseContext(XMLCh const* rootTag) override
  {
    ++parses;
    return DBDiscovery::getObjParseContext(rootTag);
  }

  int parses = 0;
};

AutoDereference<CountingDiscovery> emptyRecord()
{
  return AutoDereference<CountingDiscovery>(new CountingDiscovery);
}

AutoDereference<CountingDiscovery> readFrom(std::string const& text)
{
  AutoDereference<CountingDiscovery> discovery = emptyRecord();
  EXPECT_TRUE(discovery->load(text)) << text;
  return discovery;
}

// All that a reader can ask a record for.
std::string allOf(Discovery const& discovery)
{
  std::ostringstream os;
  os << discovery.getAuthority()->getName() << '|' << discovery.getAuthority()->getFileKey() << '|'
     << discovery.getAuthority()->getType() << '|' << discovery.getSubject()->getName() << '|'
     << discovery.getSubject()->getFileKey() << '|';
  for (Description const* part : {static_cast<Description const*>(discovery.getAuthority()),
                                  static_cast<Description const*>(discovery.getSubject())})
    part->writeXml(os, XmlStr::UTF_8);
  CollectionAttributes const* const attributes = discovery.getAttributes();
  if (attributes == nullptr)
    return os.str() + "|no attributes";
  attributes->writeXml(os, XmlStr::UTF_8);
  os << '|' << attributes->getValidityInterval().seconds() << '|' << attributes->getPriority()
     << '|' << attributes->getExpiresTime().seconds() << '.'
     << attributes->getExpiresTime().microseconds();
  return os.str();
}

std::string signedDocument(std::string const& signature)
{
  std::string text = document(FUTURE);
  text.insert(text.find("</DiscoveryAttributes>"), "<Signature>" + signature + "</Signature>");
  return text;
}

std::string withoutAttributes()
{
  std::string text = document(FUTURE);
  auto const from = text.find("<DiscoveryAttributes");
  text.erase(from, text.find("</DiscoveryData>") - from);
  return text;
}

std::string numbered(std::size_t number)
{
  return document(FUTURE, 1, "filesystem", "client-" + std::to_string(number) + ".example.net");
}

} // namespace

TEST(MetadataCache, ADocumentIsParsedOnceAndSaysTheSameEachTime)
{
  std::string const longName(300, 'n');
  for (std::string const& text :
       {document(FUTURE), document(FUTURE, 0, "x y", "Z/%&amp;&quot;", 4),
        document(FUTURE, 9, longName, longName + "&#228;"), document(PAST), signedDocument("s"),
        signedDocument(std::string(5000, 's')), withoutAttributes(), document(FUTURE) + "\n\n\n"})
  {
    auto const first = readFrom(text);
    auto const second = readFrom(text);
    EXPECT_EQ(1, first->parses) << text;
    EXPECT_EQ(0, second->parses) << text;
    EXPECT_EQ(allOf(*first), allOf(*second));
    EXPECT_EQ(text, xmlOf(*second));
  }
}

TEST(MetadataCache, TheWholeTextIsWhatIsLookedUp)
{
  std::string text = signedDocument(std::string(900, 's'));
  readFrom(text);
  for (std::size_t at : {text.find("hostA"), text.find("hostB"), text.find("sss") + 899})
  {
    std::string other = text;
    other[at] = 'x';
    auto const discovery = readFrom(other);
    EXPECT_EQ(1, discovery->parses);
    EXPECT_NE(allOf(*readFrom(text)), allOf(*discovery));
  }
}

TEST(MetadataCache, WhatAHolderChangesIsHisOwn)
{
  std::string const text = signedDocument("signature");
  std::string const said = allOf(*readFrom(text));
  auto const changed = readFrom(text);
  *changed->getSubject() = Subject("another");
  *changed->getAuthority() = Authority("another", AT_EXTSRC);
  changed->getAttributes()->setSignature("another");
  changed->getAttributes()->setPriority(7);
  changed->getAttributes()->setExpiresTime(OzfObjTime(1));
  auto const again = readFrom(text);
  EXPECT_EQ(0, again->parses);
  EXPECT_EQ(said, allOf(*again));
}

TEST(MetadataCache, BadTextsAreToldEachTime)
{
  std::string const good = document(FUTURE);
  auto const changed = [&good](std::string const& from, std::string const& to)
  {
    std::string text = good;
    text.replace(text.find(from), from.size(), to);
    return text;
  };
  for (std::string const& text :
       {changed("</DiscoveryData>", ""), changed("Name=\"hostB\"", ""),
        changed("Name=\"hostA\"", "Name=\"\""), changed("<Priority>1", "<Priority>one"),
        changed(FUTURE, "tomorrow"), changed("Storage=\"1\"", "Storage=\"77\""),
        changed("Type=\"2\"", "Type=\"two\""),
        changed("<ExpiresTime>", "<DiscoveryTime>now</DiscoveryTime><ExpiresTime>")})
  {
    std::vector<std::string> told;
    for (int time = 0; time < 3; ++time)
    {
      LogCapture const log;
      auto const discovery = emptyRecord();
      discovery->load(text);
      EXPECT_EQ(1, discovery->parses) << text;
      told.push_back(log.text());
    }
    EXPECT_EQ(told[0], told[1]) << text;
    EXPECT_EQ(told[0], told[2]) << text;
  }
}

TEST(MetadataCache, WhatLeavesItsExpiryToTheReadingIsReadAnew)
{
  std::string text = document(FUTURE);
  auto const from = text.find("<ExpiresTime>");
  text.erase(from, text.find("</DiscoveryAttributes>") - from);
  for (int hour = 1; hour < 4; ++hour)
  {
    static OzfObjTime moment;
    moment = OzfObjTime(hour * 3600);
    OzfObjTime::setClock([] { return moment; });
    EXPECT_EQ(moment, readFrom(text)->getAttributes()->getExpiresTime());
  }
  OzfObjTime::setClock(nullptr);
}

TEST(MetadataCache, StatusMessagesAreReadAnew)
{
  std::string text = document(FUTURE);
  text.insert(text.find("</DiscoverySubject>"),
              "<STATUSMSG Code=\"13\" Severity=\"2\">no</STATUSMSG>");
  std::string const said = allOf(*readFrom(text));
  auto const again = readFrom(text);
  EXPECT_EQ(1, again->parses);
  EXPECT_EQ(said, allOf(*again));
}

TEST(MetadataCache, PartsThatWereThereBeforeStayPartOfTheResult)
{
  std::string const whole = document(FUTURE);
  readFrom(whole);
  auto const discovery = emptyRecord();
  discovery->setAttributes(
      new CollectionAttributes(CT_REAL_TIME, CS_LOCALONLY, OzfObjTime(), OzfObjTime(5), 3));
  EXPECT_TRUE(discovery->load(withoutAttributes()));
  EXPECT_EQ(5, discovery->getAttributes()->getValidityInterval().seconds());
  EXPECT_EQ(nullptr, readFrom(withoutAttributes())->getAttributes());
}

TEST(MetadataCache, TakesNoMoreMemoryThanItMay)
{
  constexpr std::size_t MOST = std::size_t(4) << 20;
  MetadataCache cache(MOST);
  auto const inUse = [] { return mallinfo2().uordblks; };
  make("/d", "filesystem", "s", 1)->parseBuffer(numbered(0)); // makes the thread's parser
  auto const before = inUse();
  for (std::size_t number = 0; number < 20000; ++number)
  {
    std::string const text = numbered(number);
    auto const discovery = make("/d", "filesystem", "s", 1);
    ASSERT_TRUE(discovery->parseBuffer(text));
    cache.keep(text, *discovery);
    ASSERT_LE(cache.held(), MOST);
  }
  EXPECT_GT(cache.held(), MOST * 9 / 10);
  EXPECT_LT(inUse() - before, MOST * 21 / 20);
}

TEST(MetadataCache, WhatIsBeyondASmallerLimitGoesAtOnce)
{
  MetadataCache cache(AMPLE);
  for (std::size_t number = 0; number < 3000; ++number)
  {
    auto const discovery = make("/d", "filesystem", "s", 1);
    ASSERT_TRUE(discovery->parseBuffer(numbered(number)));
    cache.keep(numbered(number), *discovery);
  }
  EXPECT_GT(cache.held(), 1'000'000u);
  cache.limit(500'000);
  EXPECT_LE(cache.held(), 500'000u);
  EXPECT_GT(cache.held(), 300'000u);
  cache.limit(0);
  EXPECT_EQ(0u, cache.held());
  cache.limit(AMPLE);
  auto const discovery = make("/d", "filesystem", "s", 1);
  ASSERT_TRUE(discovery->parseBuffer(numbered(1)));
  cache.keep(numbered(1), *discovery);
  EXPECT_TRUE(cache.find(numbered(1), *emptyRecord()));
}

TEST(MetadataCache, OfTwiceAsManyAsThereIsRoomForAPartIsFound)
{
  constexpr std::size_t COUNT = 4000;
  MetadataCache cache(AMPLE);
  auto const walk = [&cache]
  {
    std::size_t found = 0;
    for (std::size_t number = 0; number < COUNT; ++number)
    {
      std::string const text = numbered(number);
      auto const discovery = emptyRecord();
      if (cache.find(text, *discovery))
        ++found;
      else if (discovery->parseBuffer(text))
        cache.keep(text, *discovery);
    }
    return found;
  };
  EXPECT_EQ(0u, walk());
  EXPECT_EQ(COUNT, walk());
  cache.limit(cache.held() / 2);
  walk();
  walk();
  EXPECT_GT(walk(), COUNT / 10);
}

TEST(MetadataCache, RecordsOfTheUsualSizeFitByTheHundredThousand)
{
  constexpr std::size_t COUNT = 2000;
  MetadataCache cache(AMPLE);
  auto const discovery = make("/d", "filesystem", "client-000007.example.net", 1);
  std::string const text = xmlOf(*discovery);
  auto const read = readFrom(text);
  for (std::size_t number = 0; number < COUNT; ++number)
    cache.keep(text + std::to_string(number), *read); // of texts as long as that
  EXPECT_LT(cache.held() / COUNT * 100'000, AMPLE);
}

TEST(MetadataCache, ThreadsGetWhatTheirTextsSay)
{
  // Small enough for entries to go while others read them.
  MetadataCache cache(std::size_t(128) << 10);
  std::atomic<std::size_t> found = 0;
  auto const work = [&](std::size_t seed)
  {
    for (std::size_t i = 0; i < 4000; ++i)
    {
      std::size_t const number = (i * 7 + seed * 13) % 200;
      std::string const text = numbered(number);
      auto const discovery = emptyRecord();
      if (cache.find(text, *discovery))
        ++found;
      else
      {
        ASSERT_TRUE(discovery->parseBuffer(text));
        cache.keep(text, *discovery);
      }
      ASSERT_EQ("client-" + std::to_string(number) + ".example.net",
                discovery->getSubject()->getName().str());
    }
  };
  std::vector<std::thread> threads;
  for (std::size_t seed = 0; seed < 4; ++seed)
    threads.emplace_back(work, seed);
  for (auto& thread : threads)
    thread.join();
  EXPECT_GT(found, 0u);
}

TEST(MetadataCache, IsAsLargeAsConfigured)
{
  auto const heldWith = [](std::string const& line)
  {
    TempDir const root;
    std::filesystem::create_directories(root / "etc");
    std::ofstream(root / "etc/tq.conf") << line << '\n';
    setenv("TESSARINE_ROOT", root.path().c_str(), 1);
    reloadConfiguration();
    configureMetadataCache();
    unsetenv("TESSARINE_ROOT");
    for (std::size_t number = 0; number < 2000; ++number)
      readFrom(numbered(number));
    return getMetadataCache().held();
  };
  EXPECT_EQ(0u, heldWith("METADATA_CACHE = 0"));
  std::size_t const held = heldWith("METADATA_CACHE = 200000");
  EXPECT_GT(held, 100'000u);
  EXPECT_LE(held, 200'000u);
  EXPECT_GT(heldWith("# nothing"), 600'000u);
}
