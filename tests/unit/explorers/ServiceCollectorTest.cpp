#include "explorers/ServiceCollector.h"

#include "discovery/ExplorerRemotePull.h"
#include "explorers/HostExplorer.h"
#include "explorers/VolumeExplorer.h"
#include "tests/support/TempDir.h"

#include <gtest/gtest.h>

#include <algorithm>

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;
using Explorers::collectService;

namespace
{

class Repository : public DiscoveryRepository
{
public:
  bool master = false;
  bool isGenericDSOnMaster() const override { return master; }
};

Explorers::ExplorerState const& explorerOf(Explorers::ServiceState const& state,
                                           ExplorerRecord::Kind kind)
{
  auto const found = std::find_if(state.explorers.begin(), state.explorers.end(),
                                  [kind](auto const& each) { return each.kind == kind; });
  if (found == state.explorers.end())
    throw std::runtime_error("no such explorer");
  return *found;
}

} // namespace

TEST(ServiceCollector, tellsRoleVersionAndStart)
{
  TempDir const dir;
  Repository repository;
  EXPECT_FALSE(collectService(repository, dir.path(), OzfObjTime(5)).master);
  repository.master = true;
  auto const state = collectService(repository, dir.path(), OzfObjTime(5));
  EXPECT_TRUE(state.master);
  EXPECT_FALSE(state.version.empty());
  EXPECT_EQ(5, state.start.seconds());
  EXPECT_TRUE(state.explorers.empty());
}

TEST(ServiceCollector, countsMetadataFilesOnly)
{
  TempDir const dir;
  for (char const* name : {"2 a b.xml", "2 a b.dat", "3 a b.xml", "Update.lock", "0.updating"})
    writeText(dir / name, "");
  EXPECT_EQ(2U, collectService(Repository(), dir.path(), OzfObjTime()).stored);
  EXPECT_FALSE(collectService(Repository(), dir / "missing", OzfObjTime()).stored);
}

TEST(ServiceCollector, tellsExplorersOfThisHostAndCountsThoseOfOthers)
{
  TempDir const dir;
  Repository repository;
  AutoDereference<ExplorerPush> const push(new Explorers::HostExplorer);
  repository.registerExplorer(new Subject("client7"), push.get(), 10,
                              new Authority("host", AT_TQUCLIENT));
  AutoDereference<ExplorerPull> const pull(new Explorers::VolumeExplorer);
  repository.registerExplorer(new Subject("client7"), pull.get(), 11,
                              new Authority("volume", AT_TQUCLIENT), true);
  AutoDereference<ExplorerPull> const remote(
      new RemoteExplorerPull("DiscoveryService", "client8", "client8", "volume", AT_TQUCLIENT));
  repository.registerExplorer(new Subject("client8"), remote.get(), 10,
                              new Authority("volume", AT_TQUCLIENT), true);

  auto const state = collectService(repository, dir.path(), OzfObjTime());
  EXPECT_EQ(1U, state.announced);
  ASSERT_EQ(2U, state.explorers.size());
  EXPECT_EQ("host", explorerOf(state, ExplorerRecord::PUSH).authority);
  EXPECT_EQ(AT_TQUCLIENT, explorerOf(state, ExplorerRecord::PUSH).type);
  EXPECT_TRUE(explorerOf(state, ExplorerRecord::PUSH).lastRun.time.isZero());
  EXPECT_EQ("volume", explorerOf(state, ExplorerRecord::PULL).authority);
  EXPECT_EQ(11U, explorerOf(state, ExplorerRecord::PULL).priority);

  (*repository.getPushExplorers()->begin())->noteRun(OzfObjTime(7), DS_COM_ERROR);
  auto const later = collectService(repository, dir.path(), OzfObjTime());
  EXPECT_EQ(7, explorerOf(later, ExplorerRecord::PUSH).lastRun.time.seconds());
  EXPECT_EQ(DS_COM_ERROR, explorerOf(later, ExplorerRecord::PUSH).lastRun.status);
}

TEST(ServiceCollector, tellsEachScriptAndTheRunsOfAll)
{
  TempDir const dir;
  Repository repository;
  AutoDereference<ExplorerPush> const push(new Explorers::HostExplorer);
  repository.registerExplorer(new Subject("client7"), push.get(), 10,
                              new Authority("host", AT_TQUCLIENT));
  auto const script = getExplorerRuns().declare(
      {ExplorerRecord::SCRIPT, "disks", AT_TQUCLIENT, "client7", 12, "/explorers.d/disks.sh"});
  {
    ExplorerRun run(script, std::chrono::seconds(60));
    run.finish("it exited with 1", false, 4096);
  }
  auto const unused = getExplorerRuns().declare(
      {ExplorerRecord::SCRIPT, "Host", AT_TQUCLIENT, "client7", 12, "/explorers.d/Host"});
  auto const state = collectService(repository, dir.path(), OzfObjTime());
  ASSERT_EQ(2U, state.explorers.size()) << "no two of one name";
  auto const& told = explorerOf(state, ExplorerRecord::SCRIPT);
  EXPECT_EQ("disks", told.authority);
  EXPECT_EQ(12U, told.priority);
  EXPECT_EQ("/explorers.d/disks.sh", told.origin);
  EXPECT_EQ(script->now().lastRun, told.lastRun.time);
  ASSERT_TRUE(told.runs);
  EXPECT_EQ("it exited with 1", told.runs->result);
  EXPECT_EQ(4096, told.runs->memory);
  EXPECT_EQ(1U, told.runs->failures);
  ASSERT_TRUE(explorerOf(state, ExplorerRecord::PUSH).runs);
  EXPECT_EQ(0U, explorerOf(state, ExplorerRecord::PUSH).runs->runs);
}
