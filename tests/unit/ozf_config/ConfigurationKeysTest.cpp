// The table of the keys, and what is written about them elsewhere.

#include "ozf/config/ConfigurationKeys.h"
#include "ozf/config/Configuration.h"

#include "tests/support/TempDir.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <regex>
#include <set>
#include <sstream>

using namespace Quillon::Tessarine::Ozf;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;

namespace
{

std::string sourceText(std::string const& path) { return readText(TQ_SOURCE_DIR "/" + path); }

std::string manual() { return readText(TQ_BINARY_DIR "/docs/man/tq.conf.5.scd"); }

std::vector<std::smatch> allMatches(std::string const& text, std::string const& pattern)
{
  std::regex const regex(pattern);
  return {std::sregex_iterator(text.begin(), text.end(), regex), std::sregex_iterator()};
}

// What a line of the sample gives, commented out or not.
struct SampleLine
{
  std::string key;
  std::string value;
  bool commented;
};

std::vector<SampleLine> sampleLines()
{
  static std::string const sample = sourceText("packaging/tq.conf.sample");
  std::vector<SampleLine> lines;
  for (auto const& match : allMatches(sample, "(?:^|\n)(#?)([A-Z][^ =\n]*) = ([^\n]*)"))
    lines.push_back({match[2], match[3], match[1].length() != 0});
  return lines;
}

// "1,000,000", "2^40" and "1048576" alike.
long numberIn(std::string text)
{
  std::erase(text, ',');
  auto const power = text.find('^');
  return power == std::string::npos ? std::stol(text) : 1L << std::stol(text.substr(power + 1));
}

} // namespace

TEST(ConfigurationKeysTest, NoKeyHidesBehindAnother)
{
  std::set<std::string> names;
  for (ConfigurationKey const& key : CONFIGURATION_KEYS)
  {
    EXPECT_TRUE(names.insert(key.name).second) << key.name;
    EXPECT_EQ(findKey(key.name), findKey(std::string(key.name) + (key.hasTwoParts() ? "x" : "")));
    ASSERT_NE(findKey(key.name), nullptr);
    EXPECT_STREQ(findKey(key.name)->name, key.name);
    EXPECT_EQ(key.hasTwoParts(), *key.part != '\0') << key.name;
  }
}

TEST(ConfigurationKeysTest, WhatHoldsWithoutAWordWouldBeAccepted)
{
  for (ConfigurationKey const& key : CONFIGURATION_KEYS)
  {
    std::vector<std::string> values = {defaultOf(key)};
    for (KeyPart const& part : key.parts)
      values.push_back(defaultOf(key, part.name));
    for (std::string const& value : values)
      EXPECT_TRUE(value.empty() || isAccepted(key, value)) << key.name << " = " << value;
    EXPECT_THAT(acceptedBy(key), testing::Not(IsEmpty())) << key.name;
    EXPECT_EQ(key.kind == KeyKind::NUMBER, key.high != 0) << key.name << " has bounds";
    EXPECT_EQ(key.kind == KeyKind::CHOICE, *key.choices != '\0') << key.name;
  }
}

TEST(ConfigurationKeysTest, TheManualSaysOfEachKeyWhatTheTableKnows)
{
  std::string const page = manual();
  std::map<std::string, std::string> entries;
  for (auto const& match : allMatches(page, "\n\\*([A-Z_.]+)\\*(\\S*) = ([^\n]*)\n\t([^\n]*)"))
    EXPECT_TRUE(
        entries.emplace(match[1], match.str(2) + ' ' + match.str(3) + ' ' + match.str(4)).second)
        << match[1] << " stands there twice";
  EXPECT_EQ(entries.size(), std::size(CONFIGURATION_KEYS));
  for (ConfigurationKey const& key : CONFIGURATION_KEYS)
  {
    ASSERT_TRUE(entries.contains(key.name)) << key.name;
    std::string const& entry = entries[key.name];
    EXPECT_GT(std::string(key.text).size(), 15U) << key.name << " tells what it is for";
    EXPECT_THAT(entry, HasSubstr(key.part));
    EXPECT_THAT(entry, HasSubstr(std::string(key.value) + ' ' + key.text)) << key.name;
    EXPECT_THAT(entry, HasSubstr(defaultOf(key))) << key.name;
    for (KeyPart const& part : key.parts)
      EXPECT_THAT(entry, HasSubstr(part.name)) << key.name;
    if (key.kind == KeyKind::NUMBER)
    {
      EXPECT_THAT(entry, HasSubstr(acceptedBy(key))) << key.name;
    }
    EXPECT_EQ(key.holds == KeyHolds::FROM_RELOAD,
              entry.find("A change holds from a reload on.") != std::string::npos)
        << entry;
  }
}

