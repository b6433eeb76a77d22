#include "discovery/ExplorerLoader.h"

#include "discovery/DefaultExplorerDataParser.h"
#include "discovery/DiscoveryRepository.h"
#include "ozf/log/Assertion.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Service.h"
#include "tests/support/TempDir.h"

#include <gtest/gtest.h>

#include <future>
#include <thread>

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

namespace
{

namespace fs = std::filesystem;

// A product root with libraries of the tests' own.
class ExplorerLoaderTest : public testing::Test
{
protected:
  ExplorerLoaderTest()
  {
    fs::create_directories(m_root / "lib/plugins");
    setenv("TESSARINE_ROOT", m_root.path().c_str(), 1);
  }
  ~ExplorerLoaderTest() override { unsetenv("TESSARINE_ROOT"); }

  static void install(std::string const& fixture, std::string const& target)
  {
    fs::copy_file(std::string(TQ_FIXTURE_DIR) + "/lib" + fixture + ".so", target);
    fs::permissions(target, fs::perms(0755));
  }
  void installPlugin(std::string const& fixture, std::string const& name)
  {
    install("discovery_" + fixture, pluginPath(name));
  }
  void installDefault(std::string const& fixture)
  {
    install("discovery_" + fixture, m_root / "lib/libtqexplorer.so");
  }
  std::string pluginPath(std::string const& name)
  {
    return m_root / ("lib/plugins/libtqplugin-" + name + ".so");
  }

  static int calls(std::string const& entry)
  {
    char const* const count = std::getenv(("TQ_FIXTURE_" + entry).c_str());
    return count == nullptr ? 0 : std::atoi(count);
  }

  static bool isRegistered(std::string const& explorer)
  {
    auto const entries = getDiscoveryRepository().getPushExplorers();
    return std::any_of(entries->begin(), entries->end(),
                       [&](auto const& entry)
                       { return entry->getExplorer()->getExplorerName() == explorer; });
  }

  ExplorerLoader& loader() { return *getEngineSingleton<ExplorerLoader>(m_context); }

  TempDir m_root;
  EngineContext m_context = EngineContext::isolated();
  LogCapture m_log;
};

constexpr char LOAD_EXPLORERS[] = "ExplorerLoader::loadExplorers";
constexpr char LOAD_PARSERS[] = "ExplorerLoader::loadExplorerParsers";
constexpr char LOAD_FILTER_DATA[] = "ExplorerLoader::loadExplorerFilterData";
constexpr char CALLBACK[] = "ExplorerLoader::libraryCallback";

} // namespace

TEST_F(ExplorerLoaderTest, RegistersTheExplorersOfAPlugin)
{
  installPlugin("explorers", "one");
  loader().loadExplorers();
  EXPECT_EQ(calls("explorers"), 1);
  EXPECT_TRUE(isRegistered("FirstFixture"));
  EXPECT_TRUE(isRegistered("SecondFixture"));
  EXPECT_TRUE(m_log.has(4, CALLBACK, "Beginning registration of explorers in tqplugin-one"));
  EXPECT_TRUE(m_log.has(4, CALLBACK, "Registration of explorers in tqplugin-one completed"))
      << m_log.text();
}

TEST_F(ExplorerLoaderTest, LogLinesEndWithTheSource)
{
  installPlugin("explorers", "one");
  loader().loadExplorers();
  auto const lines = m_log.lines();
  EXPECT_TRUE(std::any_of(lines.begin(), lines.end(),
                          [](LogLine const& line)
                          {
                            return line.operation == CALLBACK &&
                                   line.text.find(" (ExplorerLoader:") != std::string::npos;
                          }));
}

TEST_F(ExplorerLoaderTest, LoadsExplorersOnceEvenWhenPluginsAppear)
{
  installPlugin("explorers", "one");
  loader().loadExplorers();
  installPlugin("twice", "two");
  loader().loadExplorers();
  EXPECT_EQ(calls("explorers"), 1);
  EXPECT_EQ(calls("twice"), 0);
}

TEST_F(ExplorerLoaderTest, LoadsEachKindOnceWithoutAnyLibrary)
{
  loader().loadExplorers();
  loader().loadExplorerParsers(nullptr);
  installPlugin("multi", "late");
  loader().loadExplorers();
  loader().loadExplorerParsers(nullptr);
  EXPECT_EQ(calls("multi_explorers"), 0);
  EXPECT_EQ(calls("multi_parsers"), 0);
}

TEST_F(ExplorerLoaderTest, TwoThreadsLoadOnce)
{
  installPlugin("explorers", "one");
  std::thread first([this] { loader().loadExplorers(); });
  std::thread second([this] { loader().loadExplorers(); });
  first.join();
  second.join();
  EXPECT_EQ(calls("explorers"), 1);
}

