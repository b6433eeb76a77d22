#include "discovery/DiscDBMem.h"

#include "ozf/log/Assertion.h"
#include "ozf/orb/Corba.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <malloc.h>
#include <stdexcept>

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

namespace
{

struct Request
{
  DiscoveryQuery query;
  std::string authority;
  std::string subject;
  OZFRefCounted* context;
  std::string filter;
};

class PullExplorer : public ExplorerPull
{
public:
  std::function<bool(CollectionData&)> produce = [](CollectionData&) { return true; };
  std::vector<Request> requests;

  char const* getExplorerName() const override { return "TestPull"; }
  bool collectionRequested(DiscoveryQuery query, Authority const& authority, Subject const& subject,
                           AutoDereference<OZFRefCounted>& context, char const* filterText,
                           CollectionData* target) override
  {
    requests.push_back(
        {query, authority.getName().str(), subject.getName().str(), context.get(), filterText});
    return produce(*target);
  }
};

class PlainExplorer : public Explorer
{
public:
  char const* getExplorerName() const override { return "Plain"; }
};

AutoDereference<ExplorerQuery> makeQuery(Explorer* explorer, std::string const& subject = "host",
                                         std::string const& authority = "volume",
                                         AuthorityType type = AT_TQUCLIENT)
{
  AutoDereference<ExplorerWrapper> const entry(
      new ExplorerWrapper(explorer, 1, new Subject(subject), new Authority(authority, type)));
  return AutoDereference<ExplorerQuery>(new ExplorerQuery(entry));
}

std::string readEverything(CollectionData const& data, unsigned long step)
{
  std::string all;
  std::vector<char> buffer(step);
  for (long count = data.readCollection(step, buffer.data()); count > 0;
       count = data.readCollection(step, buffer.data()))
    all.append(buffer.data(), static_cast<std::size_t>(count));
  return all;
}

class DiscDBMemTest : public testing::Test
{
protected:
  AutoDereference<PullExplorer> m_explorer{new PullExplorer};
};

} // namespace

TEST_F(DiscDBMemTest, OpenForReadingAsksTheExplorerWithTheParts)
{
  auto const query = makeQuery(m_explorer.get(), "hostA", "volume");
  AutoDereference<PlainExplorer> const context(new PlainExplorer);
  query->getContext() = context;
  MemCollectionData data(query, DQ_FILTER_DATA);
  EXPECT_NE(data.open(OM_READ, "<FilterParameters/>"), 0);
  ASSERT_EQ(m_explorer->requests.size(), 1U);
  Request const& request = m_explorer->requests.front();
  EXPECT_EQ(request.query, DQ_FILTER_DATA);
  EXPECT_EQ(request.authority, "volume");
  EXPECT_EQ(request.subject, "hostA");
  EXPECT_EQ(request.context, context.get());
  EXPECT_EQ(request.filter, "<FilterParameters/>");
}

TEST_F(DiscDBMemTest, ReadsWhatTheExplorerWroteFromTheStart)
{
  m_explorer->produce = [](CollectionData& target)
  {
    EXPECT_NE(target.open(OM_UPDATE, ""), 0);
    EXPECT_NE(target.writeCollection(3, "abc"), 0);
    EXPECT_NE(target.writeCollection(2, "\0d"), 0);
    return true;
  };
  MemCollectionData data(makeQuery(m_explorer.get()), DQ_DISCOVERY_DATA);
  ASSERT_NE(data.open(OM_READ, ""), 0);
  char buffer[4] = {};
  EXPECT_EQ(data.readCollection(4, buffer), 4);
  EXPECT_EQ(std::string(buffer, 4), std::string("abc\0", 4));
  EXPECT_EQ(data.readCollection(4, buffer), 1);
  EXPECT_EQ(buffer[0], 'd');
  EXPECT_EQ(data.readCollection(4, buffer), 0);
  EXPECT_EQ(data.readCollection(4, buffer), 0);
}

