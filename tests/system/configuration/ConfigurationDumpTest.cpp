// tqdisco --dump-config, and what it is told of files that cannot be read.

#include "ozf/config/ConfigurationKeys.h"
#include "tests/support/LiveService.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <regex>

namespace
{

using namespace Quillon::Tessarine::Ozf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;
using tqtest::Outcome;

class ConfigurationDumpTest : public testing::Test
{
protected:
  ConfigurationDumpTest() { std::filesystem::create_directories(m_root / "etc/tq.conf.d"); }

  Outcome tqdisco(std::vector<std::string> const& arguments) const
  {
    return tqtest::runProgram(TQ_BIN_DIR "/tqdisco", arguments,
                              {{"TESSARINE_ROOT", m_root.path()}});
  }

  std::string file() const { return m_root / "etc/tq.conf"; }
  std::string further(std::string const& name) const { return file() + ".d/" + name; }

  TempDir m_root;
};

} // namespace

TEST_F(ConfigurationDumpTest, printsEveryKeyWithItsValueItsDefaultAndWhereItComesFrom)
{
  writeText(file(), "# the master\nSERVER = one\nORB_BIND = 127.0.0.1\nLIMIT_WRITERS = 9\n");
  writeText(further("10-site.conf"), "SERVER = two\nORB_BIND = ::1\n\nEXPLORER.host = off\n");
  auto const outcome = tqdisco({"--dump-config"});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
  EXPECT_EQ(outcome.errors, "");
  std::string const place = " +" + file();
  for (std::string const& row :
       {"\nSERVER +two +- " + place + "\\.d/10-site\\.conf:1\n",
        "\nORB_BIND +127\\.0\\.0\\.1 +- " + place + ":3\nORB_BIND +::1 +- " + place +
            "\\.d/10-site\\.conf:2\n",
        "\nLIMIT_WRITERS +9 +256 " + place + ":4\n",
        "\nEXPLORER\\.host +off +yes " + place + "\\.d/10-site\\.conf:4\n",
        std::string("\nLOG_LEVEL +1 +1 +default\n"), std::string("\nAUDIT_FILE +- +- +-\n"),
        std::string("\nEXPLORER_INTERVAL\\.volume +1d +1d +default\n"),
        std::string("\nHOST_ADDRESS\\.<host> +- +- +-\n"),
        std::string("\nORB_PORT\\.DiscoveryService +27511 +27511 +default\n")})
    EXPECT_TRUE(std::regex_search(outcome.output, std::regex(row))) << row << outcome.output;
  for (ConfigurationKey const& key : CONFIGURATION_KEYS)
    EXPECT_THAT(outcome.output, HasSubstr('\n' + std::string(key.name)));
}

TEST_F(ConfigurationDumpTest, printsTheSameAsJson)
{
  writeText(file(), "SERVER = \"quoted\"\nORB_BIND = 127.0.0.1\n");
  auto const outcome = tqdisco({"--dump-config", "--json"});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
  auto const settings = nlohmann::json::parse(outcome.output, nullptr, false);
  ASSERT_TRUE(settings.is_array()) << outcome.output;
  std::map<std::string, nlohmann::json> byKey;
  for (auto const& setting : settings)
    byKey[setting.at("key")] = setting;
  EXPECT_EQ(byKey["SERVER"], nlohmann::json({{"key", "SERVER"},
                                             {"value", "\"quoted\""},
                                             {"default", nullptr},
                                             {"file", file()},
                                             {"line", 1},
                                             {"restart", false}}));
  EXPECT_EQ(byKey["METADATA_CACHE"], nlohmann::json({{"key", "METADATA_CACHE"},
                                                     {"value", "67108864"},
                                                     {"default", "67108864"},
                                                     {"file", nullptr},
                                                     {"line", nullptr},
                                                     {"restart", true}}));
  EXPECT_GE(byKey.size(), std::size(CONFIGURATION_KEYS));
}

TEST_F(ConfigurationDumpTest, showsWhatHoldsInPlaceOfAMistakeAndTellsOfIt)
{
  writeText(file(), "SERVER = one\nLOG_LEVEL = 9\nLIMIT_WRITERS = 7\n");
  writeText(further("a.conf"), "LIMIT_WRITERS = many\n");
  auto const outcome = tqdisco({"--dump-config"});
  EXPECT_EQ(outcome.exitCode, 2);
  EXPECT_THAT(outcome.output, ContainsRegex("\nLOG_LEVEL +1 +1 +default\n"));
  EXPECT_THAT(outcome.output, ContainsRegex("\nLIMIT_WRITERS +256 +256 +default\n"))
      << "the last value counts, whatever it is worth";
  EXPECT_THAT(outcome.errors, HasSubstr("tq.conf:2: \"LOG_LEVEL\" is \"9\""));
  EXPECT_THAT(outcome.errors, HasSubstr("tq.conf.d/a.conf:1: \"LIMIT_WRITERS\" is \"many\""));
}

TEST_F(ConfigurationDumpTest, jsonIsForTheDumpAlone)
{
  auto const outcome = tqdisco({"--json"});
  EXPECT_EQ(outcome.exitCode, 2);
  EXPECT_THAT(outcome.errors, HasSubstr("--json"));
}

TEST_F(ConfigurationDumpTest, aCheckNamesEveryFileAndTheOneThatCannotBeRead)
{
  writeText(file(), "SERVER = one\n");
  writeText(further("10-site.conf"), "LOG_LEVEL = 4\n");
  auto outcome = tqdisco({"--check-config"});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
  EXPECT_EQ(outcome.output,
            file() + ": no mistakes\n" + further("10-site.conf") + ": no mistakes\n");
  std::filesystem::create_symlink("away", further("20-gone.conf"));
  outcome = tqdisco({"--check-config"});
  EXPECT_EQ(outcome.exitCode, 2);
  EXPECT_THAT(outcome.errors,
              HasSubstr(further("20-gone.conf") + ": cannot be read: No such file"));
  EXPECT_EQ(tqtest::occurrences(outcome.errors, "\n"), 1U) << outcome.errors;
}

TEST_F(ConfigurationDumpTest, aFileThatIsThereAndCannotBeReadFailsTheStart)
{
  writeText(file(), "SERVER = one\n");
  std::filesystem::create_directory(further("10-site.conf"));
  auto const outcome = tqdisco({});
  EXPECT_EQ(outcome.exitCode, 1);
  EXPECT_THAT(outcome.errors, HasSubstr(further("10-site.conf") + ": not a regular file"));
  EXPECT_THAT(outcome.errors, HasSubstr("Not started without the configuration that is there"));
  EXPECT_THAT(outcome.errors, Not(HasSubstr("Started, version")));
}
