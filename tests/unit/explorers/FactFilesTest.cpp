#include "explorers/FactFiles.h"

#include "tests/support/TempDir.h"

#include <filesystem>
#include <limits>

using namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers;

TEST(FactFiles, joinsPathsBelowTheRootOfTheSystem)
{
  EXPECT_EQ("/proc/stat", below("/", "proc/stat"));
  EXPECT_EQ("/tree/proc/stat", below("/tree/", "proc/stat"));
}

TEST(FactFiles, readsNumbersThatFillTheWholeText)
{
  EXPECT_EQ(0U, parseNumber("0"));
  EXPECT_EQ(std::numeric_limits<std::uint64_t>::max(), parseNumber("18446744073709551615"));
  for (char const* text : {"", "18446744073709551616", "-1", "+1", " 1", "1 ", "1x", "0x1"})
    EXPECT_FALSE(parseNumber(text)) << text;
}

TEST(FactFiles, aFactIsAbsentWhenItsFileIsMissingEmptyOrNoFile)
{
  TempDir const dir;
  writeText(dir / "blank", " \n\t");
  std::filesystem::create_directory(dir / "folder");
  EXPECT_FALSE(readFact(dir.path(), "missing"));
  EXPECT_FALSE(readFact(dir.path(), "blank"));
  EXPECT_FALSE(readFact(dir.path(), "folder"));
}

TEST(FactFiles, aFactComesWithoutTheWhiteSpaceAroundIt)
{
  TempDir const dir;
  writeText(dir / "model", "  Two Words \n");
  writeText(dir / "size", "12\n");
  EXPECT_EQ("Two Words", readFact(dir.path(), "model"));
  EXPECT_EQ(12U, readNumber(dir.path(), "size"));
  EXPECT_FALSE(readNumber(dir.path(), "model"));
}

TEST(FactFiles, linesAreHandedOverUntilTheFileEndsOrSomebodyHasEnough)
{
  TempDir const dir;
  writeText(dir / "lines", "one\n\nthree\nlast");
  std::vector<std::string> lines;
  auto const keep = [&](std::string_view line)
  {
    lines.emplace_back(line);
    return line != "enough";
  };
  EXPECT_EQ(Reading::Whole, readLines(dir.path(), "lines", 1000, keep));
  EXPECT_EQ((std::vector<std::string>{"one", "", "three", "last"}), lines);
  lines.clear();
  EXPECT_EQ(Reading::Cut, readLines(dir.path(), "lines", 6, keep));
  EXPECT_EQ((std::vector<std::string>{"one", ""}), lines);
  writeText(dir / "lines", "enough\nmore\n");
  EXPECT_EQ(Reading::Ended, readLines(dir.path(), "lines", 1000, keep));
  EXPECT_EQ(Reading::Missing, readLines(dir.path(), "nothing", 1000, keep));
  EXPECT_EQ(Reading::Cut, readLines(dir.path(), "", 1000, keep)) << "a folder opens";
}

TEST(FactFiles, aLineWithoutEndIsHandedOverUpToALength)
{
  TempDir const dir;
  writeText(dir / "lines", std::string(200'000, 'x') + "\nnext\n");
  std::vector<std::size_t> sizes;
  readLines(dir.path(), "lines", 1U << 20U,
            [&](std::string_view line)
            {
              sizes.push_back(line.size());
              return true;
            });
  EXPECT_EQ((std::vector<std::size_t>{65536, 4}), sizes);
}

TEST(FactFiles, wordsAreWhatWhiteSpaceSeparates)
{
  EXPECT_EQ((std::vector<std::string_view>{"a", "b:", "c"}), wordsOf("  a\tb: c\r\n"));
  EXPECT_TRUE(wordsOf(" \t").empty());
}

TEST(FactFiles, pairsComeFromEveryLineWithASeparator)
{
  auto const pairs = parsePairs("a: 1\nno\n\nb :2:3\n:4", ':');
  ASSERT_EQ(3U, pairs.size());
  EXPECT_EQ(std::pair(std::string("a"), std::string("1")), pairs[0]);
  EXPECT_EQ(std::pair(std::string("b"), std::string("2:3")), pairs[1]);
  EXPECT_EQ(std::pair(std::string(), std::string("4")), pairs[2]);
}

TEST(FactFiles, productsStayAtTheLargestNumber)
{
  EXPECT_EQ(6U, saturatingProduct(2, 3));
  EXPECT_EQ(std::numeric_limits<std::uint64_t>::max(), saturatingProduct(1ULL << 60U, 512));
}

TEST(FactFiles, hexEscapesAreUndoneAndOtherBackslashesStay)
{
  EXPECT_EQ("old photos", decodeHexEscapes("old\\x20photos"));
  EXPECT_EQ("caf\xe9", decodeHexEscapes("caf\\xe9"));
  EXPECT_EQ("a\\b", decodeHexEscapes("a\\x5cb"));
  for (char const* text : {"\\", "\\x", "\\x2", "\\xzz", "\\x2g", "\\n00"})
    EXPECT_EQ(text, decodeHexEscapes(text));
}

TEST(FactFiles, aLinkIsReadAndNotFollowed)
{
  TempDir const dir;
  std::filesystem::create_symlink("../../nowhere", dir / "link");
  EXPECT_EQ("../../nowhere", readLink(dir / "link"));
  EXPECT_FALSE(readLink(dir.path()));
}
