// The entry symbols are taken from the library as built, as the loader does.

#include "discovery/DefaultExplorerDataParser.h"
#include "discovery/DiscoveryRepository.h"
#include "explorers/FilesystemExplorer.h"
#include "explorers/HostExplorer.h"
#include "explorers/ListenerExplorer.h"
#include "explorers/NetworkExplorer.h"
#include "explorers/ScriptsExplorer.h"
#include "explorers/ServiceExplorer.h"
#include "explorers/SoftwareExplorer.h"
#include "explorers/VolumeExplorer.h"
#include "explorers/VolumeFilterExplorer.h"
#include "ozf/base/OzfHostname.h"
#include "ozf/config/Configuration.h"

#include <gmock/gmock.h>

#include <dlfcn.h>

#include <algorithm>
#include <functional>

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;
using testing::UnorderedElementsAre;

namespace
{

using Entry = void (*)(DiscoveryRepository*);

Entry entryOf(char const* symbol)
{
  void* const library = dlopen(TQ_BINARY_DIR "/lib/libtqexplorer.so", RTLD_NOW);
  if (library == nullptr)
  {
    ADD_FAILURE() << dlerror();
    return [](DiscoveryRepository*) {};
  }
  void* const address = dlsym(library, symbol);
  EXPECT_NE(nullptr, address) << symbol;
  return reinterpret_cast<Entry>(address);
}

std::vector<std::string> identities(ExplorerSet const& set)
{
  std::vector<std::string> names;
  for (auto const& wrapper : set)
    names.push_back(wrapper->getAuthority()->getName().str() + "/" +
                    std::to_string(wrapper->getAuthority()->getType()) + " about " +
                    wrapper->getSubject()->getName().str());
  return names;
}

struct NamedHost
{
  explicit NamedHost(std::string const& name) { OzfHostname::overrideLocal(name); }
  ~NamedHost() { OzfHostname::overrideLocal(""); }
};

} // namespace

TEST(Register, registersEveryExplorerForThisHost)
{
  NamedHost const host("client7");
  DiscoveryRepository repository;
  entryOf("RegisterExplorers")(&repository);
  EXPECT_THAT(identities(*repository.getPushExplorers()),
              UnorderedElementsAre("filesystem/2 about client7", "host/2 about client7",
                                   "listener/2 about client7", "network/2 about client7",
                                   "scripts/2 about client7", "service/2 about client7",
                                   "software/2 about client7", "volume/3 about client7"));
  EXPECT_THAT(identities(*repository.getPullExplorers()),
              UnorderedElementsAre("volume/2 about client7"));
}

TEST(Register, theConfigurationSwitchesExplorersOffAndChangesTheirIntervals)
{
  NamedHost const host("client7");
  overrideConfiguration("EXPLORER.host", "off");
  overrideConfiguration("EXPLORER.listener", "0");
  overrideConfiguration("EXPLORER.network", "off");
  overrideConfiguration("EXPLORER.software", "false");
  overrideConfiguration("EXPLORER.volume", "no");
  overrideConfiguration("EXPLORER.scripts", "0");
  overrideConfiguration("EXPLORER_INTERVAL.filesystem", "15m");
  DiscoveryRepository repository;
  entryOf("RegisterExplorers")(&repository);
  auto const push = repository.getPushExplorers();
  EXPECT_THAT(identities(*push),
              UnorderedElementsAre("filesystem/2 about client7", "service/2 about client7"));
  EXPECT_THAT(identities(*repository.getPullExplorers()), testing::IsEmpty());
  for (auto const& wrapper : *push)
    EXPECT_EQ(wrapper->getAuthority()->getName().str() == "filesystem" ? 900U : 60U,
              dynamic_cast<ExplorerPush*>(wrapper->getExplorer())->getPollingInterval());
}

TEST(Register, theConfigurationSaysWhetherSerialNumbersAreTold)
{
  NamedHost const host("client7");
  for (auto const& [text, secrets] :
       {std::pair("no", Explorers::Secrets::LeftOut), std::pair("yes", Explorers::Secrets::Told)})
  {
    overrideConfiguration("EXPLORER_SECRETS.host", text);
    DiscoveryRepository repository;
    entryOf("RegisterExplorers")(&repository);
    auto const push = repository.getPushExplorers();
    int found = 0;
    for (auto const& wrapper : *push)
      if (auto const* const explorer =
              dynamic_cast<Explorers::HostExplorer const*>(wrapper->getExplorer()))
      {
        EXPECT_EQ(secrets, explorer->secrets()) << text;
        ++found;
      }
    EXPECT_EQ(1, found);
  }
}

