#include "ozf/plugin/RuntimeLoader.h"
#include "ozf/plugin/EngineContext.h"
#include "tests/unit/ozf_plugin/PluginRoot.h"

#include <ace/DLL_Manager.h>
#include <gmock/gmock.h>

#include <atomic>
#include <thread>

using namespace Quillon::Tessarine::Ozf;
using testing::HasSubstr;

namespace
{

constexpr int MODE = 257;

class RuntimeLoaderTest : public PluginRoot
{
protected:
  std::string addLibrary(std::string const& fixture) const
  {
    std::string const path = m_root / "lib/lib" + fixture + ".so";
    copyFixture(fixture, path);
    return path;
  }

  bool load(std::string const& library, SymbolResolver& resolver, bool unload = false)
  {
    return m_loader->loadInterface(library, resolver, m_found, nullptr, unload, MODE);
  }

  EngineContext m_context = EngineContext::isolated();
  RuntimeLoader* m_loader = getEngineSingleton<RuntimeLoader>(m_context);
  bool m_found = false;
};

TEST_F(RuntimeLoaderTest, LoadsFromTheProductsLibraryFolder)
{
  LogCapture const log;
  addLibrary("tqplugin-good");
  FixtureResolver resolver;
  EXPECT_TRUE(load("libtqplugin-good", resolver)) << log.text();
  EXPECT_TRUE(m_found);
  EXPECT_EQ(resolver.call(), 42);
  EXPECT_TRUE(log.lines().empty()) << log.text();
}

TEST_F(RuntimeLoaderTest, AMissingFileIsNotFoundAndNothingIsLogged)
{
  LogCapture const log;
  FixtureResolver resolver;
  m_found = true;
  EXPECT_FALSE(load("libtqexplorer", resolver));
  EXPECT_FALSE(m_found);
  EXPECT_TRUE(log.lines().empty()) << log.text();
}

TEST_F(RuntimeLoaderTest, AMissingFolderIsAMissingFile)
{
  setenv("TESSARINE_ROOT", (m_root / "nowhere").c_str(), 1);
  LogCapture const log;
  FixtureResolver resolver;
  EXPECT_FALSE(load("libtqexplorer", resolver));
  EXPECT_FALSE(m_found);
  EXPECT_TRUE(log.lines().empty()) << log.text();
}

TEST_F(RuntimeLoaderTest, TheFirstFolderThatHasTheFileCounts)
{
  for (char const* folder : {"one", "two"})
  {
    std::filesystem::create_directory(m_root / folder);
    chmod((m_root / folder).c_str(), 0755);
  }
  copyFixture("tqplugin-good", m_root / "two/libx.so");
  std::list<OzfPathname> paths = {OzfPathname(m_root / "one"), OzfPathname(m_root / "two")};
  FixtureResolver resolver;
  EXPECT_TRUE(m_loader->loadInterface("libx", resolver, m_found, &paths, false, MODE));
  EXPECT_TRUE(m_found);

  copyFixture("tqplugin-lacking", m_root / "one/libx.so");
  FixtureResolver again;
  EXPECT_THROW(m_loader->loadInterface("libx", again, m_found, &paths, false, MODE),
               SymbolException);
}

TEST_F(RuntimeLoaderTest, AnEmptyListOfFoldersHasNoFiles)
{
  addLibrary("tqplugin-good");
  std::list<OzfPathname> const none;
  FixtureResolver resolver;
  EXPECT_FALSE(m_loader->loadInterface("libtqplugin-good", resolver, m_found, &none, false, MODE));
  EXPECT_FALSE(m_found);
}

TEST_F(RuntimeLoaderTest, AMissingSymbolIsThrownByItsName)
{
  addLibrary("tqplugin-lacking");
  FixtureResolver resolver;
  try
  {
    load("libtqplugin-lacking", resolver);
    FAIL() << "nothing was thrown";
  }
  catch (SymbolException const& e)
  {
    EXPECT_STREQ(e.what(), "FixtureEntry");
  }
  EXPECT_TRUE(m_found);
}

TEST_F(RuntimeLoaderTest, AResolvedLibraryOutlivesTheEngineAndWhatItsManagerCloses)
{
  std::string const path = addLibrary("tqplugin-good");
  FixtureResolver resolver;
  ASSERT_TRUE(load("libtqplugin-good", resolver, true));
  m_context = EngineContext::isolated();
  ACE_DLL_Manager::instance()->close_dll(path.c_str());
  ASSERT_TRUE(isLoaded(path));
  EXPECT_EQ(resolver.call(), 42);
}

TEST_F(RuntimeLoaderTest, ALibraryThatLacksASymbolIsDroppedOnlyWhenAskedFor)
{
  std::string const path = addLibrary("tqplugin-lacking");
  FixtureResolver resolver;
  EXPECT_THROW(load("libtqplugin-lacking", resolver, true), SymbolException);
  EXPECT_FALSE(isLoaded(path));
  EXPECT_THROW(load("libtqplugin-lacking", resolver, false), SymbolException);
  EXPECT_TRUE(isLoaded(path));
}

TEST_F(RuntimeLoaderTest, AFailureDoesNotDropALibraryThatWasResolvedBefore)
{
  std::string const path = addLibrary("tqplugin-good");
  FixtureResolver good;
  ASSERT_TRUE(load("libtqplugin-good", good, true));
  FixtureResolver lacking("FixtureNothing");
  EXPECT_THROW(load("libtqplugin-good", lacking, true), SymbolException);
  EXPECT_TRUE(isLoaded(path));
  EXPECT_EQ(good.call(), 42);
}

TEST_F(RuntimeLoaderTest, ThreadsMayLoadAndDropTheSameLibraryAtOnce)
{
  addLibrary("tqplugin-lacking");
  std::atomic<int> dropped = 0;
  std::atomic<int> kept = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back(
        [&]
        {
          for (int round = 0; round < 50; ++round)
          {
            bool found = false;
            FixtureResolver resolver(round % 10 == 9 ? "FixtureOther" : "FixtureEntry");
            try
            {
              kept += m_loader->loadInterface("libtqplugin-lacking", resolver, found, nullptr, true,
                                              MODE);
            }
            catch (SymbolException const&)
            {
              ++dropped;
            }
          }
        });
  for (auto& thread : threads)
    thread.join();
  EXPECT_EQ(kept, 20);
  EXPECT_EQ(dropped, 180);
}

TEST_F(RuntimeLoaderTest, LoadsAFileByItsPath)
{
  std::string const path = addPlugin("tqplugin-good");
  FixtureResolver resolver;
  EXPECT_TRUE(m_loader->loadFile(path, resolver, false, MODE));
  EXPECT_EQ(resolver.call(), 42);
}

TEST_F(RuntimeLoaderTest, AFunctionOfNoLibraryIsReportedWhenEverythingIsBoundAtOnce)
{
  std::string const path = addPlugin("tqplugin-unbound");
  LogCapture const log;
  FixtureResolver resolver;
  EXPECT_FALSE(m_loader->loadFile(path, resolver, false, RTLD_NOW));
  ASSERT_EQ(log.lines().size(), 1u) << log.text();
  EXPECT_EQ(log.lines()[0].level, 1);
  EXPECT_THAT(log.lines()[0].text, HasSubstr("Unable to load library " + path + ": "));
  EXPECT_THAT(log.lines()[0].text, HasSubstr("undefined symbol"));
  EXPECT_THAT(log.lines()[0].text, HasSubstr("fixtureFunctionOfNoLibrary"));
}

} // namespace
