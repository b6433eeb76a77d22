#include "ozf/base/OzfHostname.h"
#include "ozf/config/Limits.h"
#include "tests/support/ConfiguredHost.h"

#include <gmock/gmock.h>

#include <atomic>
#include <filesystem>
#include <thread>

using namespace Quillon::Tessarine::Ozf;

namespace
{

using Problems = std::vector<ConfigurationProblem>;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

class ProcessConfigurationTest : public ConfiguredHost
{
protected:
  static ConfigurationReload reloadServing()
  {
    return reloadServingConfiguration([](Configuration const& read) { return read.check(); });
  }
};

std::string localName()
{
  OzfHostname local;
  local.setLocal();
  return local.exportNarrow();
}

// The first, for when several share a process: the others have loaded it already.
TEST_F(ProcessConfigurationTest, IsThereForTheFirstWhoAsksAndStays)
{
  writeText(file(), "SERVER = one\n");
  auto const configuration = getConfiguration();
  ASSERT_NE(configuration, nullptr);
  EXPECT_EQ(getConfiguration(), configuration);
}

TEST_F(ProcessConfigurationTest, IsReadOnceUntilItIsReloaded)
{
  configure("SERVER = one\n");
  auto const before = getConfiguration();
  writeText(file(), "SERVER = two\n");
  EXPECT_EQ(getConfiguration(), before);
  EXPECT_TRUE(reloadConfiguration());
  EXPECT_EQ(*getConfiguration()->find("SERVER"), "two");
  EXPECT_EQ(*before->find("SERVER"), "one");
}

// Overrides stay for the process: the keys are no other test's.
TEST_F(ProcessConfigurationTest, AnOverrideStandsInForTheFileAlsoAfterItIsReloaded)
{
  std::string const text = "ORB_PORT.Overridden = 1\nHOST_ADDRESS.Overridden = 127.0.0.1\n";
  configure(text + "LOG_LEVEL = 4\n");
  overrideConfiguration("ORB_PORT.Overridden", "2");
  overrideConfiguration("HOST_ADDRESS.overridden", "127.0.0.2");
  EXPECT_EQ(getConfiguration()->list("ORB_PORT.Overridden"), std::vector<std::string>{"2"});
  configure(text + "LOG_LEVEL = 6\n");
  EXPECT_EQ(*getConfiguration()->find("ORB_PORT.Overridden"), "2");
  EXPECT_EQ(*getConfiguration()->findNamed("HOST_ADDRESS.", "OVERRIDDEN"), "127.0.0.2");
  EXPECT_EQ(*getConfiguration()->find("LOG_LEVEL"), "6");
}

TEST_F(ProcessConfigurationTest, AnOverrideIsNoMistakeOfTheFile)
{
  configure("SERVER = one\n");
  overrideConfiguration("ORB_PORT.Mistaken", "much");
  LogCapture const log;
  EXPECT_TRUE(reloadConfiguration());
  EXPECT_TRUE(log.lines().empty()) << log.text();
}

TEST_F(ProcessConfigurationTest, GivesTheHostItsNameAndTakesItBack)
{
  std::string const systemName = localName();
  configure("CLIENT_NAME = client7\n");
  EXPECT_EQ(localName(), "client7");
  configure("SERVER = one\n");
  EXPECT_EQ(localName(), systemName);
}

TEST_F(ProcessConfigurationTest, AMissingFileIsEmptyAndToldInDetailOnly)
{
  LogCapture const log;
  EXPECT_FALSE(reloadConfiguration());
  ASSERT_NE(getConfiguration(), nullptr);
  EXPECT_FALSE(getConfiguration()->readable());
  EXPECT_EQ(getConfiguration()->find("SERVER"), nullptr);
  ASSERT_EQ(log.lines().size(), 1u) << log.text();
  EXPECT_EQ(log.lines()[0].level, 4);
}

TEST_F(ProcessConfigurationTest, AReloadOfAServiceWithoutAFileLeavesAllAsItWas)
{
  configure("SERVER = one\nCLIENT_NAME = client7\nLIMIT_WRITERS = 5\n");
  std::filesystem::remove(file());
  EXPECT_THAT(reloadServing().problems, SizeIs(1));
  EXPECT_TRUE(getConfiguration()->readable());
  ASSERT_NE(getConfiguration()->find("SERVER"), nullptr);
  EXPECT_EQ(*getConfiguration()->find("SERVER"), "one");
  EXPECT_EQ(localName(), "client7");
  EXPECT_EQ(getLimits().writers.value(), 5);
  std::filesystem::create_directory(file());
  EXPECT_THAT(reloadServing().problems, SizeIs(1));
  EXPECT_THAT(reloadServingConfiguration([](Configuration const&) { return Problems(); }).problems,
              SizeIs(1))
      << "whoever finds no fault with it";
  EXPECT_EQ(*getConfiguration()->find("SERVER"), "one");
  std::filesystem::remove(file());
  writeText(file(), "SERVER = two\nCLIENT_NAME = client7\n");
  EXPECT_THAT(reloadServing().problems, IsEmpty());
  EXPECT_EQ(*getConfiguration()->find("SERVER"), "two");
}

TEST_F(ProcessConfigurationTest, AReloadOfAServiceTakesNothingOfAConfigurationWithAMistake)
{
  configure("SERVER = one\nLOG_LEVEL = 1\nLIMIT_WRITERS = 5\n");
  writeText(file(), "SERVER = one\nLOG_LEVEL = 4\nLIMIT_WRITERS = 6\nSERVR = two\n");
  auto const outcome = reloadServing();
  ASSERT_THAT(outcome.problems, SizeIs(1));
  EXPECT_THAT(outcome.problems[0].text(), HasSubstr(file() + ":4: unknown key"));
  EXPECT_THAT(outcome.changed, IsEmpty());
  EXPECT_EQ(*getConfiguration()->find("LOG_LEVEL"), "1");
  EXPECT_EQ(getLimits().writers.value(), 5);
  EXPECT_THAT(getConfiguration()->check(), IsEmpty());
}

TEST_F(ProcessConfigurationTest, AReloadOfAServiceLeavesWhatWaitsForItsNextStart)
{
  std::string const before = "SERVER = one\nCLIENT_NAME = client7\nMETADATA_CACHE = 5\n"
                             "ORB_BIND = 127.0.0.1\nLOG_LEVEL = 1\n";
  configure(before);
  writeText(file(), "# one line more\nSERVER = one\nCLIENT_NAME = client8\nLOG_LEVEL = 4\n"
                    "LIMIT_WRITERS = 6\n");
  auto const outcome = reloadServing();
  EXPECT_THAT(outcome.problems, IsEmpty());
  EXPECT_THAT(outcome.waiting, ElementsAre("CLIENT_NAME", "METADATA_CACHE", "ORB_BIND"));
  EXPECT_THAT(outcome.changed, ElementsAre("LIMIT_WRITERS", "LOG_LEVEL"));
  EXPECT_EQ(keysThatWait(), outcome.waiting);
  EXPECT_EQ(localName(), "client7");
  EXPECT_EQ(*getConfiguration()->find("METADATA_CACHE"), "5") << "what is shown is what holds";
  EXPECT_EQ(getLimits().writers.value(), 6);
  EXPECT_EQ(getConfiguration()->list("ORB_BIND"), std::vector<std::string>{"127.0.0.1"});
  for (auto const& setting : getConfiguration()->settings())
    EXPECT_TRUE(setting.key != "CLIENT_NAME" || setting.value == "client7") << setting.value;

  writeText(file(), before);
  EXPECT_THAT(reloadServing().waiting, IsEmpty()) << "it is as it was";
  EXPECT_THAT(keysThatWait(), IsEmpty());
}

TEST_F(ProcessConfigurationTest, AnotherMasterIsTakenAtAReloadUnlessItChangesThePartOfThisHost)
{
  std::string const host = "CLIENT_NAME = client7\nORB_BIND = 127.0.0.1\n"
                           "HOST_ADDRESS.one = 127.0.0.11\nHOST_ADDRESS.two = 127.0.0.12\n";
  configure(host + "SERVER = one\n");
  writeText(file(), host + "SERVER = two\n");
  EXPECT_THAT(reloadServing().changed, ElementsAre("SERVER"));
  EXPECT_EQ(*getConfiguration()->find("SERVER"), "two");

  writeText(file(), host + "SERVER = client7\nLOG_LEVEL = 4\n");
  auto const outcome = reloadServing();
  EXPECT_THAT(outcome.waiting, ElementsAre("SERVER"));
  EXPECT_THAT(outcome.changed, ElementsAre("LOG_LEVEL"));
  EXPECT_EQ(*getConfiguration()->find("SERVER"), "two");
}

TEST_F(ProcessConfigurationTest, WhoListensIsToldOfAReloadThatWasTaken)
{
  configure("SERVER = one\n");
  std::vector<std::string> told;
  setReloadListener([&](ConfigurationReload const& reload) { told = reload.changed; });
  writeText(file(), "SERVER = one\nLOG_LEVEL = 9\n");
  reloadServing();
  EXPECT_THAT(told, IsEmpty());
  writeText(file(), "SERVER = one\nLOG_LEVEL = 4\n");
  reloadServing();
  EXPECT_THAT(told, ElementsAre("LOG_LEVEL"));
  setReloadListener({});
}

TEST_F(ProcessConfigurationTest, LogsEveryMistakeWithFileAndLine)
{
  LogCapture const log;
  configure("SERVER = one\nSERVR = two\nnonsense\n");
  ASSERT_EQ(log.lines().size(), 2u) << log.text();
  EXPECT_EQ(log.lines()[0].level, 1);
  EXPECT_THAT(log.lines()[0].text, testing::HasSubstr(file() + ":2: unknown key"));
  EXPECT_THAT(log.lines()[1].text, testing::HasSubstr(file() + ":3: no '='"));
}

TEST_F(ProcessConfigurationTest, MayBeAskedForByWhoReceivesItsLogLines)
{
  int asked = 0;
  LoggerFactory::setObserver([&](LogLine const&) { asked += getConfiguration() != nullptr; });
  configure("nonsense\n");
  LoggerFactory::setObserver({});
  EXPECT_EQ(asked, 1);
}

TEST_F(ProcessConfigurationTest, ReadersMeetOneOrTheOtherWhileItIsReloaded)
{
  configure("SERVER = one\nCLIENT_NAME = one\n");
  std::atomic<bool> done = false;
  std::atomic<int> mixed = 0;
  std::atomic<int> reads = 0;
  std::vector<std::thread> readers;
  for (int i = 0; i < 3; ++i)
    readers.emplace_back(
        [&]
        {
          while (!done)
          {
            auto const configuration = getConfiguration();
            mixed += *configuration->find("SERVER") != *configuration->find("CLIENT_NAME");
            ++reads;
          }
        });
  for (int i = 0; i < 50 || reads < 50; ++i)
  {
    std::string const name = "host" + std::to_string(i % 2);
    configure("SERVER = " + name + "\nCLIENT_NAME = " + name + "\n");
  }
  done = true;
  for (auto& reader : readers)
    reader.join();
  EXPECT_EQ(mixed, 0);
}

} // namespace
