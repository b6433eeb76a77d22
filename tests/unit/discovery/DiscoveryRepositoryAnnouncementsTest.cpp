// Registrations that other hosts send: while the service starts, in this host's
// name, and those that lose.

#include "discovery/DiscoveryRepository.h"

#include "discovery/DiscDB.h"
#include "discovery/ExplorerRemotePull.h"
#include "tests/support/FakeExplorers.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Service.h"

#include <future>

using namespace tqtest;

namespace
{

using Quillon::Tessarine::Ozf::DiscoverySvc::Registration;

constexpr char ANNOUNCED[] = "DiscoveryService_i::registerExplorer";
constexpr unsigned HIGHEST = 0xFFFFFFFF;

class MasterRepository : public DiscoveryRepository
{
public:
  bool isGenericDSOnMaster() const override { return true; }
};

Registration announce(DiscoveryRepository& repository, std::string const& subject,
                      std::string const& authority, AuthorityType type, unsigned priority,
                      bool fromCache = false)
{
  AutoDereference<RemoteExplorerPull> const explorer(
      new RemoteExplorerPull("DiscoveryService", "elsewhere", subject, authority, type));
  return repository.registerExplorer(new Subject(subject), explorer.get(), priority,
                                     new Authority(authority, type), fromCache);
}

// What stands in a set: "authority subject explorer".
std::vector<std::string> standing(DiscoveryRepository::Snapshot const& entries)
{
  std::vector<std::string> texts;
  for (auto const& entry : *entries)
    texts.push_back(entry->getAuthority()->getName().str() + ' ' +
                    entry->getSubject()->getName().str() + ' ' +
                    entry->getExplorer()->getExplorerName());
  return texts;
}

using Standing = std::vector<std::string>;

struct OwnExplorersTest : testing::Test
{
  TempDir root;
  MasterRepository repository;

  void SetUp() override
  {
    setenv("TESSARINE_ROOT", root.path().c_str(), 1);
    std::filesystem::create_directories(root / "etc");
    writeText(root / "etc/tq.conf", "SERVER = here\nCLIENT_NAME = here.example.net\n"
                                    "HOST_ADDRESS.far = 192.0.2.7\n");
    ASSERT_TRUE(reloadConfiguration());
    getDiscoveryDBDatabase()->init("");
  }

  void registerOwn(std::string const& subject)
  {
    AutoDereference<FakePush> const pusher(new FakePush("own-push"));
    repository.registerExplorer(new Subject(subject), pusher.get(), 10,
                                new Authority("filesystem", AT_TQUCLIENT));
    AutoDereference<FakePull> const puller(new FakePull("own-pull"));
    repository.registerExplorer(new Subject(subject), puller.get(), 10,
                                new Authority("volume", AT_TQUCLIENT), false);
  }

  bool hasCache() const
  {
    for (auto const& entry : std::filesystem::directory_iterator(root / "db/discovery"))
      if (entry.path().filename().string().starts_with("4 "))
        return true;
    return false;
  }
};

// A service of this host; explorers of its own are registered before it starts.
struct AnnouncingTest : testing::Test
{
  Service host;
  LogCapture log;

  static std::string sourceOf(std::string const& subject)
  {
    auto const entries = getDiscoveryRepository().getPullExplorers();
    for (auto const& entry : *entries)
      if (entry->getSubject()->getName().str() == subject)
        if (auto const* const remote =
                dynamic_cast<RemoteExplorerPull const*>(entry->getExplorer()))
          return remote->getHost().exportNarrow();
    return {};
  }
};

} // namespace

TEST_F(OwnExplorersTest, AnnouncementsInThisHostsNameLeaveItsOwnExplorersAlone)
{
  std::string const own = "here.example.net";
  registerOwn(own);
  Standing const pushed{"filesystem here.example.net own-push"};
  Standing const pulled{"volume here.example.net own-pull"};
  for (std::string const& subject : {own, std::string("HERE.example.net")})
    for (auto const& [authority, type] :
         {std::pair<std::string, AuthorityType>{"anything", AT_REMOTEPULL},
          {"filesystem", AT_TQUCLIENT},
          {"volume", AT_TQUCLIENT}})
    {
      auto const registration = announce(repository, subject, authority, type, HIGHEST);
      EXPECT_EQ(Registration::OWN, registration.result) << subject << ' ' << authority;
      ASSERT_TRUE(registration.standing);
      EXPECT_EQ(10u, registration.standing->getPriority());
      EXPECT_EQ(pushed, standing(repository.getPushExplorers()));
      EXPECT_EQ(pulled, standing(repository.getPullExplorers()));
    }
  EXPECT_FALSE(hasCache()) << "a refused one would be back after the next start";
}

TEST_F(OwnExplorersTest, TheShortNameOfThisHostCountsAsItsName)
{
  registerOwn("here");
  EXPECT_EQ(Registration::OWN,
            announce(repository, "here", "anything", AT_REMOTEPULL, HIGHEST).result);
}

TEST_F(OwnExplorersTest, WhatDoesNotCompeteStandsBesideThem)
{
  registerOwn("here");
  EXPECT_EQ(Registration::TAKEN, announce(repository, "here", "another", AT_TQUCLIENT, 10).result);
  EXPECT_EQ((Standing{"another here RemotePullExplorer", "volume here own-pull"}),
            standing(repository.getPullExplorers()));
  EXPECT_TRUE(hasCache());
}

