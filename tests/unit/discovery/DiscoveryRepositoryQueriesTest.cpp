#include "discovery/DiscoveryRepository.h"

#include "discovery/CombiningIterator.h"
#include "discovery/DiscDB.h"
#include "discovery/DiscoveryFramework.h"
#include "discovery/DiscoveryLog.h"
#include "discovery/ExplorerRemotePull.h"
#include "ozf/config/ProductRoot.h"
#include "tests/support/FakeExplorers.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Records.h"
#include "tests/support/TempDir.h"

#include <gtest/gtest.h>

#include <algorithm>

using namespace tqtest;

namespace
{

using Names = std::vector<std::string>;

class QueriedRepository : public DiscoveryRepository
{
public:
  explicit QueriedRepository(bool onMaster)
      : m_onMaster(onMaster), m_framework(new DiscoveryFramework("", DST_GENERIC, nullptr, false))
  {
    setDiscoveryFramework(m_framework.get());
  }
  bool isGenericDSOnMaster() const override { return m_onMaster; }

private:
  bool m_onMaster;
  AutoDereference<DiscoveryFramework> m_framework;
};

struct DiscoveryRepositoryQueriesTest : testing::Test
{
  TempDir root;
  CallList calls;

  void SetUp() override
  {
    setenv("TESSARINE_ROOT", root.path().c_str(), 1);
    std::filesystem::create_directories(root / "etc");
    writeText(root / "etc/tq.conf", "CLIENT_NAME = here\n");
  }

  void pull(DiscoveryRepository& repository, std::string const& subject,
            std::string const& authority = "a", AuthorityType type = AT_TQUCLIENT)
  {
    AutoDereference<FakePull> explorer(new FakePull(subject, &calls));
    repository.registerExplorer(new Subject(subject), explorer.get(), 1,
                                new Authority(authority, type), true);
  }

  static void store(DiscoveryRepository& repository, std::string const& subject,
                    std::string const& authority, AuthorityType type,
                    std::string const& payload = "<x/>", DiscoveryQuery query = DQ_DISCOVERY_DATA)
  {
    AutoDereference<Discovery> discovery;
    repository.newDiscovery(discovery, query, Subject(subject), Authority(authority, type),
                            CollectionAttributes(CT_POINT_IN_TIME, CS_CENTRALREPOSITORY,
                                                 OzfObjTime::now(), OzfObjTime(3600), 1));
    ASSERT_EQ(DS_SUCCESS, discovery->open(OM_UPDATE, ""));
    ASSERT_TRUE(discovery->getCollectionData()->writeCollection(payload.size(), payload.data()));
    ASSERT_EQ(DS_SUCCESS, discovery->persist());
  }

  // As a master stores what another host registers.
  static void cache(std::string const& host, std::string const& subject,
                    std::string const& authority, unsigned priority)
  {
    QueriedRepository master(true);
    AutoDereference<RemoteExplorerPull> const remote(
        new RemoteExplorerPull("DiscoveryService", host, subject, authority, AT_TQUCLIENT));
    master.registerExplorer(new Subject(subject), remote.get(), priority,
                            new Authority(authority, AT_TQUCLIENT), false);
  }

  static Names payloads(DiscoveryIterator* iterator)
  {
    AutoDereference<DiscoveryIterator> const owner(iterator);
    Names texts;
    while (owner)
    {
      AutoDereference<Discovery> const discovery(owner->getNext());
      if (!discovery)
        break;
      texts.push_back(records::payloadOf(*discovery));
    }
    return texts;
  }