TEST_F(DiscDBMemTest, LargePayloadsAreNotHeldInMemory)
{
  constexpr std::size_t PIECE = 1 << 20;
  constexpr int PIECES = 48;
  m_explorer->produce = [](CollectionData& target)
  {
    std::string piece(PIECE, ' ');
    for (int i = 0; i < PIECES; ++i)
    {
      std::fill(piece.begin(), piece.end(), static_cast<char>('A' + i));
      if (target.writeCollection(piece.size(), piece.data()) == 0)
        return false;
    }
    return true;
  };
  auto const inUse = []
  {
    auto const info = mallinfo2();
    return info.uordblks + info.hblkhd;
  };
  std::size_t const before = inUse();
  MemCollectionData data(makeQuery(m_explorer.get()), DQ_DISCOVERY_DATA);
  ASSERT_NE(data.open(OM_READ, ""), 0);
  EXPECT_LT(inUse(), before + 8 * PIECE);
  std::string piece(PIECE, ' ');
  for (int i = 0; i < PIECES; ++i)
  {
    ASSERT_EQ(data.readCollection(PIECE, piece.data()), long(PIECE));
    ASSERT_EQ(piece, std::string(PIECE, static_cast<char>('A' + i)));
  }
  EXPECT_EQ(data.readCollection(PIECE, piece.data()), 0);
}

TEST_F(DiscDBMemTest, OpenForUpdateAsksNobody)
{
  MemCollectionData data(makeQuery(m_explorer.get()), DQ_DISCOVERY_DATA);
  EXPECT_NE(data.open(OM_UPDATE, nullptr), 0);
  EXPECT_TRUE(m_explorer->requests.empty());
}

TEST_F(DiscDBMemTest, OpenFailsWhenTheExplorerProducesNothing)
{
  m_explorer->produce = [](CollectionData&) { return false; };
  auto const query = makeQuery(m_explorer.get());
  AutoDereference<Discovery> const discovery(
      getDiscoveryMemDatbase()->newDiscovery(query, DQ_DISCOVERY_DATA));
  EXPECT_EQ(discovery->open(OM_READ, ""), DS_OPEN_FAILED);
  m_explorer->produce = [](CollectionData&) { return true; };
  EXPECT_EQ(discovery->open(OM_READ, ""), DS_SUCCESS);
}

TEST_F(DiscDBMemTest, SecondOpenAsksAgainAndAppends)
{
  int run = 0;
  m_explorer->produce = [&run](CollectionData& target)
  {
    std::string const text = "run" + std::to_string(++run);
    return target.writeCollection(text.size(), text.data()) != 0;
  };
  MemCollectionData data(makeQuery(m_explorer.get()), DQ_DISCOVERY_DATA);
  ASSERT_NE(data.open(OM_READ, ""), 0);
  EXPECT_EQ(readEverything(data, 3), "run1");
  ASSERT_NE(data.open(OM_READ, ""), 0);
  EXPECT_EQ(readEverything(data, 3), "run1run2");
  EXPECT_EQ(m_explorer->requests.size(), 2U);
}

TEST_F(DiscDBMemTest, ReadsWhatIsWrittenAfterTheEndWasReached)
{
  MemCollectionData data(makeQuery(m_explorer.get()), DQ_DISCOVERY_DATA);
  EXPECT_EQ(readEverything(data, 8), "");
  EXPECT_NE(data.writeCollection(3, "abc"), 0);
  EXPECT_EQ(readEverything(data, 8), "abc");
}

TEST_F(DiscDBMemTest, AskingWithoutAFilterTextFailsAnAssertion)
{
  LogCapture log;
  MemCollectionData data(makeQuery(m_explorer.get()), DQ_DISCOVERY_DATA);
  EXPECT_THROW(data.open(OM_READ, nullptr), AssertionFailure);
  EXPECT_EQ(1, log.count(1, "MemCollectionData::open", "Assertion failed: filterParmaetersXml"))
      << log.text();
  EXPECT_TRUE(m_explorer->requests.empty());
}