TEST_F(ExplorerLoaderTest, ALoadTakesTheRepositorysLockFirst)
{
  installPlugin("gate", "gate");
  setenv("TQ_FIXTURE_FOLDER", m_root.path().c_str(), 1);
  DiscoveryRepository& repository = getDiscoveryRepository(); // made before the threads
  std::thread loading([this] { loader().loadExplorers(); });
  EXPECT_TRUE(tqtest::eventually([this] { return fs::exists(m_root / "entered"); }));
  // Who wants the repository's lock meanwhile waits for it, instead of getting
  // it and waiting for the loader's.
  auto registering =
      std::async(std::launch::async,
                 [&repository]
                 {
                   AutoDereference<ExplorerDataParser> const parser(new DefaultExplorerDataParser);
                   repository.registerExplorerParser("meanwhile", parser.get());
                 });
  EXPECT_EQ(std::future_status::timeout, registering.wait_for(std::chrono::seconds(1)));
  writeText(m_root / "go", "");
  EXPECT_EQ(std::future_status::ready, registering.wait_for(std::chrono::seconds(30)));
  loading.join();
  unsetenv("TQ_FIXTURE_FOLDER");
  EXPECT_TRUE(isRegistered("GateFixture"));
}

TEST_F(ExplorerLoaderTest, PluginWithParsersOnlyIsLeftOutByTheLoadOfExplorers)
{
  installPlugin("parsers", "reader");
  loader().loadExplorers();
  EXPECT_TRUE(
      m_log.has(4, CALLBACK, "Did not find the explorer interface on plugin tqplugin-reader"));
  EXPECT_EQ(calls("parsers"), 0);

  loader().loadExplorerParsers(nullptr);
  EXPECT_EQ(calls("parsers"), 1);
  EXPECT_TRUE(
      m_log.has(4, CALLBACK, "Beginning registration of explorer parser in tqplugin-reader"));
  EXPECT_TRUE(
      m_log.has(4, CALLBACK, "Registration of explorer parser in tqplugin-reader completed"));
}

TEST_F(ExplorerLoaderTest, LibraryWithoutEntriesIsReportedForEachKind)
{
  installPlugin("barren", "barren");
  loader().loadExplorers();
  loader().loadExplorerParsers(nullptr);
  loader().loadExplorerFilterData();
  EXPECT_TRUE(
      m_log.has(4, CALLBACK, "Did not find the explorer interface on plugin tqplugin-barren"));
  EXPECT_TRUE(m_log.has(4, CALLBACK,
                        "Did not find the explorer parser interface on plugin tqplugin-barren"));
  EXPECT_TRUE(
      m_log.has(4, CALLBACK, "Did not find the filter data interface on plugin tqplugin-barren"));
}

TEST_F(ExplorerLoaderTest, OnlyTheInterfacesThatWereFoundAreKept)
{
  installPlugin("barren", "barren");
  installPlugin("explorers", "one");
  loader().loadExplorerParsers(nullptr);
  EXPECT_EQ(0U, loader().interfacesKept());
  loader().loadExplorers();
  EXPECT_EQ(1U, loader().interfacesKept());
}

TEST_F(ExplorerLoaderTest, EntryThatThrowsDoesNotKeepTheNextPluginOut)
{
  installPlugin("throwing", "aa");
  installPlugin("explorers", "bb");
  loader().loadExplorers();
  EXPECT_EQ(calls("throwing"), 1);
  EXPECT_EQ(calls("explorers"), 1);
  EXPECT_TRUE(isRegistered("HalfwayFixture"));
  auto const lines = m_log.lines();
  EXPECT_TRUE(std::any_of(lines.begin(), lines.end(),
                          [](LogLine const& line)
                          {
                            return line.level == 1 &&
                                   line.text.find("tqplugin-aa") != std::string::npos &&
                                   line.text.find("no licence") != std::string::npos;
                          }))
      << m_log.text();
  EXPECT_FALSE(m_log.has(4, CALLBACK, "Registration of explorers in tqplugin-aa completed"));
}

TEST_F(ExplorerLoaderTest, ExplorerRegisteredTwiceKeepsItsPlace)
{
  installPlugin("twice", "twice");
  loader().loadExplorers();
  EXPECT_TRUE(isRegistered("EarlierFixture"));
  EXPECT_FALSE(isRegistered("LaterFixture"));
}

TEST_F(ExplorerLoaderTest, FileThatIsNoLibraryDoesNotKeepTheNextPluginOut)
{
  writeText(pluginPath("aa"), "not a library\n");
  installPlugin("explorers", "bb");
  loader().loadExplorers();
  EXPECT_TRUE(m_log.has(4, CALLBACK, "Did not find the explorer interface on plugin tqplugin-aa"));
  EXPECT_EQ(calls("explorers"), 1);
}