TEST(ConfigurationKeysTest, TheSampleHasAnExampleOfEachKeyAndTheNumbersThatHoldWithoutIt)
{
  std::set<std::string> shown;
  for (SampleLine const& line : sampleLines())
  {
    ConfigurationKey const* const key = findKey(line.key);
    ASSERT_NE(key, nullptr) << line.key;
    shown.insert(key->name);
    EXPECT_TRUE(isAccepted(*key, line.value)) << line.key << " = " << line.value;
    std::string const second = line.key.substr(std::string(key->name).size());
    std::string const byDefault = defaultOf(*key, second);
    bool const isNumber = key->kind == KeyKind::NUMBER || key->kind == KeyKind::SPAN;
    EXPECT_TRUE(!line.commented || !isNumber || byDefault.empty() || line.value == byDefault)
        << line.key << " is " << line.value << " and not " << byDefault;
  }
  for (ConfigurationKey const& key : CONFIGURATION_KEYS)
    EXPECT_THAT(shown, Contains(key.name));
}

TEST(ConfigurationKeysTest, TheGuideKnowsTheLimitsAndWhatTheyMayBe)
{
  std::string const guide = sourceText("docs/operations.md");
  std::set<std::string> rows;
  for (auto const& row : allMatches(
           guide, "\n\\| `(LIMIT_[A-Z_]+)`[^|]*\\| ([0-9]+)[^|]*\\| ([0-9,^]+) to ([0-9,^]+)"))
  {
    ConfigurationKey const* const key = findKey(row.str(1));
    ASSERT_NE(key, nullptr) << row[1];
    rows.insert(key->name);
    EXPECT_EQ(numberIn(row[2]), key->number) << row[1];
    EXPECT_EQ(numberIn(row[3]), key->low) << row[1];
    EXPECT_EQ(numberIn(row[4]), key->high) << row[1];
  }
  for (ConfigurationKey const& key : CONFIGURATION_KEYS)
    EXPECT_EQ(rows.contains(key.name), std::string(key.name).starts_with("LIMIT_")) << key.name;
}

TEST(ConfigurationKeysTest, TheGuideListsWhatWaitsForARestart)
{
  std::string const guide = sourceText("docs/operations.md");
  std::smatch list;
  ASSERT_TRUE(std::regex_search(
      guide, list,
      std::regex("wait for the next start of the service:\\s+((?:`[^`]+`[,\\s]*)+)\\.")));
  std::set<std::string> listed;
  std::string const text = list[1];
  for (auto const& match : allMatches(text, "`([A-Z_]+\\.?)[^`]*`"))
    listed.insert(match[1]);
  std::set<std::string> expected;
  for (ConfigurationKey const& key : CONFIGURATION_KEYS)
    if (key.holds == KeyHolds::FROM_START)
      expected.insert(key.name);
  EXPECT_EQ(listed, expected);
}