TEST_F(DiscDBMemTest, AnEntryThatIsNoPullExplorerFailsAnAssertion)
{
  LogCapture log;
  AutoDereference<PlainExplorer> const plain(new PlainExplorer);
  MemCollectionData data(makeQuery(plain.get()), DQ_DISCOVERY_DATA);
  EXPECT_THROW(data.open(OM_READ, ""), AssertionFailure);
  EXPECT_EQ(1, log.count(1, "MemCollectionData::open", "Assertion failed: NULL != exp"))
      << log.text();
}

TEST_F(DiscDBMemTest, WhatAnExplorerThrowsIsALoggedFailure)
{
  LogCapture log;
  m_explorer->produce = [](CollectionData&) -> bool { throw std::runtime_error("disk gone"); };
  MemCollectionData data(makeQuery(m_explorer.get()), DQ_DISCOVERY_DATA);
  EXPECT_EQ(data.open(OM_READ, ""), 0);
  EXPECT_TRUE(log.has(1, "MemCollectionData::open", "Explorer TestPull failed: disk gone"))
      << log.text();

  m_explorer->produce = [](CollectionData&) -> bool { throw 5; };
  EXPECT_EQ(data.open(OM_READ, ""), 0);
  EXPECT_TRUE(
      log.has(1, "MemCollectionData::open", "Explorer TestPull failed: an exception of type int"))
      << log.text();

  m_explorer->produce = [](CollectionData&) -> bool { throw CORBA::NO_RESOURCES(); };
  EXPECT_EQ(data.open(OM_READ, ""), 0);
  EXPECT_NE(std::string::npos, log.text().find("Explorer TestPull failed: NO_RESOURCES"))
      << log.text();
}

TEST_F(DiscDBMemTest, FailedAssertionOfAnExplorerPasses)
{
  LogCapture log;
  m_explorer->produce = [](CollectionData&) -> bool
  { assertionFailed("false", "PullExplorer::collectionRequested", "DiscDBMemTest", __LINE__); };
  MemCollectionData data(makeQuery(m_explorer.get()), DQ_DISCOVERY_DATA);
  EXPECT_THROW(data.open(OM_READ, ""), AssertionFailure);
}

TEST_F(DiscDBMemTest, PersistStoresNothing)
{
  AutoDereference<Discovery> const discovery(
      getDiscoveryMemDatbase()->newDiscovery(makeQuery(m_explorer.get()), DQ_FILTER_DATA));
  EXPECT_EQ(discovery->getQuery(), DQ_FILTER_DATA);
  EXPECT_EQ(discovery->persist(), DS_SUCCESS);
  EXPECT_TRUE(m_explorer->requests.empty());
}

TEST_F(DiscDBMemTest, PersistTouchesNoFile)
{
  TempDir root;
  setenv("TESSARINE_ROOT", root.path().c_str(), 1);
  TempDir work;
  std::filesystem::current_path(work.path());
  AutoDereference<Discovery> const discovery(
      getDiscoveryMemDatbase()->newDiscovery(makeQuery(m_explorer.get()), DQ_DISCOVERY_DATA));
  discovery->setSubject(new Subject("host"));
  discovery->setAuthority(new Authority("volume", AT_TQUCLIENT));
  ASSERT_EQ(DS_SUCCESS, discovery->open(OM_UPDATE, ""));
  ASSERT_EQ(1, discovery->getCollectionData()->writeCollection(4, "data"));
  EXPECT_EQ(DS_SUCCESS, discovery->persist());
  EXPECT_TRUE(std::filesystem::is_empty(root.path()));
  EXPECT_TRUE(std::filesystem::is_empty(work.path()));
  std::filesystem::current_path("/");
}

TEST_F(DiscDBMemTest, KeepsOneReferenceToTheQuery)
{
  auto const query = makeQuery(m_explorer.get());
  {
    MemCollectionData const data(query, DQ_DISCOVERY_DATA);
    EXPECT_EQ(query->referenceCount(), 2);
  }
  EXPECT_EQ(query->referenceCount(), 1);
}

