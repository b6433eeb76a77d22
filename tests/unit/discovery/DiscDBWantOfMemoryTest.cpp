// What is left of a discovery, and what a list says, when memory ends anywhere on
// the way.

#include "discovery/DiscDBDiscovery.h"

#include "discovery/DiscDBIndex.h"
#include "discovery/MetadataCache.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Records.h"
#include "tests/unit/discovery/FailingMemory.h"

#include <gtest/gtest.h>

#include <new>
#include <set>

using namespace records;
namespace fs = std::filesystem;

namespace
{

constexpr char WANTED_XML[] = "2 hostA hostB.xml";
constexpr char WANTED_DAT[] = "2 hostA hostB.dat";
constexpr long ENOUGH_PIECES = 5000;

class WantOfMemory : public testing::TestWithParam<FailingMemory::After>
{
protected:
  Database m_db;

  // Opened and written; persist comes next. Of two one has the longer document.
  AutoDereference<DBDiscovery> ready(std::string const& text, bool longer) const
  {
    auto discovery = records::make(m_db.path(), "hostA", "hostB", 1);
    discovery->getAttributes()->setSignature(text + std::string(longer ? 300 : 0, 's'));
    EXPECT_EQ(DS_SUCCESS, discovery->open(OM_UPDATE, ""));
    EXPECT_TRUE(discovery->getCollectionData()->writeCollection(text.size(), text.data()));
    return discovery;
  }

  // "old/new": whose metadata and whose payload there is.
  std::string found() const
  {
    std::string const payload =
        fs::exists(m_db / WANTED_DAT) ? readText(m_db / WANTED_DAT) : "none";
    if (!fs::exists(m_db / WANTED_XML))
      return "none/" + payload;
    AutoDereference<Discovery> const record(getDiscoveryDBDatabase()->getDiscovery(WANTED_XML));
    return (record ? record->getAttributes()->getSignature().str().substr(0, 3) : "unreadable") +
           "/" + payload;
  }

  // The files that a start would not find, if it came now.
  std::set<std::string> strangers() const
  {
    std::set<std::string> names;
    for (auto const& entry : fs::directory_iterator(m_db.path()))
      names.insert(entry.path().filename());
    for (char const* const known : {WANTED_XML, WANTED_DAT, "Update.lock"})
      names.erase(known);
    return names;
  }

  // Persists with ever more pieces of memory until they suffice.
  void persistWithEverMore(bool replaces, bool longer)
  {
    long pieces = 0;
    for (;; ++pieces)
    {
      Database const fresh;
      if (replaces)
      {
        ASSERT_EQ(DS_SUCCESS, ready("old", !longer)->persist());
      }
      auto discovery = ready("new", longer);
      LogCapture log(1);
      DiscoveryStatus status = DS_NONE_FOUND;
      long refused = 0;
      {
        FailingMemory const memory(pieces, GetParam());
        status = discovery->persist();
        discovery.reset();
        refused = FailingMemory::refused();
      }
      std::string const state = found();
      std::string const before = replaces ? "old/old" : "none/none";
      if (status == DS_SUCCESS)
      {
        EXPECT_EQ("new/new", state) << pieces;
      }
      else
      {
        EXPECT_EQ(DS_OPEN_FAILED, status) << pieces;
        EXPECT_TRUE(state == before || state == "new/new") << pieces << ": " << state;
        EXPECT_FALSE(state == "new/new" &&
                     log.has(1, "DBDiscovery::persist", "Out of memory, nothing was stored"))
            << pieces << '\n'
            << log.text();
      }
      EXPECT_EQ(std::set<std::string>{}, strangers()) << pieces;
      if (refused == 0 || HasFailure())
        break;
    }
    RecordProperty("pieces", std::to_string(pieces));
    EXPECT_GT(pieces, 20);
  }
};

} // namespace

TEST_P(WantOfMemory, AReplacementLeavesTheOldDiscoveryOrTheNewOne)
{
  persistWithEverMore(true, false);
}

TEST_P(WantOfMemory, AReplacementByALongerDocumentDoesSo) { persistWithEverMore(true, true); }

TEST_P(WantOfMemory, AFirstDiscoveryIsThereOrNot) { persistWithEverMore(false, false); }

TEST_P(WantOfMemory, AListThrowsAndTheNextOneIsRight)
{
  for (char const* const subject : {"a", "b", "c"})
    writeText(m_db / ("2 hostA " + std::string(subject) + ".xml"),
              document(FUTURE, 1, "hostA", subject));
  getMetadataCache().limit(0);
  DiscoveryDBCreator& creator = *getDiscoveryDBDatabase();
  auto const list = [](DiscoveryIterator& iterator)
  {
    std::size_t count = 0;
    iterator.list([&count](ListedDiscovery const&) { return ++count > 0; });
    return count;
  };
  long pieces = 0;
  for (; pieces < ENOUGH_PIECES; ++pieces)
  {
    creator.keepIndex(true);
    AutoDereference<DiscoveryIterator> iterator(creator.getIterator(DQ_UNDEFINED));
    std::size_t count = 0;
    bool threw = false;
    long refused = 0;
    {
      FailingMemory const memory(pieces, GetParam());
      try
      {
        count = list(*iterator);
      }
      catch (std::bad_alloc const&)
      {
        threw = true;
      }
      refused = FailingMemory::refused();
    }
    EXPECT_EQ(threw, iterator->isIncomplete()) << pieces;
    EXPECT_TRUE(threw || count == 3) << pieces << ": " << count;
    iterator.reset(creator.getIterator(DQ_UNDEFINED));
    EXPECT_EQ(3u, list(*iterator)) << pieces;
    EXPECT_FALSE(iterator->isIncomplete()) << pieces;
    if (refused == 0 || HasFailure())
      break;
  }
  creator.keepIndex(false);
  getMetadataCache().limit(64 << 20);
  EXPECT_GT(pieces, 20);
}

INSTANTIATE_TEST_SUITE_P(Memory, WantOfMemory,
                         testing::Values(FailingMemory::NONE, FailingMemory::THE_REST),
                         [](auto const& after)
                         { return after.param == FailingMemory::NONE ? "Ends" : "LacksOnce"; });
