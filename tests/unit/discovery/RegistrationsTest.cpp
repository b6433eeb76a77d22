// Which registration keeps out or replaces which.

#include "discovery/Registrations.h"

#include "tests/support/LogCapture.h"
#include "tests/unit/discovery/RepositoryTesting.h"

using namespace tqtest;

namespace
{

struct RegistrationsTest : RepositoryTesting
{
};

using Names = std::vector<std::string>;

TEST_F(RegistrationsTest, PushRegistrationOfEqualPriorityKeepsTheFirst)
{
  TestRepository repository;
  AutoDereference<FakePush> first(new FakePush("first"));
  AutoDereference<FakePush> second(new FakePush("second"));
  push(repository, first.get(), 5, "s", "a");
  push(repository, second.get(), 5, "s", "a");
  EXPECT_EQ(Names{"first"}, names(repository.getPushExplorers()));
}

TEST_F(RegistrationsTest, PushRegistrationOfHigherPriorityReplaces)
{
  TestRepository repository;
  AutoDereference<FakePush> first(new FakePush("first"));
  AutoDereference<FakePush> second(new FakePush("second"));
  push(repository, first.get(), 5, "s", "a");
  push(repository, second.get(), 6, "S", "A");
  EXPECT_EQ(Names{"second"}, names(repository.getPushExplorers()));
}

TEST_F(RegistrationsTest, APushRegistrationThatLosesIsDroppedSilently)
{
  TestRepository repository;
  AutoDereference<FakePush> first(new FakePush("first"));
  AutoDereference<FakePush> second(new FakePush("second"));
  push(repository, first.get(), 5, "s", "a");
  LogCapture log;
  push(repository, second.get(), 5, "s", "a");
  EXPECT_TRUE(log.lines().empty()) << log.text();
  EXPECT_EQ(1, second->referenceCount()) << "the loser's wrapper must be gone";
}

TEST_F(RegistrationsTest, PullRegistrationOfEqualPriorityReplaces)
{
  TestRepository repository;
  AutoDereference<FakePull> first(new FakePull("first"));
  AutoDereference<FakePull> second(new FakePull("second"));
  pull(repository, first.get(), 5, "s", "a");
  pull(repository, second.get(), 5, "s", "a");
  EXPECT_EQ(Names{"second"}, names(repository.getPullExplorers()));
}

TEST_F(RegistrationsTest, PullRegistrationOfLowerPriorityIsDropped)
{
  TestRepository repository;
  AutoDereference<FakePull> first(new FakePull("first"));
  AutoDereference<FakePull> second(new FakePull("second"));
  pull(repository, first.get(), 5, "s", "a");
  pull(repository, second.get(), 4, "s", "a");
  EXPECT_EQ(Names{"first"}, names(repository.getPullExplorers()));
  EXPECT_EQ(1, second->referenceCount()) << "the loser's wrapper must be gone";
}

TEST_F(RegistrationsTest, PushAndPullOfOneIdentityCompeteAcrossTheSets)
{
  TestRepository repository;
  AutoDereference<FakePull> puller(new FakePull("puller"));
  AutoDereference<FakePush> pusher(new FakePush("pusher"));
  pull(repository, puller.get(), 5, "s", "a");
  push(repository, pusher.get(), 5, "s", "a");
  EXPECT_EQ(Names{}, names(repository.getPushExplorers()));
  push(repository, pusher.get(), 6, "s", "a");
  EXPECT_EQ(Names{"pusher"}, names(repository.getPushExplorers()));
  EXPECT_EQ(Names{}, names(repository.getPullExplorers()));
  pull(repository, puller.get(), 6, "s", "a");
  EXPECT_EQ(Names{}, names(repository.getPushExplorers()));
  EXPECT_EQ(Names{"puller"}, names(repository.getPullExplorers()));
}

TEST_F(RegistrationsTest, RemotePullCompetesWithEveryLocalExplorerOfItsSubject)
{
  TestRepository repository;
  AutoDereference<FakePull> local(new FakePull("local"));
  AutoDereference<FakePull> remote(new FakePull("remote"));
  pull(repository, local.get(), 5, "s", "zzz");
  pull(repository, remote.get(), 4, "s", "aaa", AT_REMOTEPULL);
  EXPECT_EQ(Names{"local"}, names(repository.getPullExplorers())) << "yields to higher priority";
  pull(repository, remote.get(), 5, "s", "aaa", AT_REMOTEPULL);
  EXPECT_EQ(Names{"remote"}, names(repository.getPullExplorers())) << "replaces at equal priority";
}

TEST_F(RegistrationsTest, RemotePullCompetesWithAPushExplorerOfItsSubject)
{
  TestRepository repository;
  AutoDereference<FakePush> local(new FakePush("local"));
  AutoDereference<FakePull> remote(new FakePull("remote"));
  push(repository, local.get(), 5, "s", "zzz");
  pull(repository, remote.get(), 4, "s", "aaa", AT_REMOTEPULL);
  EXPECT_EQ(Names{}, names(repository.getPullExplorers())) << "yields to higher priority";
  EXPECT_EQ(Names{"local"}, names(repository.getPushExplorers()));
  pull(repository, remote.get(), 5, "s", "aaa", AT_REMOTEPULL);
  EXPECT_EQ(Names{"remote"}, names(repository.getPullExplorers()));
  EXPECT_EQ(Names{}, names(repository.getPushExplorers())) << "replaced at equal priority";
  push(repository, local.get(), 5, "s", "zzz");
  EXPECT_EQ(Names{}, names(repository.getPushExplorers())) << "a push must be of higher priority";
}

TEST_F(RegistrationsTest, RemotePullReplacesAllLocalExplorersOfItsSubjectThatAreNotStronger)
{
  for (unsigned const strongest : {5u, 6u})
  {
    TestRepository repository;
    AutoDereference<FakePull> one(new FakePull("one"));
    AutoDereference<FakePull> two(new FakePull("two"));
    AutoDereference<FakePush> three(new FakePush("three"));
    AutoDereference<FakePull> other(new FakePull("other"));
    AutoDereference<FakePull> remote(new FakePull("remote"));
    pull(repository, one.get(), strongest, "s", "a");
    pull(repository, two.get(), 4, "s", "b");
    push(repository, three.get(), 3, "s", "c");
    pull(repository, other.get(), 1, "t", "a");
    pull(repository, remote.get(), 5, "s", "m", AT_REMOTEPULL);
    auto const pullers = names(repository.getPullExplorers());
    if (strongest == 5)
    {
      EXPECT_EQ((Names{"remote", "other"}), pullers);
      EXPECT_EQ(Names{}, names(repository.getPushExplorers()));
    }
    else
    {
      EXPECT_EQ((Names{"one", "other", "two"}), pullers);
      EXPECT_EQ(Names{"three"}, names(repository.getPushExplorers()));
      EXPECT_EQ(1, remote->referenceCount()) << "dropped";
    }
  }
}

TEST_F(RegistrationsTest, RemotePullYieldsToAStrongerExplorerThatIsNotTheFirstOfItsSubject)
{
  TestRepository repository;
  AutoDereference<FakePull> weak(new FakePull("weak"));
  AutoDereference<FakePull> strong(new FakePull("strong"));
  AutoDereference<FakePull> remote(new FakePull("remote"));
  pull(repository, weak.get(), 3, "s", "a");
  pull(repository, strong.get(), 6, "s", "b");
  pull(repository, remote.get(), 5, "s", "m", AT_REMOTEPULL);
  EXPECT_EQ((Names{"weak", "strong"}), names(repository.getPullExplorers()))
      << "what a set refuses drives nobody out of that set";
}

// The sets are gone through one after the other.
TEST_F(RegistrationsTest, RemotePullThatThePushSetRefusesHasDrivenOutWeakerPullExplorers)
{
  TestRepository repository;
  AutoDereference<FakePull> weakPull(new FakePull("weak pull"));
  AutoDereference<FakePush> weakPush(new FakePush("weak push"));
  AutoDereference<FakePush> strongPush(new FakePush("strong push"));
  AutoDereference<FakePull> remote(new FakePull("remote"));
  pull(repository, weakPull.get(), 3, "s", "a");
  push(repository, weakPush.get(), 3, "s", "b");
  push(repository, strongPush.get(), 6, "s", "c");
  pull(repository, remote.get(), 5, "s", "m", AT_REMOTEPULL);
  EXPECT_EQ(Names{}, names(repository.getPullExplorers()));
  EXPECT_EQ((Names{"weak push", "strong push"}), names(repository.getPushExplorers()));
  EXPECT_EQ(1, remote->referenceCount()) << "dropped";
}

TEST_F(RegistrationsTest, ThePullRegistrationsAreCapped)
{
  constexpr int CAP = 50000;
  TestRepository repository;
  AutoDereference<FakePush> pusher(new FakePush("pusher"));
  push(repository, pusher.get(), 1, "late", "a");
  AutoDereference<FakePull> explorer(new FakePull("x"));
  for (int i = 0; i < CAP; ++i)
    pull(repository, explorer.get(), 5, "s" + std::to_string(i), "a");
  LogCapture log;
  pull(repository, explorer.get(), 5, "late", "a");
  EXPECT_EQ(Names{"pusher"}, names(repository.getPushExplorers())) << "what it would replace stays";
  EXPECT_EQ(1, log.count(1, "DiscoveryRepository::registerExplorer",
                         "Dropped the registration of a pull explorer for subject late, made by "
                         "this service: there are 50000 already"))
      << log.text();
  AutoDereference<FakePull> again(new FakePull("again"));
  pull(repository, again.get(), 5, "s7", "a");
  EXPECT_EQ(2, again->referenceCount()) << "one that replaces another needs no room";
  AutoDereference<FakePull> weak(new FakePull("weak"));
  pull(repository, weak.get(), 4, "s7", "a");
  EXPECT_EQ(1, weak->referenceCount());
  EXPECT_EQ(1u, log.lines().size()) << "of those that lose nothing is said: " << log.text();
  EXPECT_EQ(std::size_t(CAP), repository.getPullExplorers()->size());
}

TEST_F(RegistrationsTest, RegistrationsOfDifferentSubjectsStandSideBySide)
{
  TestRepository repository;
  AutoDereference<FakePush> one(new FakePush("one"));
  AutoDereference<FakePush> two(new FakePush("two"));
  push(repository, one.get(), 5, "b", "a");
  push(repository, two.get(), 5, "A", "a");
  EXPECT_EQ((Names{"two", "one"}), names(repository.getPushExplorers()));
}

TEST_F(RegistrationsTest, ASnapshotDoesNotChange)
{
  TestRepository repository;
  AutoDereference<FakePush> one(new FakePush("one"));
  push(repository, one.get(), 5, "a", "a");
  auto const before = repository.getPushExplorers();
  AutoDereference<FakePush> two(new FakePush("two"));
  push(repository, two.get(), 5, "b", "a");
  EXPECT_EQ(Names{"one"}, names(before));
  EXPECT_EQ((Names{"one", "two"}), names(repository.getPushExplorers()));
}

TEST_F(RegistrationsTest, ASetTakesAnIdentityOnce)
{
  auto const entry = [](char const* name, unsigned priority)
  {
    AutoDereference<FakePush> const explorer(new FakePush(name));
    return AutoDereference<ExplorerWrapper>(new ExplorerWrapper(
        explorer.get(), priority, new Subject("s"), new Authority("a", AT_TQUCLIENT)));
  };
  RegistrationSet set;
  EXPECT_TRUE(set.insert(entry("first", 1)));
  EXPECT_FALSE(set.insert(entry("second", 2)));
  EXPECT_EQ(Names{"first"}, names(set.snapshot()));
}

} // namespace