TEST(Register, theNameOfTheHostDoesNotMatter)
{
  for (char const* name : {"a", "filesystem", "host", "m", "volume", "zz"})
  {
    NamedHost const host(name);
    DiscoveryRepository repository;
    entryOf("RegisterExplorers")(&repository);
    EXPECT_EQ(8U, repository.getPushExplorers()->size()) << name;
    EXPECT_EQ(1U, repository.getPullExplorers()->size()) << name;
  }
}

TEST(Register, everyRegistrationHasThePriorityThatOthersCanGoAround)
{
  DiscoveryRepository repository;
  entryOf("RegisterExplorers")(&repository);
  auto const push = repository.getPushExplorers();
  for (auto const& wrapper : *push)
    EXPECT_EQ(10U, wrapper->getPriority());
  auto const pull = repository.getPullExplorers();
  for (auto const& wrapper : *pull)
    EXPECT_EQ(10U, wrapper->getPriority());
}

TEST(Register, theFilterDataProviderMayBeLoadedBesideTheExplorers)
{
  DiscoveryRepository repository;
  entryOf("RegisterExplorerFilterDataProvider")(&repository);
  EXPECT_EQ(1U, repository.getPushExplorers()->size());
  entryOf("RegisterExplorers")(&repository);
  entryOf("RegisterExplorerFilterDataProvider")(&repository);
  EXPECT_EQ(8U, repository.getPushExplorers()->size());
  EXPECT_EQ(1U, repository.getPullExplorers()->size());
}

// The names here are those that Register.cpp has to keep in order. Any five of them come
// first in any order.
TEST(Register, noOrderOfRegistrationKnocksAnExplorerOut)
{
  using namespace Explorers;
  std::vector<int> order = {0, 1, 2, 3, 4, 5, 6, 7, 8};
  do
  {
    DiscoveryRepository repository;
    auto const push = [&](ExplorerPush* explorer, AuthorityType type)
    {
      AutoDereference<ExplorerPush> const owner(explorer);
      repository.registerExplorer(new Subject("client7"), explorer, 10,
                                  new Authority(explorer->getExplorerName(), type));
    };
    std::vector<std::function<void()>> const steps = {
        [&] { push(new FilesystemExplorer, AT_TQUCLIENT); },
        [&] { push(new HostExplorer, AT_TQUCLIENT); },
        [&] { push(new ListenerExplorer, AT_TQUCLIENT); },
        [&] { push(new NetworkExplorer, AT_TQUCLIENT); },
        [&] { push(new SoftwareExplorer, AT_TQUCLIENT); },
        [&] { push(new ScriptsExplorer("/nowhere", {}), AT_TQUCLIENT); },
        [&] { push(new ServiceExplorer([] { return ServiceState(); }), AT_TQUCLIENT); },
        [&]
        {
          AutoDereference<ExplorerPull> const volume(new VolumeExplorer);
          repository.registerExplorer(new Subject("client7"), volume.get(), 10,
                                      new Authority(volume->getExplorerName(), AT_TQUCLIENT),
                                      false);
        },
        [&] { push(new VolumeFilterExplorer, AT_EXTSRC); }};
    for (int const step : order)
      steps[static_cast<std::size_t>(step)]();
    EXPECT_EQ(8U, repository.getPushExplorers()->size());
    EXPECT_EQ(1U, repository.getPullExplorers()->size());
    std::reverse(order.begin() + 5, order.end());
  } while (std::next_permutation(order.begin(), order.end()));
}

TEST(Register, aPluginWithHigherPriorityTakesAPlace)
{
  NamedHost const host("client7");
  DiscoveryRepository repository;
  entryOf("RegisterExplorers")(&repository);
  AutoDereference<ExplorerPush> const better(new Explorers::HostExplorer);
  repository.registerExplorer(new Subject("client7"), better.get(), 11,
                              new Authority("host", AT_TQUCLIENT));
  auto const explorers = repository.getPushExplorers();
  EXPECT_EQ(8U, explorers->size());
  EXPECT_TRUE(std::any_of(explorers->begin(), explorers->end(),
                          [&](auto const& wrapper)
                          { return wrapper->getExplorer() == better.get(); }));
}

TEST(Register, registersTheDefaultParserUnderItsName)
{
  DiscoveryRepository repository;
  entryOf("RegisterExplorerParsers")(&repository);
  auto const parser = repository.getRegisteredExplorerParser(DFLT_EXPLORER_DATA_PARSER);
  ASSERT_TRUE(parser);
  EXPECT_STREQ(DFLT_EXPLORER_DATA_PARSER, parser->getExplorerParserName());
}

TEST(Register, withoutARepositoryNothingHappens)
{
  entryOf("RegisterExplorers")(nullptr);
  entryOf("RegisterExplorerParsers")(nullptr);
  entryOf("RegisterExplorerFilterDataProvider")(nullptr);
}
