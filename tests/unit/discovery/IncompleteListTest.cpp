// Lists that lack what the system failed to hand out say so to whoever asked.

#include "discovery/CombiningIterator.h"
#include "discovery/DiscDB.h"
#include "discovery/DiscoveryRepository.h"
#include "discovery/DiscoveryService_iIterators.h"
#include "discovery/FilterDescription.h"
#include "discovery/RemoteDB.h"
#include "discovery/Researcher.h"
#include "tests/support/FakeDiscoveries.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Service.h"
#include "tests/unit/discovery/SystemCalls.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sys/stat.h>

namespace
{

using namespace tqtest;

constexpr int RECORDS = 20;

class IncompleteListTest : public testing::Test
{
protected:
  void SetUp() override
  {
    host.start();
    // What is told here of one list after the other is told of walks; what the
    // index does about errors is in DiscDBIndexTest.cpp.
    getDiscoveryDBDatabase()->keepIndex(false);
    for (int i = 0; i < RECORDS; ++i)
      ASSERT_EQ(DS_SUCCESS, Service::store("s" + std::to_string(i), "a"));
  }

  // Answers the calls that begin so with the error.
  static SystemCalls::Answer failing(std::string const& beginning, int error)
  {
    return [=](std::string const& call) { return call.starts_with(beginning) ? error : 0; };
  }

  static AutoDereference<DiscoveryIterator> query(std::string const& subject = "*",
                                                  AuthorityType type = AT_ANYANDALL)
  {
    return AutoDereference<DiscoveryIterator>(
        getDiscoveryRepository().queryDiscoveries(DQ_DISCOVERY_DATA, subject, "a", type));
  }
  static int drain(DiscoveryIterator& iterator)
  {
    int count = 0;
    while (AutoDereference<Discovery>(iterator.getNext()))
      ++count;
    return count;
  }
  // As another host asks.
  AutoDereference<RemoteDiscoveryIterator> queryFromElsewhere()
  {
    Remote::DiscoveryService_var const service = host.connect();
    Remote::DiscoveryIterator_var const records =
        service->queryDiscoveries(DQ_DISCOVERY_DATA, AT_ANYANDALL, "*", "a");
    return AutoDereference<RemoteDiscoveryIterator>(
        new RemoteDiscoveryIterator(AT_ANYANDALL, "*", "a", records));
  }

  Service host;
  LogCapture log;
};

struct Fault
{
  char const* call;
  int error;
  int left; // records
};

} // namespace

TEST_F(IncompleteListTest, WithoutAFaultItIsComplete)
{
  auto const iterator = query();
  EXPECT_EQ(RECORDS, drain(*iterator));
  EXPECT_FALSE(iterator->isIncomplete());
  auto const remote = queryFromElsewhere();
  EXPECT_EQ(RECORDS, drain(*remote));
  EXPECT_FALSE(remote->isIncomplete());
}

TEST_F(IncompleteListTest, WhatTheSystemFailsToReadIsMissedHereAndElsewhere)
{
  for (auto const& [call, error, left] :
       {Fault{"open 2 a s7.xml", EIO, RECORDS - 1}, Fault{"open 2 a s7.xml", EMFILE, RECORDS - 1},
        Fault{"open 2 a s7.xml", EACCES, RECORDS - 1}, Fault{"pread 2 a s7.xml", EIO, RECORDS - 1},
        Fault{"fcntl setlk read 2 a s7.xml", ENOLCK, RECORDS - 1}, Fault{"open 2 a s", EIO, 0},
        Fault{"opendir .", EMFILE, 0}, Fault{"readdir .", EIO, 0}})
  {
    SystemCalls const watched(host.database(),
                              [call = std::string(call), error = error](std::string const& seen)
                              { return seen.starts_with(call) ? error : 0; });
    auto const iterator = query();
    EXPECT_EQ(left, drain(*iterator)) << call << " " << error;
    EXPECT_TRUE(iterator->isIncomplete()) << call << " " << error;

    auto const remote = queryFromElsewhere();
    EXPECT_EQ("", remote->failure()) << call << " " << error;
    EXPECT_EQ(left, drain(*remote)) << "what could be read is kept: " << call << " " << error;
    EXPECT_TRUE(remote->isIncomplete()) << call << " " << error;
    EXPECT_EQ(0u, host.orb().getEvictor().size()) << "and the iterator is released";
  }
  EXPECT_TRUE(log.has(1, "DBDiscovery::load",
                      "Unable to read " + host.database() + "/2 a s7.xml: Input/output error (5)"))
      << log.text();
  EXPECT_TRUE(log.has(1, "DBDiscoveryIterator::getNext",
                      "Unable to read directory " + host.database() + ": Input/output error (5)"))
      << log.text();
  EXPECT_TRUE(log.has(1, "RemoteDiscoveryIterator::RemoteDiscoveryIterator",
                      "Some discoveries are missing, the other host could not read them all"))
      << log.text();
}

TEST_F(IncompleteListTest, AnErrorInTheMiddleOfTheDirectoryKeepsWhatCameBefore)
{
  int reads = 0;
  SystemCalls const watched(host.database(), [&](std::string const& call)
                            { return call == "readdir ." && ++reads == 10 ? EIO : 0; });
  auto const iterator = query();
  int const count = drain(*iterator);
  EXPECT_LT(count, RECORDS);
  EXPECT_TRUE(iterator->isIncomplete());
  EXPECT_EQ(nullptr, iterator->getNext()) << "it stays at its end";
}

