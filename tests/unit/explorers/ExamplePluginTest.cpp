// The plug-in of docs/writing-an-explorer.md.

#include "discovery/DiscoveryRepository.h"
#include "tests/unit/explorers/ExplorerStore.h"
#include "tests/unit/explorers/ExplorerTesting.h"

#include <dlfcn.h>

using namespace ExplorerTesting;

namespace
{

void registerInto(DiscoveryRepository& repository)
{
  void* const library =
      dlopen(TQ_BINARY_DIR "/lib/example-plugins/libtqplugin-uptime.so", RTLD_NOW);
  ASSERT_NE(nullptr, library) << dlerror();
  void* const address = dlsym(library, "RegisterExplorers");
  ASSERT_NE(nullptr, address);
  reinterpret_cast<void (*)(DiscoveryRepository*)>(address)(&repository);
}

} // namespace

TEST(ExamplePlugin, theManualShowsTheSourceThatIsBuilt)
{
  std::string const folder = std::string(TQ_SOURCE_DIR) + "/docs/";
  std::string const source = readText(folder + "example-plugin/UptimeExplorer.cpp");
  ASSERT_FALSE(source.empty());
  EXPECT_NE(std::string::npos,
            readText(folder + "writing-an-explorer.md").find("```cpp\n" + source + "```"));
}

TEST(ExamplePlugin, storesTheUptime)
{
  DiscoveryRepository repository;
  registerInto(repository);
  auto const explorers = repository.getPushExplorers();
  ASSERT_EQ(1U, explorers->size());
  auto* const explorer = dynamic_cast<ExplorerPush*>((*explorers->begin())->getExplorer());
  ASSERT_NE(nullptr, explorer);

  Store store;
  EXPECT_EQ(DS_SUCCESS, explore(*explorer, AT_TQUCLIENT, &store).discStatus);
  Document const document(store.only(AT_TQUCLIENT).payload);
  ASSERT_EQ(1U, document.items.size());
  EXPECT_EQ("uptime", document.items[0].explorer);
  EXPECT_EQ(1U, document.items[0].facts.count("Uptime"));
}

// The interval to the next run is the explorer's own, whatever a result asks for: one
// that succeeds asks for nothing, and one that fails is due again after a minute.
TEST(ExamplePlugin, asksForAnotherRunOnlyAfterAFailure)
{
  DiscoveryRepository repository;
  registerInto(repository);
  auto* const explorer =
      dynamic_cast<ExplorerPush*>((*repository.getPushExplorers()->begin())->getExplorer());
  ASSERT_NE(nullptr, explorer);
  OzfObjTime const now = OzfObjTime::now();
  explorer->setLastExplorationTime(now);
  Store store;
  EXPECT_EQ(0U, explore(*explorer, AT_TQUCLIENT, &store).retryInterval);
  EXPECT_EQ(now, explorer->getLastExplorationTime());
  EXPECT_EQ(60U, explore(*explorer, AT_TQUCLIENT, nullptr).retryInterval);
  EXPECT_EQ(now.seconds() + 60, explorer->getLastExplorationTime().seconds() +
                                    static_cast<std::int64_t>(explorer->getPollingInterval()));
}

TEST(ExamplePlugin, tellsWhatCanBeAskedFor)
{
  DiscoveryRepository repository;
  registerInto(repository);
  Store store;
  explore(*dynamic_cast<ExplorerPush*>((*repository.getPushExplorers()->begin())->getExplorer()),
          AT_TQUCLIENT, &store);
  Document const document(store.only(AT_EXTSRC).payload);
  ASSERT_EQ(1U, document.attributeList.size());
  EXPECT_EQ("Uptime", document.attributeList[0].at("Name"));
  EXPECT_EQ("duration", document.attributeList[0].at("Type"));
}

TEST(ExamplePlugin, takesAPlaceOfItsOwnBesideTheDefaultExplorers)
{
  void* const library = dlopen(TQ_BINARY_DIR "/lib/libtqexplorer.so", RTLD_NOW);
  ASSERT_NE(nullptr, library) << dlerror();
  DiscoveryRepository repository;
  reinterpret_cast<void (*)(DiscoveryRepository*)>(dlsym(library, "RegisterExplorers"))(
      &repository);
  registerInto(repository);
  EXPECT_EQ(9U, repository.getPushExplorers()->size());
  EXPECT_EQ(1U, repository.getPullExplorers()->size());
}
