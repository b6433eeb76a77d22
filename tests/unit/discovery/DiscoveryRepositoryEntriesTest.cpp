#include "discovery/DiscoveryRepositoryEntries.h"

#include <gtest/gtest.h>

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

namespace
{

class TestExplorer : public Explorer
{
public:
  char const* getExplorerName() const override { return "Test"; }
};

AutoDereference<ExplorerWrapper> makeEntry(std::string const& subject, std::string const& authority,
                                           AuthorityType type, unsigned priority = 1)
{
  AutoDereference<TestExplorer> const explorer(new TestExplorer);
  return AutoDereference<ExplorerWrapper>(new ExplorerWrapper(
      explorer.get(), priority, new Subject(subject), new Authority(authority, type)));
}

bool before(AutoDereference<ExplorerWrapper> const& a, AutoDereference<ExplorerWrapper> const& b)
{
  return ltdExplorerWrapper()(a, b);
}

bool sameIdentity(AutoDereference<ExplorerWrapper> const& a,
                  AutoDereference<ExplorerWrapper> const& b)
{
  return !before(a, b) && !before(b, a);
}

} // namespace

TEST(ExplorerWrapperTest, KeepsAReferenceToTheExplorerAndItsParts)
{
  AutoDereference<TestExplorer> const explorer(new TestExplorer);
  {
    AutoDereference<ExplorerWrapper> const wrapper(new ExplorerWrapper(
        explorer.get(), 7, new Subject("host"), new Authority("volume", AT_TQUCLIENT)));
    EXPECT_EQ(explorer->referenceCount(), 2);
    EXPECT_EQ(wrapper->getExplorer(), explorer.get());
    EXPECT_EQ(wrapper->getPriority(), 7U);
    EXPECT_EQ(wrapper->getSubject()->getName().str(), "host");
    EXPECT_EQ(wrapper->getAuthority()->getName().str(), "volume");
    EXPECT_FALSE(wrapper->getContext());
  }
  EXPECT_EQ(explorer->referenceCount(), 1);
}

TEST(ExplorerWrapperTest, TellsItsLastRun)
{
  auto const wrapper = makeEntry("host", "volume", AT_TQUCLIENT);
  EXPECT_TRUE(wrapper->lastRun().time.isZero());
  wrapper->noteRun(OzfObjTime(5), DS_COM_ERROR);
  EXPECT_EQ(wrapper->lastRun().time, OzfObjTime(5));
  EXPECT_EQ(wrapper->lastRun().status, DS_COM_ERROR);
}

TEST(ExplorerOrderTest, SmallerAuthorityComesFirstWhateverTheSubject)
{
  EXPECT_TRUE(before(makeEntry("z", "a", AT_TQUCLIENT), makeEntry("a", "b", AT_TQUCLIENT)));
}

TEST(ExplorerOrderTest, GreaterAuthorityFallsThroughToTheSubject)
{
  EXPECT_TRUE(before(makeEntry("a", "b", AT_TQUCLIENT), makeEntry("z", "a", AT_TQUCLIENT)));
  EXPECT_FALSE(before(makeEntry("z", "b", AT_TQUCLIENT), makeEntry("a", "a", AT_TQUCLIENT)));
}

TEST(ExplorerOrderTest, SmallerNameOfAGreaterTypeIsNotLess)
{
  auto const a = makeEntry("same", "a", AT_EXTSRC);
  auto const b = makeEntry("same", "b", AT_TQUCLIENT);
  EXPECT_FALSE(before(a, b));
  EXPECT_FALSE(before(b, a));
}

TEST(ExplorerOrderTest, SameAuthorityOrdersBySubjectWithoutRegardToCase)
{
  EXPECT_TRUE(before(makeEntry("HostA", "v", AT_TQUCLIENT), makeEntry("hostb", "v", AT_TQUCLIENT)));
  EXPECT_TRUE(
      sameIdentity(makeEntry("HOST", "V", AT_TQUCLIENT), makeEntry("host", "v", AT_TQUCLIENT)));
}

TEST(ExplorerOrderTest, RemotePullCompetesWithEveryEntryOfItsSubject)
{
  auto const remote = makeEntry("host", "zzz", AT_REMOTEPULL);
  EXPECT_TRUE(sameIdentity(remote, makeEntry("host", "aaa", AT_TQUCLIENT)));
  EXPECT_TRUE(sameIdentity(remote, makeEntry("host", "aaa", AT_REMOTEPULL)));
  EXPECT_FALSE(sameIdentity(remote, makeEntry("other", "zzz", AT_REMOTEPULL)));
}

TEST(ExplorerOrderTest, LocalEntriesOfOneSubjectDifferByAuthority)
{
  EXPECT_FALSE(
      sameIdentity(makeEntry("host", "a", AT_TQUCLIENT), makeEntry("host", "b", AT_TQUCLIENT)));
}

TEST(ExplorerOrderTest, QueriesOrderAsTheirEntries)
{
  AutoDereference<ExplorerQuery> const a(new ExplorerQuery(makeEntry("a", "v", AT_TQUCLIENT)));
  AutoDereference<ExplorerQuery> const b(new ExplorerQuery(makeEntry("b", "v", AT_TQUCLIENT)));
  EXPECT_TRUE(ltdExplorerQuery()(a, b));
  EXPECT_FALSE(ltdExplorerQuery()(b, a));
}

TEST(ExplorerIdentityTest, MatchesBothPatternsInTheirCase)
{
  auto const candidate = makeEntry("hostA", "volume", AT_TQUCLIENT);
  auto const matches = [&](char const* authority, char const* subject)
  {
    AutoDereference<ExplorerIdentity> const identity(new ExplorerIdentity(authority, subject));
    return identity->matches(*candidate);
  };
  EXPECT_TRUE(matches("volume", "hostA"));
  EXPECT_TRUE(matches("*", "*"));
  EXPECT_TRUE(matches("vol*", "*A"));
  EXPECT_FALSE(matches("volume", "hosta"));
  EXPECT_FALSE(matches("Volume", "hostA"));
  EXPECT_FALSE(matches("volume", "hostB"));
  EXPECT_FALSE(matches("file*", "hostA"));
  EXPECT_FALSE(matches("hostA", "volume"));
}

TEST(ExplorerQueryTest, ShowsThePartsOfItsEntry)
{
  auto const wrapper = makeEntry("host", "volume", AT_TQUCLIENT);
  AutoDereference<ExplorerQuery> const query(new ExplorerQuery(wrapper));
  EXPECT_EQ(query->getSubject(), wrapper->getSubject());
  EXPECT_EQ(query->getAuthority(), wrapper->getAuthority());
  AutoDereference<TestExplorer> const context(new TestExplorer);
  query->getContext() = context;
  EXPECT_EQ(wrapper->getContext().get(), context.get());
}