TEST_F(IncompleteListTest, AQueryForOneNameSaysSoToo)
{
  SystemCalls const watched(host.database(), failing("open 2 a s7.xml", EIO));
  auto const one = query("s7", AT_TQUCLIENT);
  EXPECT_EQ(0, drain(*one));
  EXPECT_TRUE(one->isIncomplete()) << "there may be such a discovery";
  auto const other = query("s8", AT_TQUCLIENT);
  EXPECT_EQ(1, drain(*other));
  EXPECT_FALSE(other->isIncomplete());
}

TEST_F(IncompleteListTest, WhatIsAbsentExpiredOrDamagedIsNotMissed)
{
  std::filesystem::remove(host.database() + "/2 a s1.xml");
  writeText(host.database() + "/2 a s2.xml", "");
  writeText(host.database() + "/2 a s3.xml", "no document");
  std::filesystem::create_directory(host.database() + "/2 a directory.xml");
  auto const iterator = query();
  EXPECT_EQ(RECORDS - 3, drain(*iterator));
  EXPECT_FALSE(iterator->isIncomplete());
  auto const absent = query("absent", AT_TQUCLIENT);
  EXPECT_EQ(0, drain(*absent));
  EXPECT_FALSE(absent->isIncomplete());
}

TEST_F(IncompleteListTest, ThePagesEndWithAnExceptionInsteadOfAnEmptyOne)
{
  SystemCalls const watched(host.database(), failing("open 2 a s7.xml", EIO));
  Remote::DiscoveryService_var const service = host.connect();
  Remote::DiscoveryIterator_var const records =
      service->queryDiscoveries(DQ_DISCOVERY_DATA, AT_ANYANDALL, "*", "a");
  for (unsigned const length : {9u, 9u, 1u})
  {
    Remote::DiscoverySeq_var const page = records->getNextPage();
    EXPECT_EQ(length, page->length());
  }
  EXPECT_THROW(Remote::DiscoverySeq_var(records->getNextPage()), CORBA::PERSIST_STORE);
  EXPECT_THROW(Remote::DiscoverySeq_var(records->getNextPage()), CORBA::PERSIST_STORE);
  records->release();
}

TEST_F(IncompleteListTest, WantOfMemoryIsNoMemoryAndNeverAShortList)
{
  for (char const* const call : {"open 2 a s7.xml", "pread 2 a s7.xml", "opendir .", "readdir ."})
  {
    bool once = true;
    SystemCalls const watched(host.database(),
                              [&](std::string const& seen)
                              {
                                bool const fails = once && seen == call;
                                once = once && !fails;
                                return fails ? ENOMEM : 0;
                              });
    Remote::DiscoveryService_var const service = host.connect();
    Remote::DiscoveryIterator_var const records =
        service->queryDiscoveries(DQ_DISCOVERY_DATA, AT_ANYANDALL, "*", "a");
    bool noMemory = false;
    bool ended = false;
    // A caller who goes on all the same does not come to an orderly end.
    for (int pages = 0; !ended && pages < RECORDS; ++pages)
    {
      try
      {
        Remote::DiscoverySeq_var const page = records->getNextPage();
        ASSERT_NE(0u, page->length()) << call;
      }
      catch (CORBA::NO_MEMORY const&)
      {
        noMemory = true;
      }
      catch (CORBA::PERSIST_STORE const&)
      {
        ended = true;
      }
    }
    EXPECT_TRUE(noMemory) << call;
    EXPECT_TRUE(ended) << call;
    records->release();
  }
}

TEST_F(IncompleteListTest, TheResearchApiPassesItOn)
{
  SystemCalls const watched(host.database(), failing("open 2 a s7.xml", EIO));
  auto const discoveries = getAuthSubIterator(DQ_DISCOVERY_DATA, "*", "a", AT_ANYANDALL);
  ASSERT_TRUE(discoveries);
  int count = 0;
  while (
      AutoDereference<CollectionItemIterator>(discoveries->getNextCollectionItemIterator(nullptr)))
    ++count;
  EXPECT_EQ(RECORDS - 1, count);
  EXPECT_TRUE(discoveries->isIncomplete());
  AutoDereference<FilterDescription> const description(new FilterDescription("a", "*"));
  EXPECT_TRUE(description->isIncomplete());
  AutoDereference<FilterDescription> const other(new FilterDescription("b", "*"));
  EXPECT_FALSE(other->isIncomplete());
}

TEST_F(IncompleteListTest, ACombinationIsWhatItsChildrenAre)
{
  struct Incomplete : FakeIterator
  {
    Incomplete() : DiscoveryIterator(AT_ANYANDALL, "*", "*") {}
    using DiscoveryIterator::setIncomplete;
  };
  AutoDereference<Incomplete> const broken(new Incomplete);
  AutoDereference<FakeIterator> const sound(new FakeIterator);
  sound->add(new FakeDiscovery("subject", ""));
  AutoDereference<DiscoveryIterator> const both(
      new CombiningIterator(AT_ANYANDALL, "*", "*", {broken, sound}));
  broken->setIncomplete();
  EXPECT_FALSE(both->isIncomplete());
  EXPECT_EQ(1, drain(*both));
  EXPECT_TRUE(both->isIncomplete());
}