TEST_F(ExplorerLoaderTest, LibraryThatOthersMayWriteIsRefused)
{
  installPlugin("explorers", "open");
  fs::permissions(pluginPath("open"), fs::perms(0777));
  loader().loadExplorers();
  EXPECT_EQ(calls("explorers"), 0);
  EXPECT_TRUE(
      m_log.has(4, CALLBACK, "Did not find the explorer interface on plugin tqplugin-open"));
}

TEST_F(ExplorerLoaderTest, FileOfAnotherNameIsNoPlugin)
{
  install("discovery_explorers", m_root / "lib/plugins/libother.so");
  loader().loadExplorers();
  EXPECT_EQ(calls("explorers"), 0);
}

TEST_F(ExplorerLoaderTest, MissingDefaultLibraryIsNotWorthALine)
{
  installPlugin("explorers", "one");
  loader().loadExplorers();
  auto const lines = m_log.lines();
  EXPECT_TRUE(std::none_of(lines.begin(), lines.end(),
                           [](LogLine const& line) { return line.operation == LOAD_EXPLORERS; }))
      << m_log.text();
  EXPECT_EQ(calls("explorers"), 1);
}

TEST_F(ExplorerLoaderTest, DefaultLibraryRegistersBeforePlugins)
{
  installDefault("multi");
  installPlugin("explorers", "one");
  loader().loadExplorers();
  EXPECT_EQ(calls("multi_explorers"), 1);
  EXPECT_TRUE(isRegistered("MultiFixture"));
  EXPECT_TRUE(
      m_log.has(4, LOAD_EXPLORERS, "Found default explorer library, will register explorers"));
  EXPECT_TRUE(m_log.has(4, LOAD_EXPLORERS,
                        "Registration of uri schemes in default scheme library completed"));

  auto const lines = m_log.lines();
  auto const at = [&](char const* operation)
  {
    return std::find_if(lines.begin(), lines.end(),
                        [&](LogLine const& line) { return line.operation == operation; });
  };
  EXPECT_LT(at(LOAD_EXPLORERS), at(CALLBACK));
}

TEST_F(ExplorerLoaderTest, DefaultLibraryRegistersItsParsers)
{
  installDefault("multi");
  loader().loadExplorerParsers(nullptr);
  EXPECT_EQ(calls("multi_parsers"), 1);
  EXPECT_EQ(calls("multi_explorers"), 0);
  EXPECT_TRUE(
      m_log.has(4, LOAD_PARSERS, "Found default explorer library, will register explorer parsers"));
  EXPECT_TRUE(
      m_log.has(4, LOAD_PARSERS, "Registration of explorer parsers in default library completed"));
}

TEST_F(ExplorerLoaderTest, MissingEntryOfTheDefaultLibraryIsReportedAndPluginsAreLoaded)
{
  installDefault("parsers");
  installPlugin("explorers", "one");
  loader().loadExplorers();
  EXPECT_TRUE(
      m_log.has(1, LOAD_EXPLORERS, "Unable to resolve symbol RegisterExplorers in libtqexplorer"))
      << m_log.text();
  EXPECT_EQ(calls("explorers"), 1);
}

TEST_F(ExplorerLoaderTest, MissingParserEntryOfTheDefaultLibraryIsReportedAndPluginsAreLoaded)
{
  installDefault("explorers");
  installPlugin("parsers", "one");
  loader().loadExplorerParsers(nullptr);
  EXPECT_TRUE(m_log.has(1, LOAD_PARSERS,
                        "Unable to resolve symbol RegisterExplorerParsers in libtqexplorer"))
      << m_log.text();
  EXPECT_EQ(calls("parsers"), 1);
}

TEST_F(ExplorerLoaderTest, SymbolThatTheEntryOfTheDefaultLibraryMissesIsReported)
{
  installDefault("lookup");
  installPlugin("explorers", "one");
  loader().loadExplorers();
  EXPECT_EQ(calls("lookup"), 1);
  EXPECT_TRUE(
      m_log.has(1, LOAD_EXPLORERS, "Unable to resolve symbol VendorSymbol in libtqexplorer"))
      << m_log.text();
  EXPECT_EQ(calls("explorers"), 1);
}

TEST_F(ExplorerLoaderTest, SymbolThatTheEntryOfAPluginMissesIsTheCallersToKnow)
{
  installPlugin("lookup", "one");
  auto* const director = getEngineSingleton<PluginDirector>(m_context);
  try
  {
    loader().libraryCallback(director, pluginPath("one"), ExplorerLoader::EXPLORERS);
    ADD_FAILURE() << "nothing was thrown";
  }
  catch (SymbolException const& exception)
  {
    EXPECT_STREQ(exception.what(), "VendorSymbol");
  }
  EXPECT_EQ(calls("lookup"), 1);
}

