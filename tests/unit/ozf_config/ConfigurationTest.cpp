#include "ozf/config/Configuration.h"

#include "tests/support/TempDir.h"
#include "tests/unit/discovery/SystemCalls.h"

#include <gmock/gmock.h>

#include <random>
#include <sys/stat.h>

using namespace Quillon::Tessarine::Ozf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace
{

class ConfigurationTest : public testing::Test
{
protected:
  Configuration read(std::string const& text)
  {
    writeText(path(), text);
    return Configuration::read(path());
  }
  std::string path() const { return m_directory / "tq.conf"; }

  static std::string value(Configuration const& configuration, std::string const& key)
  {
    std::string const* const found = configuration.find(key);
    return found == nullptr ? "(none)" : *found;
  }

  TempDir m_directory;
};

TEST_F(ConfigurationTest, ReadsKeysAndValuesWithoutTheWhiteSpaceAround)
{
  auto const configuration = read("SERVER=one\n \tCLIENT_NAME \t=  a b\t \n\n   \nEMPTY =\n");
  EXPECT_TRUE(configuration.readable());
  EXPECT_THAT(configuration.problems(), IsEmpty());
  EXPECT_EQ(value(configuration, "SERVER"), "one");
  EXPECT_EQ(value(configuration, "CLIENT_NAME"), "a b");
  EXPECT_EQ(value(configuration, "EMPTY"), "");
  EXPECT_EQ(configuration.find("server"), nullptr);
}

TEST_F(ConfigurationTest, AValueMayHoldEqualsSignsAndHashes)
{
  EXPECT_EQ(value(read("A = b=c # d\n"), "A"), "b=c # d");
}

TEST_F(ConfigurationTest, CommentsAreLeftOut)
{
  auto const configuration = read("# A = 1\n  # B = 2\n#\nC = 3");
  EXPECT_THAT(configuration.problems(), IsEmpty());
  EXPECT_EQ(configuration.find("A"), nullptr);
  EXPECT_EQ(configuration.find("B"), nullptr);
  EXPECT_EQ(value(configuration, "C"), "3");
}

TEST_F(ConfigurationTest, ARepeatedKeyMakesAListInFileOrder)
{
  auto const configuration = read("B = 2\nA = x\nB = 1\nB = 3\n");
  EXPECT_THAT(configuration.list("B"), ElementsAre("2", "1", "3"));
  EXPECT_EQ(value(configuration, "B"), "3");
  EXPECT_THAT(configuration.list("C"), IsEmpty());
}

TEST_F(ConfigurationTest, ToleratesByteOrderMarkAndCarriageReturns)
{
  auto const configuration = read("\xEF\xBB\xBFSERVER = one\r\nLOG_LEVEL = 4\r\n");
  EXPECT_THAT(configuration.problems(), IsEmpty());
  EXPECT_EQ(value(configuration, "SERVER"), "one");
  EXPECT_EQ(value(configuration, "LOG_LEVEL"), "4");
}

TEST_F(ConfigurationTest, AByteOrderMarkAloneIsAnEmptyFile)
{
  auto const configuration = read("\xEF\xBB\xBF");
  EXPECT_TRUE(configuration.readable());
  EXPECT_THAT(configuration.problems(), IsEmpty());
}

TEST_F(ConfigurationTest, ValuesHaveNoLengthLimit)
{
  std::string const longValue(3 * 1024 * 1024, 'x');
  EXPECT_EQ(value(read("A = " + longValue + "\n"), "A"), longValue);
}

TEST_F(ConfigurationTest, EveryMistakeNamesFileAndLineAndLeavesItsLineOut)
{
  using namespace std::string_literals;
  auto const configuration = read("A = 1\nno equals\n = 2\nB C = 3\nD = \0x\nE = \xff\n"
                                  "F = \x1b[0m\n# \xc3\nG = a\rb\nH = \xc3\xa4\n"
                                  "I\xc2\x85 = 1\nJ = \xc2\x9b\nK = \x7f\nL = \xc2\xa0\n"s);
  std::vector<std::string> texts;
  for (auto const& problem : configuration.problems())
    texts.push_back(problem.text());
  EXPECT_THAT(texts, ElementsAre(path() + ":2: no '=' in this line; accepted is KEY = VALUE",
                                 path() + ":3: no key before '='; accepted is KEY = VALUE",
                                 path() + ":4: white space inside the key; accepted is KEY = VALUE",
                                 path() + ":5: a NUL byte at byte 5 of this line",
                                 path() + ":6: bytes that are not UTF-8 at byte 5 of this line",
                                 path() + ":7: a control character at byte 5 of this line",
                                 path() + ":8: bytes that are not UTF-8 at byte 3 of this line",
                                 path() + ":9: a control character at byte 6 of this line",
                                 path() + ":11: a control character at byte 2 of this line",
                                 path() + ":12: a control character at byte 5 of this line",
                                 path() + ":13: a control character at byte 5 of this line"));
  for (char const* key : {"B C", "C", "D", "E", "F", "G", "I", "I\xc2\x85", "J", "K", ""})
    EXPECT_EQ(configuration.find(key), nullptr) << key;
  EXPECT_EQ(value(configuration, "A"), "1");
  EXPECT_EQ(value(configuration, "H"), "\xc3\xa4");
  EXPECT_EQ(value(configuration, "L"), "\xc2\xa0");
}

void expectUnreadable(std::string const& path, std::string const& reason)
{
  auto const configuration = Configuration::read(path);
  EXPECT_FALSE(configuration.readable());
  ASSERT_EQ(configuration.problems().size(), 1u);
  EXPECT_EQ(configuration.problems().front().line, 0);
  EXPECT_THAT(configuration.problems().front().text(), HasSubstr(path + ": " + reason));
  EXPECT_EQ(configuration.check().size(), 1u);
}

TEST_F(ConfigurationTest, AMissingFileIsOneMistakeOfTheWholeFile)
{
  expectUnreadable(path(), "cannot be read: No such file");
  EXPECT_TRUE(Configuration::read(path()).missing());
}

TEST_F(ConfigurationTest, AFolderIsRefused)
{
  expectUnreadable(m_directory.path(), "not a regular");
}

TEST_F(ConfigurationTest, APipeIsRefusedWithoutWaitingForAWriter)
{
  ASSERT_EQ(mkfifo(path().c_str(), 0600), 0);
  expectUnreadable(path(), "not a regular file");
}

TEST_F(ConfigurationTest, ADeviceIsRefused)
{
  std::filesystem::create_symlink("/dev/zero", path());
  expectUnreadable(path(), "not a regular file");
  EXPECT_FALSE(Configuration::read(path()).missing());
}

TEST_F(ConfigurationTest, AFileOfSixteenMebibytesIsReadAndALargerOneRefused)
{
  constexpr std::size_t LIMIT = 16 * 1024 * 1024;
  EXPECT_TRUE(read("#" + std::string(LIMIT - 1, 'x')).readable());
  writeText(path(), "#" + std::string(LIMIT, 'x'));
  expectUnreadable(path(), "larger than 16 MiB");
}

TEST_F(ConfigurationTest, AFileThatCannotBeExaminedIsNotRead)
{
  writeText(path(), "SERVER = one\n");
  SystemCalls const calls(m_directory.path(), [](std::string const& call)
                          { return call == "fstat tq.conf" ? EIO : 0; });
  expectUnreadable(path(), "cannot be read: Input/output error");
}

TEST_F(ConfigurationTest, BooleansHaveEightWordsInAnyCase)
{
  auto const configuration =
      read("A = True\nB = YES\nC = on\nD = 1\nE = false\nF = No\nG = OFF\nH = 0\n"
           "I = maybe\nJ =\nK = truely\n");
  for (char const* key : {"A", "B", "C", "D"})
  {
    bool value = false;
    EXPECT_TRUE(configuration.getBoolean(key, false, value)) << key;
    EXPECT_TRUE(value) << key;
  }
  for (char const* key : {"E", "F", "G", "H"})
  {
    bool value = true;
    EXPECT_TRUE(configuration.getBoolean(key, true, value)) << key;
    EXPECT_FALSE(value) << key;
  }
  for (char const* key : {"I", "J", "K"})
    for (bool const before : {true, false})
    {
      bool value = before;
      EXPECT_FALSE(configuration.getBoolean(key, !before, value)) << key;
      EXPECT_EQ(value, before) << key;
    }
  bool value = false;
  EXPECT_TRUE(configuration.getBoolean("ABSENT", true, value));
  EXPECT_TRUE(value);
}

TEST_F(ConfigurationTest, IntegersAreDecimalAndWithinTheirBounds)
{
  auto const configuration =
      read("A = 6\nB = 7\nC = -1\nD = 0x4\nE = 4k\nF =\nG = 99999999999999999999\nH = +4\n"
           "I = 0\nJ = 4.0\n");
  long value = 77;
  EXPECT_TRUE(configuration.getInteger("A", 1, 0, 6, value));
  EXPECT_EQ(value, 6);
  EXPECT_TRUE(configuration.getInteger("I", 1, 0, 6, value));
  EXPECT_EQ(value, 0);
  value = 77;
  for (char const* key : {"B", "C", "D", "E", "F", "G", "H", "J"})
  {
    EXPECT_FALSE(configuration.getInteger(key, 1, 0, 6, value)) << key;
    EXPECT_EQ(value, 77) << key;
  }
  EXPECT_TRUE(configuration.getInteger("ABSENT", 5, 0, 6, value));
  EXPECT_EQ(value, 5);
}

TEST_F(ConfigurationTest, TheSecondPartOfAKeyIsFoundInAnyCaseAndTheLastInTheFileCounts)
{
  auto const configuration = read("HOST_ADDRESS.Zed = 1\nHOST_ADDRESS.zed = 2\n"
                                  "HOST_ADDRESS.ZED = 3\nHOST_ADDRESS.zedd = 4\n");
  std::string const* const found = configuration.findNamed("HOST_ADDRESS.", "zeD");
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(*found, "3");
  EXPECT_EQ(configuration.findNamed("HOST_ADDRESS.", "ze"), nullptr);
  EXPECT_EQ(configuration.findNamed("host_address.", "zed"), nullptr);
}

TEST_F(ConfigurationTest, AnyBytesAreReadWithoutHarmAndEveryMistakeHasALineOfTheFile)
{
  std::mt19937 random(4711);
  constexpr char ALPHABET[] = "AB= \t#\n\r\xc3\xa4\xff\x00\xef\xbb\xbf.";
  for (int round = 0; round < 500; ++round)
  {
    std::string text(random() % 200, '\0');
    for (char& byte : text)
      byte = ALPHABET[random() % (sizeof ALPHABET - 1)];
    auto const configuration = read(text);
    ASSERT_TRUE(configuration.readable());
    auto const lines = 1 + std::count(text.begin(), text.end(), '\n');
    int last = 0;
    for (auto const& problem : configuration.check())
    {
      ASSERT_GE(problem.line, std::max(last, 1));
      ASSERT_LE(problem.line, lines);
      last = problem.line;
    }
  }
}

} // namespace
