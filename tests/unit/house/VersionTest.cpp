// The version stands in one place, and the changes of each version in another.

#include "tests/support/TempDir.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <regex>
#include <string>

namespace
{

std::string textOf(std::string const& path) { return readText(TQ_SOURCE_DIR "/" + path); }

std::string firstMatch(std::string const& text, std::string const& pattern)
{
  std::smatch match;
  return std::regex_search(text, match, std::regex(pattern)) ? match.str(1) : std::string();
}

std::string versionOfTheProject()
{
  return firstMatch(textOf("CMakeLists.txt"), "project\\([^)]*VERSION ([0-9.]+)");
}

} // namespace

TEST(Version, theChangesOfThisOneAreTold)
{
  ASSERT_NE(versionOfTheProject(), "");
  EXPECT_EQ(firstMatch(textOf("CHANGELOG.md"), "\n## ([0-9.]+)"), versionOfTheProject());
}

TEST(Version, theManualAndThePkgConfigModuleTakeIt)
{
  std::string const version = versionOfTheProject();
  for (char const* const page : {"tqdisco.8.scd", "tqdiscoctl.8.scd", "tqdiscoweb.8.scd",
                                 "tqpublish.8.scd", "tq.conf.5.frame.scd"})
    EXPECT_EQ(firstMatch(readText(std::string(TQ_BINARY_DIR "/docs/man/") + page),
                         "^[a-z.]+\\([58]\\) \"tessarine-discovery ([0-9.]+)\"\n"),
              version)
        << page;
  EXPECT_EQ(firstMatch(readText(TQ_BINARY_DIR "/tqdiscovery.pc"), "\nVersion: ([0-9.]+)\n"),
            version);
}

TEST(Version, nothingElseSpellsIt)
{
  namespace fs = std::filesystem;
  fs::path const root(TQ_SOURCE_DIR);
  std::string quoted = versionOfTheProject();
  for (std::size_t dot = 0; (dot = quoted.find('.', dot)) != std::string::npos; dot += 2)
    quoted.insert(dot, "\\");
  std::regex const spelt("(^|[^0-9.])" + quoted + "([^0-9.]|$)");
  int looked = 0;
  for (char const* const room : {"cmake", "discovery", "docs", "examples", "explorers", "host",
                                 "idl", "ozf", "packaging", "publish", "tests", "tools", "web"})
    for (auto const& entry : fs::recursive_directory_iterator(root / room))
      if (entry.is_regular_file() && entry.file_size() < (1U << 20))
      {
        ++looked;
        EXPECT_FALSE(std::regex_search(readText(entry.path()), spelt))
            << fs::relative(entry.path(), root);
      }
  EXPECT_LT(400, looked);
}
