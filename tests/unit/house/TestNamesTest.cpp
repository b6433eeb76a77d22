// CTest calls a test after its file, so that the tests of a file are found by
// its name.

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <regex>
#include <string>

// The list is the one of this very program; all programs' are made alike.
TEST(TestNames, BeginWithTheirFile)
{
  std::ifstream list(std::string(TQ_BINARY_DIR) + "/tests/unit_house_tests.cmake");
  std::regex const added(
      R"(add_test\(\[=\[([^.\]]+)\.([^\]]+)\]=\] .*--gtest_filter=(\w+)\.(\w+).*)");
  bool foundThis = false;
  int count = 0;
  for (std::string line; std::getline(list, line);)
  {
    std::smatch parts;
    if (!line.starts_with("add_test("))
      continue;
    ASSERT_TRUE(std::regex_match(line, parts, added)) << line;
    std::string const file =
        std::string(TQ_SOURCE_DIR) + "/tests/unit/house/" + parts.str(1) + ".cpp";
    EXPECT_TRUE(std::filesystem::exists(file)) << file;
    // The suite is left out where it is called as the file.
    bool const sameName = parts.str(3) == parts.str(1);
    EXPECT_EQ((sameName ? "" : parts.str(3) + ".") + parts.str(4), parts.str(2));
    foundThis = foundThis || parts.str(1) == "TestNamesTest";
    ++count;
  }
  EXPECT_TRUE(foundThis);
  EXPECT_LT(10, count);
}
