// Whoever reads of a decision finds the code that it is about.

#include <cctype>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <regex>
#include <set>
#include <string>
#include <vector>

namespace
{

std::string textOfFile(std::filesystem::path const& path)
{
  std::ifstream in(path);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Every word of the sources that could be a name.
std::set<std::string> const& namesInSources()
{
  static std::set<std::string> const names = []
  {
    std::set<std::string> found;
    std::filesystem::path const root(TQ_SOURCE_DIR);
    for (char const* room :
         {"ozf", "discovery", "scripts", "explorers", "host", "tools", "web", "publish"})
      for (auto const& entry : std::filesystem::recursive_directory_iterator(root / room))
      {
        auto const extension = entry.path().extension();
        if (extension != ".h" && extension != ".cpp")
          continue;
        std::string word;
        for (char const c : textOfFile(entry.path()) + '\n')
        {
          if (std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_')
            word += c;
          else
          {
            found.insert(word);
            word.clear();
          }
        }
      }
    return found;
  }();
  return names;
}

// A file of the tree, or a type or function of the sources, whose names mix
// small and capital letters or are qualified.
bool isPlace(std::string const& name)
{
  if (name.find('/') != std::string::npos || name == "CMakeLists.txt")
    return std::filesystem::exists(std::filesystem::path(TQ_SOURCE_DIR) / name);
  static std::regex const IDENTIFIER("([A-Za-z_]\\w*::)*[A-Za-z_]\\w*");
  static std::regex const MIXED("[A-Za-z]*([a-z][A-Z]|[A-Z][A-Z][a-z])\\w*");
  auto const last = name.rfind("::");
  std::string const plain = last == std::string::npos ? name : name.substr(last + 2);
  return std::regex_match(name, IDENTIFIER) &&
         (last != std::string::npos || std::regex_match(plain, MIXED)) &&
         namesInSources().contains(plain);
}

// The entries of a list, each in one piece, without the headings.
std::vector<std::string> entriesOf(std::string const& document)
{
  std::vector<std::string> entries;
  bool inEntry = false;
  for (std::size_t begin = 0; begin < document.size();)
  {
    std::size_t const end = document.find('\n', begin);
    std::string const line = document.substr(begin, end - begin);
    begin = end == std::string::npos ? document.size() : end + 1;
    if (line.starts_with("* "))
      entries.push_back(line);
    else if (inEntry && line.starts_with("  "))
      entries.back() += line.substr(1);
    inEntry = line.starts_with("* ") || (inEntry && line.starts_with("  "));
  }
  return entries;
}

bool namesAPlace(std::string const& entry)
{
  static std::regex const QUOTED("`([^`]+)`");
  for (std::sregex_iterator found(entry.begin(), entry.end(), QUOTED), none; found != none; ++found)
    if (isPlace((*found)[1]))
      return true;
  return false;
}

} // namespace

TEST(Decisions, EachEntryNamesItsPlace)
{
  auto const entries =
      entriesOf(textOfFile(std::filesystem::path(TQ_SOURCE_DIR) / "docs/decisions.md"));
  ASSERT_LT(100U, entries.size());
  for (std::string const& entry : entries)
    EXPECT_TRUE(namesAPlace(entry)) << entry;
}

TEST(Decisions, APlaceIsOneThatIsThere)
{
  EXPECT_EQ((std::vector<std::string>{"* a b", "* c"}), entriesOf("# x\n* a\n  b\n\n  d\n* c\n"));
  EXPECT_TRUE(namesAPlace("* `discovery/DiscDB.h`"));
  EXPECT_TRUE(namesAPlace("* as `DBDiscovery::expire` does"));
  EXPECT_FALSE(namesAPlace("* `discovery/Gone.h`"));
  EXPECT_FALSE(namesAPlace("* `NoSuchThing::atAll`"));
  EXPECT_FALSE(namesAPlace("* `status`, DiscDB.h"));
}