TEST_F(OwnExplorersTest, ForOtherSubjectsAndFromTheCacheThePrioritiesDecide)
{
  registerOwn("far");
  EXPECT_EQ(Registration::LOST, announce(repository, "far", "any", AT_REMOTEPULL, 9).result);
  EXPECT_EQ(Registration::TAKEN, announce(repository, "far", "any", AT_REMOTEPULL, 10).result);
  EXPECT_EQ((Standing{"any far RemotePullExplorer"}), standing(repository.getPullExplorers()));
  EXPECT_TRUE(repository.getPushExplorers()->empty());

  registerOwn("here");
  EXPECT_EQ(Registration::TAKEN,
            announce(repository, "here", "any", AT_REMOTEPULL, 10, true).result);
  EXPECT_TRUE(repository.getPushExplorers()->empty());
}

TEST_F(AnnouncingTest, ARefusedAnnouncementIsToldWithWhatStands)
{
  host.start();
  auto const service = host.connect();
  ASSERT_FALSE(CORBA::is_nil(service));
  service->registerExplorer("old", "DiscoveryService", "web7", "volume", AT_REMOTEPULL, 9);
  EXPECT_EQ(std::string::npos, log.text().find("Refused")) << log.text();

  service->registerExplorer("new", "DiscoveryService", "web7", "disks", AT_TQUCLIENT, 8);
  EXPECT_EQ("old", sourceOf("web7"));
  EXPECT_TRUE(log.has(1, ANNOUNCED, "Registered explorer: new DiscoveryService web7 disks 8"))
      << log.text();
  EXPECT_TRUE(
      log.has(1, ANNOUNCED,
              "Refused the registration of web7 disks, priority 8, by this service: the entry "
              "of authority volume, type 4, priority 9 from host old is of higher priority; "
              "\"tqdiscoctl db forget\" with its names on this host removes it, once the "
              "service is started anew"))
      << log.text();
}

TEST_F(AnnouncingTest, AnAnnouncementInThisHostsNameIsToldWithWhatStands)
{
  AutoDereference<FakePush> const pusher(new FakePush("own-push", nullptr, 3600));
  getDiscoveryRepository().registerExplorer(new Subject("here"), pusher.get(), 10,
                                            new Authority("filesystem", AT_TQUCLIENT));
  host.start();
  auto const service = host.connect();
  ASSERT_FALSE(CORBA::is_nil(service));
  service->registerExplorer("evil", "DiscoveryService", "here", "x", AT_REMOTEPULL, -1);
  EXPECT_EQ((Standing{"filesystem here own-push"}),
            standing(getDiscoveryRepository().getPushExplorers()));
  EXPECT_TRUE(
      log.has(1, ANNOUNCED,
              "Refused the registration of here x, priority 4294967295, by this service: the "
              "entry of authority filesystem, type 2, priority 10 is this host's own, which other "
              "hosts do not replace"))
      << log.text();
}

// The explorer is started before the cache is restored and after the service can
// be called.
TEST_F(AnnouncingTest, AnAnnouncementDuringTheStartComesAfterAnOlderOneOfTheCache)
{
  class Announcer : public FakePush
  {
  public:
    explicit Announcer(AnnouncingTest& test) : FakePush("announcer", nullptr, 3600), m_test(test) {}
    void startExploration(EngineContext const&, Authority const&, Subject const&,
                          AutoDereference<OZFRefCounted>&, DiscoveryFactory*) override
    {
      EXPECT_EQ(DS_SUCCESS,
                Service::store("web7", "volume", AT_REMOTEPULL,
                               "<DiscoveredItems><SourceHost>old</SourceHost><ServiceName>"
                               "DiscoveryService</ServiceName><Priority>9</Priority><OriginType>2"
                               "</OriginType></DiscoveredItems>"));
      m_call = std::async(std::launch::async,
                          [this]
                          {
                            auto const service = m_test.host.connect();
                            service->registerExplorer("new", "DiscoveryService", "web7", "volume",
                                                      AT_REMOTEPULL, 9);
                          });
      EXPECT_TRUE(eventually(
          [this]
          { return m_test.log.text().find("Registered explorer: new") != std::string::npos; }));
      // Without a hold it is through in a moment.
      m_through = m_call.wait_for(std::chrono::milliseconds(300)) == std::future_status::ready;
    }
    std::future<void> m_call;
    bool m_through = false;

  private:
    AnnouncingTest& m_test;
  };
  AutoDereference<Announcer> const announcer(new Announcer(*this));
  getDiscoveryRepository().registerExplorer(new Subject("s"), announcer.get(), 1,
                                            new Authority("a", AT_TQUCLIENT));
  host.start();
  ASSERT_TRUE(announcer->m_call.valid());
  announcer->m_call.get();
  EXPECT_FALSE(announcer->m_through) << "it did not wait";
  EXPECT_EQ("new", sourceOf("web7")) << log.text();
}

TEST(AnnouncementHoldTest, TheWaitEndsWithTheLastHoldOrTheLimit)
{
  DiscoveryRepository repository;
  EXPECT_TRUE(repository.awaitAnnouncements(std::chrono::milliseconds(0)));
  auto first = std::make_unique<DiscoveryRepository::AnnouncementHold>(repository);
  auto second = std::make_unique<DiscoveryRepository::AnnouncementHold>(repository);
  EXPECT_FALSE(repository.awaitAnnouncements(std::chrono::milliseconds(1)));
  auto waiting = std::async(std::launch::async, [&]
                            { return repository.awaitAnnouncements(std::chrono::seconds(60)); });
  first.reset();
  EXPECT_FALSE(repository.awaitAnnouncements(std::chrono::milliseconds(1)));
  second.reset();
  EXPECT_TRUE(waiting.get());
}
