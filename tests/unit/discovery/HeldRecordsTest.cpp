#include "discovery/HeldRecords.h"

#include "discovery/DiscoveryService_i.h"
#include "discovery/DiscoveryService_iIterators.h"
#include "discovery/RemoteDB.h"
#include "ozf/orb/ConnectionTable.h"
#include "tests/support/AuditCapture.h"
#include "tests/support/RemoteService.h"

#include <gtest/gtest.h>

using namespace tqtest;

namespace
{

// Readers of a service that is not the master: each query of theirs has the
// master's list behind it.
struct HeldRecordsTest : RemoteServiceTest
{
  struct Reader
  {
    Remote::DiscoveryIterator_var iterator;
    bool complete = false;
  };

  void SetUp() override
  {
    RemoteServiceTest::SetUp();
    auto const start = std::chrono::steady_clock::now();
    m_orb->getEvictor().setClock([this, start] { return start + std::chrono::seconds(m_seconds); });
  }
  void TearDown() override
  {
    HeldRecords::setMost(0, 0);
    RemoteServiceTest::TearDown();
  }

  // A reader's query, as the servant answers it; a second later than the one
  // before.
  Reader query(std::size_t records)
  {
    ++m_seconds;
    serveRecords({std::vector<Remote::Discovery>(records, makeRecord())});
    AutoDereference<RemoteDiscoveryIterator> const list(
        new RemoteDiscoveryIterator(AT_TQUCLIENT, "*", "*", m_service->records));
    Reader reader;
    reader.complete = list->failure().empty();
    if (!reader.complete)
      return reader;
    auto* const servant = new Remote::DiscoveryIterator_i(list.get());
    PortableServer::ServantBase_var const keeper(servant);
    CORBA::Object_var const object = m_orb->activateEvictable(
        servant, Remote::DiscoveryIterator_i::REPOSITORY_ID, servant->objectId().out());
    Remote::add2Evictor(servant->objectId().in(), m_orb->getEvictingPOA(), *m_orb,
                        Remote::ITERATOR_TIMEOUT);
    reader.iterator = Remote::DiscoveryIterator::_narrow(object);
    return reader;
  }

  static bool answers(Reader const& reader)
  {
    try
    {
      reader.iterator->pageSize();
      return true;
    }
    catch (CORBA::OBJECT_NOT_EXIST const&)
    {
      return false;
    }
  }

  int lines() const
  {
    return m_log.count(1, "HeldRecords::add",
                       "More than 100 discoveries of other hosts or 536870912 bytes held for "
                       "readers, dropped the list of the one idle longest for a query of this "
                       "service");
  }

  std::atomic<int> m_seconds{0};
};

} // namespace

TEST_F(HeldRecordsTest, TheListOfTheReaderIdleLongestGoesFirst)
{
  HeldRecords::setMost(100, 0);
  Reader const first = query(40);
  Reader const second = query(40);
  ++m_seconds;
  ASSERT_TRUE(answers(first)) << "which makes the second the one idle longest";
  EXPECT_EQ(0, lines()) << m_log.text();
  Reader const third = query(40);
  EXPECT_TRUE(third.complete) << m_log.text();
  EXPECT_EQ(1, lines()) << m_log.text();
  EXPECT_TRUE(answers(first));
  EXPECT_FALSE(answers(second));
  EXPECT_TRUE(answers(third));
}

TEST_F(HeldRecordsTest, ManyReadersHoldNoMoreThanTheBound)
{
  std::size_t const most = 1 << 18;
  HeldRecords::setMost(0, most);
  std::vector<Reader> readers;
  for (int i = 0; i < 40; ++i)
    readers.push_back(query(100));
  Reader const last = query(100);
  EXPECT_TRUE(last.complete);
  long alive = 0;
  for (auto const& reader : readers)
    alive += answers(reader) ? 1 : 0;
  EXPECT_LE(alive * 100 * static_cast<long>(sizeof(Remote::Discovery)), static_cast<long>(most));
  EXPECT_LT(alive, 40);
  EXPECT_GT(alive, 5);
}

TEST_F(HeldRecordsTest, AnAnswerForWhichNothingCanGoIsAFailureAndWhatItTookIsGivenBack)
{
  HeldRecords::setMost(100, 0);
  Reader const given = query(60);
  Peer peer;
  peer.address = "192.0.2.7";
  AuditCapture const audit;
  {
    PeerOfCall const from(&peer);
    EXPECT_FALSE(query(101).complete);
  }
  EXPECT_FALSE(answers(given)) << "its list went, and was not enough";
  EXPECT_TRUE(m_log.has(1, "HeldRecords::add",
                        "More than 100 discoveries of other hosts or 536870912 bytes held for "
                        "readers, no list of another can go for a query of 192.0.2.7, which fails"))
      << m_log.text();
  EXPECT_TRUE(audit.has("queryDiscoveries", "*", "*",
                        "refused: the answers of other hosts that are held for readers take too "
                        "much"))
      << audit.text();
  EXPECT_TRUE(m_log.has(1, "RemoteDiscoveryIterator::RemoteDiscoveryIterator",
                        "Failed to fetch discoveries: the answers of other hosts that are held "
                        "for readers take too much"))
      << m_log.text();
  Reader const whole = query(100);
  EXPECT_TRUE(whole.complete);
  EXPECT_TRUE(answers(whole));
}

TEST_F(HeldRecordsTest, WhatAReaderHasReadIsNotHeldAnyMore)
{
  HeldRecords::setMost(100, 0);
  Reader const first = query(80);
  first.iterator->pageSize(200);
  Remote::DiscoverySeq_var const page = first.iterator->getNextPage();
  ASSERT_EQ(80U, page->length());
  Reader const second = query(80);
  EXPECT_TRUE(second.complete);
  EXPECT_TRUE(answers(first));
  EXPECT_EQ(0, lines()) << m_log.text();
}
