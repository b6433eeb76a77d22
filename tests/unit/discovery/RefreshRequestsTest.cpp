// Explorers that are to run before their interval is over.

#include "discovery/RefreshRequests.h"

#include "discovery/DiscoveryRepository.h"
#include "tests/support/FakeDiscoveries.h"
#include "tests/support/FakeExplorers.h"
#include "tests/support/Service.h"

#include <gtest/gtest.h>

using namespace tqtest;

namespace
{

using Quillon::Tessarine::Ozf::OzfObjTime;

struct RequestsFound : FakeIterator
{
  RequestsFound() : DiscoveryIterator(AT_ANYANDALL, "*", "*") {}

  void breakOff() { setIncomplete(); }
};

Discovery* onDemand(char const* subject, char const* authority)
{
  return new FakeDiscovery(new Authority(authority, AT_EXTSRC), new Subject(subject),
                           new TextCollection(""));
}

Discovery* request(char const* subject, char const* authority)
{
  Discovery* const made = onDemand(subject, authority);
  made->setAttributes(new CollectionAttributes(CT_POINT_IN_TIME, CS_CENTRALREPOSITORY,
                                               OzfObjTime(5000), OzfObjTime(600), 1));
  return made;
}

struct RefreshRequestsTest : testing::Test
{
  void SetUp() override
  {
    host.start();
    for (char const* const name : {"disks", "fans"})
    {
      explorers[name].reset(new FakePush(name, nullptr, 3600));
      entries.insert(AutoDereference<ExplorerWrapper>(new ExplorerWrapper(
          explorers[name].get(), 1, new Subject("here"), new Authority(name, AT_TQUCLIENT))));
    }
    rest();
  }

  // All have just run.
  void rest()
  {
    for (auto const& [name, explorer] : explorers)
      explorer->setLastExplorationTime(OzfObjTime(1000));
  }

  static void ask(std::string const& subject, std::string const& authority)
  {
    ASSERT_EQ(DS_SUCCESS, Service::store(subject, authority, AT_EXTSRC));
  }

  // The names of those that are due after a call for the push timer.
  std::string due()
  {
    requests.noteCall();
    return obeyed(
        []
        {
          return getDiscoveryRepository().queryDiscoveries(DQ_DISCOVERY_DATA, "*", REFRESH_PATTERN,
                                                           AT_EXTSRC);
        });
  }

  std::string obeyed(RefreshRequests::Query const& query)
  {
    requests.obey(query, entries);
    std::string names;
    for (auto const& [name, explorer] : explorers)
      names += explorer->getLastExplorationTime().isZero() ? name + ' ' : "";
    rest();
    return names;
  }

  Service host;
  std::map<std::string, AutoDereference<FakePush>> explorers;
  ExplorerSet entries;
  RefreshRequests requests;
};

} // namespace

TEST_F(RefreshRequestsTest, aRequestMakesAllExplorersDueOrThoseOfOneAuthority)
{
  EXPECT_EQ("", due());
  ask("here", "refresh.fans");
  EXPECT_EQ("fans ", due());
  ask("HERE", "refresh");
  EXPECT_EQ("disks fans ", due());
  ask("all", "refresh.Disks");
  EXPECT_EQ("disks ", due());
}

TEST_F(RefreshRequestsTest, aRequestIsObeyedOnceAndANewOneAgain)
{
  auto const at = [](std::int64_t seconds)
  {
    AutoDereference<Discovery> discovery;
    getDiscoveryRepository().newDiscovery(
        discovery, DQ_DISCOVERY_DATA, Subject("here"), Authority("refresh", AT_EXTSRC),
        CollectionAttributes(CT_POINT_IN_TIME, CS_CENTRALREPOSITORY, OzfObjTime(seconds),
                             OzfObjTime(600), 1));
    ASSERT_EQ(DS_SUCCESS, discovery->open(OM_UPDATE, ""));
    discovery->getCollectionData()->writeCollection(4, "<x/>");
    ASSERT_EQ(DS_SUCCESS, discovery->persist());
  };
  at(5000);
  EXPECT_EQ("disks fans ", due());
  EXPECT_EQ("", due());
  at(5001);
  EXPECT_EQ("disks fans ", due());
}

TEST_F(RefreshRequestsTest, whatIsAboutOthersOrOfAnotherKindIsNoRequest)
{
  ask("there", "refresh");
  ask("here", "refreshing");
  ask("here", "refresh.pumps");
  ASSERT_EQ(DS_SUCCESS, Service::store("here", "refresh", AT_TQUCLIENT));
  EXPECT_EQ("", due());
}

TEST_F(RefreshRequestsTest, theSameRequestInAnotherLetterCaseIsNoNewOne)
{
  auto const one = [](char const* subject, char const* authority)
  {
    return [=]
    {
      auto* const found = new RequestsFound;
      found->add(request(subject, authority));
      return found;
    };
  };
  requests.noteCall();
  EXPECT_EQ("fans ", obeyed(one("here", "refresh.fans")));
  requests.noteCall();
  EXPECT_EQ("", obeyed(one("HERE", "refresh.FANS")));
}

TEST_F(RefreshRequestsTest, aRequestBehindManyCollectionsOnDemandIsObeyed)
{
  requests.noteCall();
  EXPECT_EQ("disks fans ", obeyed(
                               []
                               {
                                 auto* const found = new RequestsFound;
                                 for (int i = 0; i < 10001; ++i)
                                   found->add(onDemand("here", "refresh"));
                                 found->add(request("here", "refresh"));
                                 return found;
                               }));
}

TEST_F(RefreshRequestsTest, requestsAreLookedForOnceForCallsOfThePushTimer)
{
  int looks = 0;
  auto const look = [&looks]
  {
    ++looks;
    return new RequestsFound;
  };
  EXPECT_EQ("", obeyed(look));
  EXPECT_EQ(0, looks);
  requests.noteCall();
  requests.noteCall();
  EXPECT_EQ("", obeyed(look));
  EXPECT_EQ("", obeyed(look));
  EXPECT_EQ(1, looks);
}

TEST_F(RefreshRequestsTest, theyAreLookedForAgainWhenNotAllWereToBeHad)
{
  requests.noteCall();
  EXPECT_EQ("", obeyed([] { return nullptr; }));
  EXPECT_EQ("", obeyed(
                    []
                    {
                      auto* const found = new RequestsFound;
                      found->breakOff();
                      return found;
                    }));
  auto const whole = []
  {
    auto* const found = new RequestsFound;
    found->add(request("here", "refresh.fans"));
    return found;
  };
  EXPECT_EQ("fans ", obeyed(whole));
}
