#include "ozf/plugin/PluginDirector.h"
#include "tests/unit/ozf_plugin/PluginRoot.h"

#include <gmock/gmock.h>

#include <functional>
#include <stdexcept>

using namespace Quillon::Tessarine::Ozf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace
{

class Recorder : public LibraryIterationCallback
{
public:
  void libraryCallback(PluginDirector* director, std::string const& library,
                       unsigned long long kind) override
  {
    m_seen.push_back(std::filesystem::path(library).filename());
    m_kind = kind;
    if (m_action)
      m_action(*director, library);
  }

  std::vector<std::string> m_seen;
  unsigned long long m_kind = 99;
  std::function<void(PluginDirector&, std::string const&)> m_action;
};

class PluginDirectorTest : public PluginRoot
{
protected:
  void touch(std::string const& name) const { writeText(plugins() + "/" + name, ""); }

  std::vector<std::string> iterate()
  {
    Recorder recorder;
    m_director->iteratePluginLibraries(recorder, 1);
    return recorder.m_seen;
  }

  EngineContext m_context = EngineContext::isolated();
  PluginDirector* m_director = getEngineSingleton<PluginDirector>(m_context);
};

TEST_F(PluginDirectorTest, CallsBackForEveryPluginInTheOrderOfTheNames)
{
  for (char const* name :
       {"libtqplugin-b.so", "libtqplugin-c.so", "libtqplugin-a.so", "libtqplugin-B.so"})
    touch(name);
  Recorder recorder;
  m_director->iteratePluginLibraries(recorder, 2);
  EXPECT_THAT(recorder.m_seen, ElementsAre("libtqplugin-B.so", "libtqplugin-a.so",
                                           "libtqplugin-b.so", "libtqplugin-c.so"));
  EXPECT_EQ(recorder.m_kind, 2u);
}

TEST_F(PluginDirectorTest, OtherFilesAreNoPlugins)
{
  for (char const* name : {"libtqexplorer.so", "libtqplugin-a.so.1", "tqplugin-a.so",
                           "libtqplugin-a.so~", ".libtqplugin-a.so", "libtqplugin.so", "README"})
    touch(name);
  EXPECT_THAT(iterate(), IsEmpty());
}

TEST_F(PluginDirectorTest, LibraryNamesArePaths)
{
  touch("libtqplugin-a.so");
  Recorder recorder;
  std::string path;
  recorder.m_action = [&](PluginDirector& director, std::string const& library)
  {
    EXPECT_EQ(&director, m_director);
    path = library;
  };
  m_director->iteratePluginLibraries(recorder, 0);
  EXPECT_EQ(path, plugins() + "/libtqplugin-a.so");
}

TEST_F(PluginDirectorTest, AMissingFolderHoldsNoPluginsAndIsNoError)
{
  std::filesystem::remove(plugins());
  LogCapture const log(1);
  EXPECT_THAT(iterate(), IsEmpty());
  EXPECT_TRUE(log.lines().empty()) << log.text();
}

TEST_F(PluginDirectorTest, AFolderThatIsNoneIsReported)
{
  std::filesystem::remove(plugins());
  writeText(plugins(), "");
  LogCapture const log(1);
  EXPECT_THAT(iterate(), IsEmpty());
  EXPECT_THAT(log.text(), HasSubstr("Unable to open plug-in directory " + plugins() + ": Not a"));
}

TEST_F(PluginDirectorTest, WhateverACallbackThrowsIsLoggedWithThePluginsNameAndTheRestGoesOn)
{
  struct Foreign
  {
  };
  for (char const* name : {"libtqplugin-a.so", "libtqplugin-b.so", "libtqplugin-c.so",
                           "libtqplugin-d.so", "libtqplugin-e.so"})
    touch(name);
  Recorder recorder;
  recorder.m_action = [](PluginDirector&, std::string const& library)
  {
    if (library.ends_with("-a.so"))
      throw std::runtime_error("broken");
    if (library.ends_with("-b.so"))
      throw SymbolException("RegisterExplorers");
    if (library.ends_with("-c.so"))
      throw Foreign();
    if (library.ends_with("-d.so"))
      throw 7;
  };
  LogCapture const log;
  m_director->iteratePluginLibraries(recorder, 0);
  EXPECT_EQ(recorder.m_seen.size(), 5u);
  std::string const operation = "PluginDirector::iteratePluginLibraries";
  EXPECT_TRUE(log.has(1, operation, "Caught exception from plug-in tqplugin-a, broken"));
  EXPECT_TRUE(log.has(1, operation, "Caught exception from plug-in tqplugin-b, RegisterExplorers"));
  EXPECT_TRUE(
      log.has(1, operation, "Caught exception from plug-in tqplugin-d, an exception of type int"));
  EXPECT_THAT(log.text(), HasSubstr("plug-in tqplugin-c, an exception of type "));
  EXPECT_THAT(log.text(), HasSubstr("::Foreign"));
  EXPECT_EQ(log.lines().size(), 4u) << log.text();
}

TEST_F(PluginDirectorTest, PluginsAreAllowedByAnyFormOfTheirName)
{
  for (char const* name : {"libtqplugin-oracle.so", "libtqplugin-other.so"})
    touch(name);
  for (char const* name : {"libtqplugin-oracle.so", "libtqplugin-oracle", "tqplugin-oracle.so",
                           "tqplugin-oracle", "oracle"})
  {
    std::list<std::string> const allowed = {"absent", name};
    m_director->setAllowedPlugins(&allowed);
    EXPECT_THAT(iterate(), ElementsAre("libtqplugin-oracle.so")) << name;
  }
}

TEST_F(PluginDirectorTest, WhatOnlyResemblesANameAllowsNothing)
{
  touch("libtqplugin-oracle.so");
  for (char const* name : {"Oracle", "orac", "*", "", "oracle ", "plugins/libtqplugin-oracle.so"})
  {
    std::list<std::string> const allowed = {name};
    m_director->setAllowedPlugins(&allowed);
    EXPECT_THAT(iterate(), IsEmpty()) << name;
  }
}

TEST_F(PluginDirectorTest, NullOrAnEmptyListLiftsTheRestriction)
{
  touch("libtqplugin-a.so");
  std::list<std::string> const none;
  std::list<std::string> const other = {"b"};
  for (auto const* list : {&none, static_cast<std::list<std::string> const*>(nullptr)})
  {
    m_director->setAllowedPlugins(&other);
    ASSERT_THAT(iterate(), IsEmpty());
    m_director->setAllowedPlugins(list);
    EXPECT_THAT(iterate(), ElementsAre("libtqplugin-a.so"));
  }
}

TEST_F(PluginDirectorTest, ARestrictionMadeInACallbackHoldsFromTheNextIteration)
{
  touch("libtqplugin-a.so");
  touch("libtqplugin-b.so");
  Recorder recorder;
  recorder.m_action = [](PluginDirector& director, std::string const&)
  {
    std::list<std::string> const allowed = {"b"};
    director.setAllowedPlugins(&allowed);
  };
  m_director->iteratePluginLibraries(recorder, 0);
  EXPECT_THAT(recorder.m_seen, ElementsAre("libtqplugin-a.so", "libtqplugin-b.so"));
  EXPECT_THAT(iterate(), ElementsAre("libtqplugin-b.so"));
}

TEST_F(PluginDirectorTest, LoadsAPluginAndReportsItsName)
{
  std::string const path = addPlugin("tqplugin-good");
  FixtureResolver resolver;
  std::string name;
  EXPECT_TRUE(m_director->loadPluginInterface(path, resolver, name));
  EXPECT_EQ(name, "tqplugin-good");
  EXPECT_EQ(resolver.call(), 42);
}

TEST_F(PluginDirectorTest, APluginThatLacksTheSymbolIsNamedAndNoError)
{
  std::string const path = addPlugin("tqplugin-lacking");
  LogCapture const log(4);
  FixtureResolver resolver;
  std::string name;
  EXPECT_FALSE(m_director->loadPluginInterface(path, resolver, name));
  EXPECT_EQ(name, "tqplugin-lacking");
  EXPECT_EQ(resolver.address(), nullptr);
  EXPECT_TRUE(log.lines().empty()) << log.text();
}

TEST_F(PluginDirectorTest, APluginThatCannotBeLoadedIsNamedAndReported)
{
  touch("libtqplugin-text.so");
  LogCapture const log;
  FixtureResolver resolver;
  std::string name;
  EXPECT_FALSE(m_director->loadPluginInterface(plugins() + "/libtqplugin-text.so", resolver, name));
  EXPECT_EQ(name, "tqplugin-text");
  ASSERT_EQ(log.lines().size(), 1u) << log.text();
  EXPECT_EQ(log.lines()[0].level, 1);
  EXPECT_THAT(log.lines()[0].text, HasSubstr("libtqplugin-text.so"));
}

TEST_F(PluginDirectorTest, APluginThatNeedsWhatNoLibraryHasIsReportedAndNotCalled)
{
  std::string const path = addPlugin("tqplugin-unbound");
  LogCapture const log;
  FixtureResolver resolver;
  std::string name;
  EXPECT_FALSE(m_director->loadPluginInterface(path, resolver, name));
  EXPECT_EQ(resolver.address(), nullptr);
  EXPECT_THAT(log.text(), HasSubstr("fixtureFunctionOfNoLibrary"));
}

TEST_F(PluginDirectorTest, WhatAPluginsEntryThrowsIsCaughtToo)
{
  addPlugin("tqplugin-good");
  addPlugin("tqplugin-throwing");
  int answer = 0;
  Recorder recorder;
  recorder.m_action = [&](PluginDirector& director, std::string const& library)
  {
    FixtureResolver resolver;
    std::string name;
    ASSERT_TRUE(director.loadPluginInterface(library, resolver, name));
    answer += resolver.call();
  };
  LogCapture const log;
  m_director->iteratePluginLibraries(recorder, 0);
  EXPECT_EQ(answer, 42);
  EXPECT_TRUE(log.has(1, "PluginDirector::iteratePluginLibraries",
                      "Caught exception from plug-in tqplugin-throwing, the fixture throws"))
      << log.text();
}

} // namespace