// A key that was renamed leaves none of its old name behind.
TEST(ConfigurationKeysTest, NoDocumentNamesAKeyThatThereIsNot)
{
  std::set<std::string> const others = {// of the environment
                                        "TESSARINE_ROOT", "OZF_ASSERT", "SOURCE_DATE_EPOCH",
                                        "NOTIFY_SOCKET", "NO_COLOR", "PROJECT_VERSION",
                                        // what calls are answered with
                                        "COMM_FAILURE", "NO_RESOURCES", "NO_PERMISSION",
                                        "NO_MEMORY", "OBJECT_NOT_EXIST", "BAD_PARAM"};
  std::set<std::string> prefixes; // what some keys begin with: "LIMIT_"
  for (ConfigurationKey const& key : CONFIGURATION_KEYS)
    for (std::string name = key.name; name.find('_') != std::string::npos;)
    {
      name.resize(name.find_last_of('_'));
      prefixes.insert(name + '_');
    }
  int seen = 0;
  for (char const* const path :
       {"docs/man/tq.conf.5.scd", "docs/man/tqdisco.8.scd", "docs/man/tqdiscoctl.8.scd",
        "docs/man/tqdiscoweb.8.scd", "docs/man/tqpublish.8.scd", "docs/operations.md",
        "packaging/tq.conf.sample", "SECURITY.md"})
  {
    std::string const text = sourceText(path);
    for (auto const& match : allMatches(text, "\\b[A-Z]{2,}(?:_[A-Z]+)*_[A-Z]*\\.?"))
    {
      std::string name = match.str();
      bool const isFirstPart = findKey(name) != nullptr || findKey(name + '.') != nullptr;
      name.resize(name.find_last_not_of('.') + 1);
      EXPECT_TRUE(isFirstPart || findKey(name) != nullptr || prefixes.contains(name) ||
                  others.contains(name) || name.starts_with("DS_"))
          << path << ": " << name;
      ++seen;
    }
  }
  EXPECT_GT(seen, 100) << "the search itself still finds them";
}

// Sources ask the table, which the compiler looks up.
TEST(ConfigurationKeysTest, NoSourceSpellsAKeyForItself)
{
  namespace fs = std::filesystem;
  fs::path const root(TQ_SOURCE_DIR);
  std::set<std::string> const exempt = {
      "ozf/config/ConfigurationKeys.h", // the table
      "ozf/log/LogCounts.cpp",          // names the key in a line, and may not include the table
  };
  int asked = 0;
  for (char const* const room :
       {"ozf", "discovery", "explorers", "host", "tools", "web", "publish"})
    for (auto const& entry : fs::recursive_directory_iterator(root / room))
    {
      std::string const path = fs::relative(entry.path(), root);
      if ((entry.path().extension() != ".cpp" && entry.path().extension() != ".h") ||
          exempt.contains(path))
        continue;
      std::string const text =
          std::regex_replace(readText(entry.path()), std::regex("//[^\n]*"), "");
      for (auto const& match : allMatches(text, "(configKey\\()?\"([A-Z][A-Z_]+\\.?[^\"\\s]*)\""))
      {
        ConfigurationKey const* const key = findKey(match.str(2));
        asked += match[1].matched ? 1 : 0;
        EXPECT_TRUE(key == nullptr || match[1].matched) << path << ": " << match.str();
      }
    }
  EXPECT_GT(asked, 50) << "the search itself still finds them";
}

TEST(ConfigurationKeysTest, ASpanIsShownAsItIsWritten)
{
  EXPECT_EQ(defaultOf(configKey("EXPLORER_INTERVAL."), "filesystem"), "5m");
  EXPECT_EQ(defaultOf(configKey("EXPLORER_INTERVAL."), "volume"), "1d");
  EXPECT_EQ(defaultOf(configKey("EXPLORER_EXPIRY."), "volume"), "");
  EXPECT_EQ(defaultOf(configKey("COLLECTION_PAGE_SIZE")), "");
  EXPECT_EQ(defaultOf(configKey("ORB_PORT."), "DiscoveryService"), "27511");
  EXPECT_EQ(defaultOf(configKey("ORB_PORT."), "Other"), "");
}
