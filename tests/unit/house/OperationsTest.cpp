// The operations guide knows every line that the service logs at level 1.

#include "tests/support/TempDir.h"

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <regex>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace
{

// The text between the parenthesis that opens at the position and its partner.
std::string insideParentheses(std::string const& text, std::size_t open)
{
  int depth = 0;
  for (std::size_t at = open; at < text.size(); ++at)
  {
    if (text[at] == '"')
      while (text[++at] != '"')
        at += text[at] == '\\' ? 1 : 0;
    else if (text[at] == '(')
      ++depth;
    else if (text[at] == ')' && --depth == 0)
      return text.substr(open + 1, at - open - 1);
  }
  return "";
}

// The longest constant part of each message that a source logs at level 1.
std::vector<std::string> messagesOf(std::string const& source)
{
  static std::string const MACRO = "OZF_LOG(";
  static std::regex const atLevelOne(R"(\s*[\w()]+,\s*1,[^,]*,[^,]*,([^]*))");
  static std::regex const gap("\"\\s+\"");
  static std::regex const literal(R"lit("((?:[^"\\]|\\.)*)")lit");
  std::vector<std::string> messages;
  for (std::size_t at = source.find(MACRO); at != std::string::npos;
       at = source.find(MACRO, at + 1))
  {
    std::string const call = insideParentheses(source, at + MACRO.size() - 1);
    std::smatch parts;
    if (!std::regex_match(call, parts, atLevelOne))
      continue;
    std::string const message = std::regex_replace(parts[1].str(), gap, "");
    std::string longest;
    for (std::sregex_iterator found(message.begin(), message.end(), literal), end; found != end;
         ++found)
      if ((*found)[1].length() > static_cast<long>(longest.size()))
        longest = (*found)[1];
    if (longest.size() > 3) // what is shorter stands between two values
      messages.push_back(std::regex_replace(longest, std::regex(R"(\\")"), "\""));
  }
  return messages;
}

std::string trimmed(std::string const& text)
{
  auto const first = text.find_first_not_of(' ');
  return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

} // namespace

TEST(Operations, everyLineAtLevelOneIsExplained)
{
  fs::path const root(TQ_SOURCE_DIR);
  std::string const guide = readText(root / "docs/operations.md");
  int messages = 0;
  for (char const* room : {"ozf", "discovery", "explorers", "host"})
    for (auto const& entry : fs::recursive_directory_iterator(root / room))
      if (entry.path().extension() == ".cpp")
        for (auto const& message : messagesOf(readText(entry.path())))
        {
          ++messages;
          EXPECT_NE(std::string::npos, guide.find(trimmed(message)))
              << entry.path().filename() << " logs \"" << message << '"';
        }
  EXPECT_GT(messages, 150); // the search itself still finds them
}