TEST_F(DiscDBMemTest, IteratorOverNothingIsAtItsEnd)
{
  AutoDereference<DiscoveryIterator> const iterator(
      getDiscoveryMemDatbase()->getIterator(ExplorerQuerySet{}, DQ_DISCOVERY_DATA));
  EXPECT_EQ(iterator->getNext(), nullptr);
  EXPECT_EQ(iterator->getNext(), nullptr);
}

TEST_F(DiscDBMemTest, IteratorGivesADiscoveryForEachQueryInTheSetsOrder)
{
  ExplorerQuerySet queries;
  for (char const* subject : {"c", "a", "b"})
    queries.insert(makeQuery(m_explorer.get(), subject));
  ASSERT_EQ(queries.size(), 3U);
  AutoDereference<DiscoveryIterator> const iterator(
      getDiscoveryMemDatbase()->getIterator(queries, DQ_FILTER_DATA));
  for (char const* subject : {"a", "b", "c"})
  {
    AutoDereference<Discovery> const discovery(iterator->getNext());
    ASSERT_TRUE(discovery);
    EXPECT_EQ(discovery->referenceCount(), 1);
    EXPECT_EQ(discovery->getSubject()->getName().str(), subject);
    EXPECT_EQ(discovery->getAuthority()->getName().str(), "volume");
    EXPECT_EQ(discovery->getAuthority()->getType(), AT_TQUCLIENT);
    EXPECT_EQ(discovery->getAttributes(), nullptr);
    EXPECT_EQ(discovery->getQuery(), DQ_FILTER_DATA);
  }
  EXPECT_EQ(iterator->getNext(), nullptr);
  EXPECT_TRUE(m_explorer->requests.empty());
}

TEST_F(DiscDBMemTest, IteratorCopiesFileKeysAndStatusMessages)
{
  AutoDereference<StatusMsg> const about(new StatusMsg(1, StatusMsg::WARNING, "s"));
  AutoDereference<StatusMsg> const by(new StatusMsg(2, StatusMsg::WARNING, "a"));
  AutoDereference<ExplorerWrapper> const entry(
      new ExplorerWrapper(m_explorer.get(), 1, new Subject("host 1", about.get()),
                          new Authority("vol/2", AT_TQUCLIENT, by.get())));
  ExplorerQuerySet queries;
  queries.insert(AutoDereference<ExplorerQuery>(new ExplorerQuery(entry)));
  AutoDereference<DiscoveryIterator> const iterator(
      getDiscoveryMemDatbase()->getIterator(queries, DQ_DISCOVERY_DATA));
  AutoDereference<Discovery> const discovery(iterator->getNext());
  ASSERT_TRUE(discovery);
  EXPECT_EQ("host%201", discovery->getSubject()->getFileKey().str());
  EXPECT_EQ(about.get(), discovery->getSubject()->getStatusMsg());
  EXPECT_EQ("vol%2F2", discovery->getAuthority()->getFileKey().str());
  EXPECT_EQ(by.get(), discovery->getAuthority()->getStatusMsg());
  EXPECT_NE((*queries.begin())->getSubject(), discovery->getSubject()) << "a copy";
}

TEST_F(DiscDBMemTest, IteratorWorksOnACopyOfTheSet)
{
  ExplorerQuerySet queries;
  queries.insert(makeQuery(m_explorer.get(), "a"));
  AutoDereference<DiscoveryIterator> const iterator(
      getDiscoveryMemDatbase()->getIterator(queries, DQ_DISCOVERY_DATA));
  queries.clear();
  AutoDereference<Discovery> const discovery(iterator->getNext());
  EXPECT_TRUE(discovery);
}

TEST_F(DiscDBMemTest, CreatorIsTheSameEachTime)
{
  EXPECT_EQ(getDiscoveryMemDatbase(), getDiscoveryMemDatbase());
}