  static Names subjects(DiscoveryIterator* iterator)
  {
    AutoDereference<DiscoveryIterator> owner(iterator);
    Names names;
    while (owner)
    {
      AutoDereference<Discovery> discovery(owner->getNext());
      if (!discovery)
        break;
      names.push_back(discovery->getSubject()->getName().str());
    }
    return names;
  }
};

TEST_F(DiscoveryRepositoryQueriesTest, AQueryWithoutAFrameworkFailsTheAssertion)
{
  DiscoveryRepository repository;
  LogCapture log;
  EXPECT_THROW(repository.queryDiscoveries(DQ_DISCOVERY_DATA, "*", "*", AT_ANYANDALL),
               AssertionFailure);
  EXPECT_TRUE(
      log.has(1, "DiscoveryRepository::queryDiscoveries", "Assertion failed: m_discoveryFramework"))
      << log.text();
}

TEST_F(DiscoveryRepositoryQueriesTest, PullExplorersComeBeforeTheDatabase)
{
  getDiscoveryDBDatabase()->init("");
  QueriedRepository repository(true);
  store(repository, "stored", "a", AT_TQUCLIENT);
  pull(repository, "zpulled");
  EXPECT_EQ((Names{"zpulled", "stored"}),
            subjects(repository.queryDiscoveries(DQ_DISCOVERY_DATA, "*", "*", AT_ANYANDALL)));
}

TEST_F(DiscoveryRepositoryQueriesTest, TheAnswerCarriesWhatWasAskedFor)
{
  getDiscoveryDBDatabase()->init("");
  QueriedRepository repository(true);
  AutoDereference<DiscoveryIterator> const answer(
      repository.queryDiscoveries(DQ_DISCOVERY_DATA, "a subject", "an authority", AT_EXTSRC));
  ASSERT_NE(nullptr, dynamic_cast<CombiningIterator*>(answer.get()));
  EXPECT_EQ(AT_EXTSRC, answer->getAuthorityType());
  EXPECT_EQ("a subject", answer->getSubjectFilter());
  EXPECT_EQ("an authority", answer->getAuthorityFilter());
}

TEST_F(DiscoveryRepositoryQueriesTest, AQueryForRemotePullsNeverRunsAPullExplorer)
{
  getDiscoveryDBDatabase()->init("");
  QueriedRepository repository(true);
  pull(repository, "s");
  store(repository, "r", "a", AT_REMOTEPULL);
  EXPECT_EQ(Names{"r"},
            subjects(repository.queryDiscoveries(DQ_DISCOVERY_DATA, "*", "*", AT_REMOTEPULL)));
  EXPECT_TRUE(calls.names().empty());
}

TEST_F(DiscoveryRepositoryQueriesTest, NamesAndTypeSelectFromTheDatabase)
{
  getDiscoveryDBDatabase()->init("");
  QueriedRepository repository(true);
  store(repository, "web1", "a", AT_TQUCLIENT);
  store(repository, "web2", "b", AT_TQUCLIENT);
  store(repository, "db1", "a", AT_EXTSRC);
  auto const query = [&](char const* subject, char const* authority, AuthorityType type)
  {
    auto names = subjects(repository.queryDiscoveries(DQ_DISCOVERY_DATA, subject, authority, type));
    std::sort(names.begin(), names.end());
    return names;
  };
  EXPECT_EQ((Names{"web1", "web2"}), query("web*", "*", AT_ANYANDALL));
  EXPECT_EQ((Names{"db1", "web1"}), query("*", "a", AT_ANYANDALL));
  EXPECT_EQ((Names{"db1"}), query("*", "*", AT_EXTSRC));
  EXPECT_EQ((Names{"web2"}), query("web2", "b", AT_TQUCLIENT));
  EXPECT_EQ(Names{}, query("web2", "a", AT_TQUCLIENT));
}

// A file's name tells nothing of the kind of query.
TEST_F(DiscoveryRepositoryQueriesTest, FilterDataTakesThePlaceOfDataOfTheSameNamesAndType)
{
  getDiscoveryDBDatabase()->init("");
  QueriedRepository repository(true);
  store(repository, "s", "a", AT_TQUCLIENT, "<data/>");
  store(repository, "s", "a", AT_EXTSRC, "<external/>", DQ_FILTER_DATA);
  store(repository, "s", "a", AT_TQUCLIENT, "<filter/>", DQ_FILTER_DATA);
  for (DiscoveryQuery const kind : {DQ_DISCOVERY_DATA, DQ_FILTER_DATA})
  {
    EXPECT_EQ(Names{"<filter/>"},
              payloads(repository.queryDiscoveries(kind, "s", "a", AT_TQUCLIENT)));
    EXPECT_EQ(Names{"<external/>"},
              payloads(repository.queryDiscoveries(kind, "s", "a", AT_EXTSRC)));
  }
  store(repository, "s", "a", AT_TQUCLIENT, "<data/>");
  EXPECT_EQ(Names{"<data/>"},
            payloads(repository.queryDiscoveries(DQ_FILTER_DATA, "s", "a", AT_TQUCLIENT)));
}

TEST_F(DiscoveryRepositoryQueriesTest, WithoutADatabaseThereIsNoAnswerEvenIfAPullExplorerMatched)
{
  QueriedRepository repository(true); // the database was never initialised
  pull(repository, "s");
  LogCapture log;
  EXPECT_EQ(nullptr, repository.queryDiscoveries(DQ_DISCOVERY_DATA, "*", "*", AT_ANYANDALL));
  EXPECT_TRUE(log.has(1, "DiscoveryRepository::queryDiscoveries", "No database iterator found"))
      << log.text();
}

TEST_F(DiscoveryRepositoryQueriesTest, EveryEntryAfterTheFirstMatchIsTaken)
{
  QueriedRepository repository(true);
  pull(repository, "a");
  pull(repository, "b");
  pull(repository, "c");
  EXPECT_EQ((Names{"b", "c"}), subjects(repository.findPullExplorer(
                                   DQ_DISCOVERY_DATA, repository.getPullExplorers(), "b", "*")));
}

// What names find must be what the walk finds, the tail behind it included.
TEST_F(DiscoveryRepositoryQueriesTest, TheIndexFindsWhatTheWalkFinds)
{
  QueriedRepository repository(true);
  std::vector<std::string> const names{"a", "b", "B", "aa", "c", "d.e", "e"};
  for (auto const& subject : names)
    for (auto const& authority : names)
      for (AuthorityType const type : {AT_TQUCLIENT, AT_EXTSRC})
        pull(repository, subject, authority, type);
  pull(repository, "d.e", "of a host", AT_REMOTEPULL);
  auto const snapshot = repository.getPullExplorers();
  ASSERT_GT(snapshot->size(), names.size());
  std::vector<std::string> patterns = names;
  patterns.insert(patterns.end(), {"", "*", "a*", "*e", "missing", "A"});
  for (auto const& subject : patterns)
    for (auto const& authority : patterns)
    {
      ExplorerIdentity const identity(authority, subject);
      auto const walked = std::find_if(snapshot->begin(), snapshot->end(),
                                       [&](auto const& entry) { return identity.matches(*entry); });
      EXPECT_TRUE(snapshot->firstMatch(identity) == walked) << authority << ' ' << subject;
    }
}

// A look-up must not cost what a walk over all of them costs.
TEST_F(DiscoveryRepositoryQueriesTest, NamesThatAreNotThereAreLookedUpAmongManyAtOnce)
{
  QueriedRepository repository(true);
  auto const timed = [&](std::string const& subject)
  {
    auto const snapshot = repository.getPullExplorers();
    repository.findPullExplorer(DQ_DISCOVERY_DATA, snapshot, "first", "a"); // makes the index
    auto const start = std::chrono::steady_clock::now();
    for (int i = 0; i < 200; ++i)
      EXPECT_EQ(nullptr, repository.findPullExplorer(DQ_DISCOVERY_DATA, snapshot, subject, "a"));
    return std::chrono::steady_clock::now() - start;
  };
  for (int i = 0; i < 20'000; ++i)
    pull(repository, "s" + std::to_string(i));
  auto const walking = timed("missing*");
  auto const lookingUp = timed("missing");
  EXPECT_LT(lookingUp * 20, walking);
}

// Callers may hold a thousand iterators over as many explorers as there are.
TEST_F(DiscoveryRepositoryQueriesTest, IteratorsOverPullExplorersShareTheSnapshot)
{
  QueriedRepository repository(true);
  for (int i = 0; i < 100; ++i)
    pull(repository, "s" + std::to_string(i));
  auto const snapshot = repository.getPullExplorers();
  AutoDereference<ExplorerWrapper> const last = *snapshot->rbegin();
  long const before = last->referenceCount();
  std::vector<AutoDereference<DiscoveryIterator>> iterators;
  for (int i = 0; i < 50; ++i)
    iterators.emplace_back(
        repository.findPullExplorer(DQ_DISCOVERY_DATA, snapshot, "s" + std::to_string(i), "a"));
  EXPECT_EQ(before, last->referenceCount());

  pull(repository, "zz");
  Names expected;
  for (auto const& entry : *snapshot)
    expected.push_back(entry->getSubject()->getName().str());
  EXPECT_EQ(expected, subjects(iterators.front().release())) << "and see no later registration";
}

TEST_F(DiscoveryRepositoryQueriesTest, SubjectAndAuthorityMustBothMatchInTheirCase)
{
  QueriedRepository repository(true);
  pull(repository, "s", "auth");
  auto const find = [&](char const* subject, char const* authority)
  {
    return subjects(repository.findPullExplorer(DQ_DISCOVERY_DATA, repository.getPullExplorers(),
                                                subject, authority));
  };
  EXPECT_EQ(Names{"s"}, find("s", "au*"));
  EXPECT_EQ(Names{}, find("S", "auth"));
  EXPECT_EQ(Names{}, find("s", "other"));
}

TEST_F(DiscoveryRepositoryQueriesTest, NoMatchingPullExplorerGivesNull)
{
  QueriedRepository repository(true);
  EXPECT_EQ(nullptr, repository.findPullExplorer(DQ_DISCOVERY_DATA, repository.getPullExplorers(),
                                                 "*", "*"));
}

TEST_F(DiscoveryRepositoryQueriesTest, AnEmptyMasterNameGivesNullWithoutAConnection)
{
  QueriedRepository repository(false);
  LogCapture log;
  EXPECT_EQ(nullptr, repository.queryDiscoveries(DQ_DISCOVERY_DATA, "*", "*", AT_ANYANDALL));
  EXPECT_TRUE(log.has(1, "DiscoveryRepository::queryRemoteDiscoveries",
                      "Cannot find master server name, abort connecting to master discovery "
                      "service"))
      << log.text();
  EXPECT_EQ(std::string::npos, log.text().find("Host: ")) << "no connection is attempted";
}

TEST_F(DiscoveryRepositoryQueriesTest, TheCacheOfRegistrationsIsRestored)
{
  getDiscoveryDBDatabase()->init("");
  cache("far", "s", "a", 7);
  QueriedRepository after(true);
  after.loadPullExplorerCache();
  auto const entries = after.getPullExplorers();
  ASSERT_EQ(1u, entries->size());
  ExplorerWrapper const& entry = **entries->begin();
  EXPECT_EQ(7u, entry.getPriority());
  EXPECT_EQ("s", entry.getSubject()->getName().str());
  EXPECT_EQ("a", entry.getAuthority()->getName().str());
  EXPECT_EQ(AT_REMOTEPULL, entry.getAuthority()->getType());
  auto const* const explorer = dynamic_cast<RemoteExplorerPull*>(entry.getExplorer());
  ASSERT_NE(nullptr, explorer);
  EXPECT_EQ("far", explorer->getHost().exportNarrow());
  EXPECT_EQ("DiscoveryService", explorer->getServiceName().str());
  EXPECT_EQ(AT_TQUCLIENT, explorer->getAuthorityType());
}

// A host that was a client becomes the master of the database that it wrote to.
TEST_F(DiscoveryRepositoryQueriesTest, ACachedRegistrationOfThisHostLeavesItsExplorersAlone)
{
  getDiscoveryDBDatabase()->init("");
  OzfHostname::overrideLocal("here");
  cache("Here", "here", "volume", 10);
  cache("far", "far", "volume", 10);

  QueriedRepository repository(true);
  pull(repository, "here", "volume");
  AutoDereference<FakePush> const pusher(new FakePush("filesystem"));
  repository.registerExplorer(new Subject("here"), pusher.get(), 10,
                              new Authority("filesystem", AT_TQUCLIENT));
  LogCapture log(1);
  repository.loadPullExplorerCache();

  EXPECT_EQ(1u, repository.getPushExplorers()->size());
  auto const entries = repository.getPullExplorers();
  ASSERT_EQ(2u, entries->size());
  for (auto const& entry : *entries)
    EXPECT_EQ(entry->getSubject()->getName().str() == "far",
              dynamic_cast<RemoteExplorerPull*>(entry->getExplorer()) != nullptr);
  EXPECT_EQ(1, log.count(1, "DiscoveryRepository::loadPullExplorerCache",
                         "Passed over the cached registration of subject here and authority "
                         "volume: it names this host, Here"))
      << log.text();
  EXPECT_EQ(1u, log.lines().size()) << log.text();
}

// Restored entries are of type AT_REMOTEPULL, which compete by subject alone.
TEST_F(DiscoveryRepositoryQueriesTest, OfSeveralCachedRegistrationsOfASubjectTheStrongestIsRestored)
{
  getDiscoveryDBDatabase()->init("");
  cache("far", "far", "tape", 9);
  cache("far", "far", "volume", 11);
  cache("far", "far", "changer", 10);
  QueriedRepository repository(true);
  repository.loadPullExplorerCache();
  auto const entries = repository.getPullExplorers();
  ASSERT_EQ(1u, entries->size());
  EXPECT_EQ("volume", (*entries->begin())->getAuthority()->getName().str());
  EXPECT_EQ(11u, (*entries->begin())->getPriority());
  EXPECT_EQ(
      3u,
      subjects(repository.queryDiscoveries(DQ_DISCOVERY_DATA, "far", "*", AT_REMOTEPULL)).size())
      << "the records stay";
}

TEST_F(DiscoveryRepositoryQueriesTest, CacheRecordsThatDoNotParseAreSkipped)
{
  getDiscoveryDBDatabase()->init("");
  QueriedRepository repository(true);
  store(repository, "one", "a", AT_REMOTEPULL, "not XML");
  store(repository, "two", "a", AT_REMOTEPULL,
        "<DiscoveredItems><SourceHost>h</SourceHost></DiscoveredItems>");
  store(repository, "three", "a", AT_REMOTEPULL,
        "<DiscoveredItems><SourceHost>h</SourceHost><ServiceName>s</ServiceName>"
        "<Priority>3</Priority><OriginType>2</OriginType></DiscoveredItems>");
  store(repository, "four", "a", AT_REMOTEPULL, std::string(2 << 20, 'x'));
  repository.loadPullExplorerCache();
  auto const entries = repository.getPullExplorers();
  ASSERT_EQ(1u, entries->size());
  EXPECT_EQ("three", (*entries->begin())->getSubject()->getName().str());
}

TEST_F(DiscoveryRepositoryQueriesTest, NobodyIsForgottenWhileTheDatabaseIsElsewhere)
{
  getDiscoveryDBDatabase()->init("");
  cache("far", "restored", "volume", 7);
  QueriedRepository repository(true);
  repository.loadPullExplorerCache();
  auto const known = [&] { return repository.getPullExplorers()->size(); };
  repository.dropForgotten();
  ASSERT_EQ(1U, known());

  std::string const database = getDefaultDatabasePath();
  std::filesystem::rename(database, database + ".away");
  repository.dropForgotten();
  EXPECT_EQ(1U, known());
  std::filesystem::create_directory(database); // as where a file system is not mounted
  repository.dropForgotten();
  EXPECT_EQ(1U, known());
  std::filesystem::remove(database);
  std::filesystem::rename(database + ".away", database);
  repository.dropForgotten();
  EXPECT_EQ(1U, known());

  std::filesystem::remove(database + "/4 volume restored.xml");
  LogCapture const quiet;
  repository.dropForgotten();
  EXPECT_EQ(0U, known());
}

// As "db forget" removes it; what was never written there, and what this host has, stay.
TEST_F(DiscoveryRepositoryQueriesTest, AnExplorerWhoseAnnouncementWasRemovedIsForgotten)
{
  getDiscoveryDBDatabase()->init("");
  cache("far", "restored", "volume", 7);
  QueriedRepository repository(true);
  repository.loadPullExplorerCache();
  pull(repository, "own");
  AutoDereference<RemoteExplorerPull> const remote(
      new RemoteExplorerPull("DiscoveryService", "near", "told", "volume", AT_TQUCLIENT));
  auto const announce = [&](char const* subject)
  {
    repository.registerExplorer(new Subject(subject), remote.get(), 5,
                                new Authority("volume", AT_TQUCLIENT), false);
  };
  announce("told");
  announce("kept");
  std::string const database = getDefaultDatabasePath() + "/4 volume ";
  std::filesystem::create_directory(database + "unwritten.xml"); // in the way
  {
    LogCapture const quiet;
    announce("unwritten");
  }
  std::filesystem::remove(database + "unwritten.xml");
  auto const known = [&]
  {
    Names names;
    for (auto const& entry : *repository.getPullExplorers())
      names.push_back(entry->getSubject()->getName().str());
    std::sort(names.begin(), names.end());
    return names;
  };
  Names const all{"kept", "own", "restored", "told", "unwritten"};
  ASSERT_EQ(all, known());
  repository.dropForgotten();
  EXPECT_EQ(all, known());

  for (char const* const name : {"restored.xml", "restored.dat", "told.xml", "told.dat"})
    ASSERT_TRUE(std::filesystem::remove(database + name)) << name;
  LogCapture log(1);
  repository.dropForgotten();
  EXPECT_EQ((Names{"kept", "own", "unwritten"}), known());
  EXPECT_EQ(1, log.count(1, "DiscoveryRepository::dropForgotten",
                         "Forgot the explorer of authority volume for subject told: its "
                         "announcement was removed"))
      << log.text();
  announce("told");
  repository.dropForgotten();
  EXPECT_EQ((Names{"kept", "own", "told", "unwritten"}), known());
}

} // namespace