TEST_F(ExplorerLoaderTest, ThrowingEntryOfTheDefaultLibraryIsReportedAndPluginsAreLoaded)
{
  installDefault("throwing");
  installPlugin("explorers", "one");
  loader().loadExplorers();
  EXPECT_TRUE(m_log.has(1, LOAD_EXPLORERS, "Registration in libtqexplorer failed: no licence"))
      << m_log.text();
  EXPECT_EQ(calls("explorers"), 1);
}

TEST_F(ExplorerLoaderTest, FilterDataComesFromPluginsOnly)
{
  installDefault("multi");
  installPlugin("filterdata", "filter");
  loader().loadExplorerFilterData();
  EXPECT_EQ(calls("multi_filterdata"), 0);
  EXPECT_EQ(calls("multi_parsers"), 0);
  EXPECT_EQ(calls("filterdata"), 1);
  EXPECT_TRUE(m_log.has(4, LOAD_FILTER_DATA,
                        "Found default explorer library, will register explorer filter data"));
  EXPECT_FALSE(m_log.has(4, LOAD_FILTER_DATA,
                         "Registration of explorer filter data in default library completed"));
  EXPECT_TRUE(
      m_log.has(4, CALLBACK, "Beginning registration of explorer filter data in tqplugin-filter"));
  EXPECT_TRUE(
      m_log.has(4, CALLBACK, "Registration of explorer filter data in tqplugin-filter completed"));

  loader().loadExplorerFilterData();
  EXPECT_EQ(calls("filterdata"), 1);
}

TEST_F(ExplorerLoaderTest, FilterDataLooksForTheParsersOfTheDefaultLibrary)
{
  installDefault("explorers");
  loader().loadExplorerFilterData();
  EXPECT_TRUE(m_log.has(1, LOAD_FILTER_DATA,
                        "Unable to resolve symbol RegisterExplorerParsers in libtqexplorer"))
      << m_log.text();
}

TEST_F(ExplorerLoaderTest, RestrictionOfParsersHoldsForExplorersToo)
{
  installPlugin("explorers", "one");
  installPlugin("twice", "two");
  std::list<std::string> const allowed{"two"};
  loader().loadExplorerParsers(&allowed);
  loader().loadExplorers();
  EXPECT_EQ(calls("explorers"), 0);
  EXPECT_EQ(calls("twice"), 1);
}

TEST_F(ExplorerLoaderTest, RestrictionHoldsAlthoughParsersWereLoadedBefore)
{
  installPlugin("explorers", "one");
  installPlugin("twice", "two");
  loader().loadExplorerParsers(nullptr);
  std::list<std::string> const allowed{"two"};
  loader().loadExplorerParsers(&allowed);
  loader().loadExplorers();
  EXPECT_EQ(calls("explorers"), 0);
  EXPECT_EQ(calls("twice"), 1);
}

TEST_F(ExplorerLoaderTest, EmptyRestrictionChangesNothing)
{
  installPlugin("explorers", "one");
  installPlugin("twice", "two");
  std::list<std::string> const allowed{"two"};
  loader().loadExplorerParsers(&allowed);
  std::list<std::string> const none;
  loader().loadExplorerParsers(&none);
  loader().loadExplorers();
  EXPECT_EQ(calls("explorers"), 0);
  EXPECT_EQ(calls("twice"), 1);
}

TEST_F(ExplorerLoaderTest, UnknownKindFailsAnAssertion)
{
  auto* const director = getEngineSingleton<PluginDirector>(m_context);
  EXPECT_THROW(loader().libraryCallback(director, pluginPath("one"), 3), AssertionFailure);
  EXPECT_NE(m_log.text().find("SHOULD_NOT_GET_HERE"), std::string::npos);
}

TEST_F(ExplorerLoaderTest, ResolversWantOneRequiredSymbolEach)
{
  RegisterExplorerInterface const explorers;
  RegisterExplorerParserInterface const parsers;
  RegisterFilterDataInterface const filterData;
  ASSERT_EQ(explorers.definitions().size(), 1U);
  ASSERT_EQ(parsers.definitions().size(), 1U);
  ASSERT_EQ(filterData.definitions().size(), 1U);
  EXPECT_EQ(explorers.definitions().front().name, "RegisterExplorers");
  EXPECT_EQ(parsers.definitions().front().name, "RegisterExplorerParsers");
  EXPECT_EQ(filterData.definitions().front().name, "RegisterExplorerFilterDataProvider");
  for (SymbolResolver const* resolver : {static_cast<SymbolResolver const*>(&explorers),
                                         static_cast<SymbolResolver const*>(&parsers),
                                         static_cast<SymbolResolver const*>(&filterData)})
  {
    EXPECT_TRUE(resolver->definitions().front().required);
    EXPECT_EQ(resolver->definitions().front().address, nullptr);
  }
}
