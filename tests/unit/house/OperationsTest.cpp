// The operations guide knows every line that the service logs at level 1.

#include "tests/support/TempDir.h"

#include <cctype>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace
{

// The end of the string constant that begins at the position.
std::size_t endOfConstant(std::string const& text, std::size_t at)
{
  for (++at; text[at] != '"'; ++at)
    at += text[at] == '\\' ? 1 : 0;
  return at;
}

// The arguments of the call whose parenthesis opens at the position.
std::vector<std::string> argumentsOf(std::string const& text, std::size_t open)
{
  std::vector<std::string> arguments(1);
  int depth = 1;
  for (std::size_t at = open + 1; at < text.size(); ++at)
  {
    if (text[at] == '"')
    {
      std::size_t const end = endOfConstant(text, at);
      arguments.back() += text.substr(at, end - at);
      at = end;
    }
    depth += text[at] == '(' ? 1 : text[at] == ')' ? -1 : 0;
    if (depth == 0)
      break;
    if (text[at] == ',' && depth == 1)
      arguments.emplace_back();
    else
      arguments.back() += text[at];
  }
  return arguments;
}

// The longest string constant of an expression, constants that stand side by
// side taken as one, as the compiler reads them.
std::string longestConstant(std::string const& expression)
{
  std::string longest;
  std::string constant;
  for (std::size_t at = 0; at < expression.size(); ++at)
  {
    if (expression[at] == '"')
    {
      std::size_t const end = endOfConstant(expression, at);
      for (++at; at < end; ++at)
        if (expression[at] != '\\' || expression[++at] == '"')
          constant += expression[at];
    }
    else if (std::isspace(static_cast<unsigned char>(expression[at])) == 0)
      constant.clear();
    if (constant.size() > longest.size())
      longest = constant;
  }
  return longest;
}

// The longest constant part of each message that a source logs at level 1.
std::vector<std::string> messagesOf(std::string const& source)
{
  static std::string const MACRO = "OZF_LOG(";
  constexpr std::size_t LEVEL = 1;
  constexpr std::size_t MESSAGE = 4;
  std::vector<std::string> messages;
  for (std::size_t at = source.find(MACRO); at != std::string::npos;
       at = source.find(MACRO, at + 1))
  {
    auto const arguments = argumentsOf(source, at + MACRO.size() - 1);
    if (arguments.size() <= MESSAGE || arguments[LEVEL] != " 1")
      continue;
    std::string message = arguments[MESSAGE];
    for (std::size_t i = MESSAGE + 1; i < arguments.size(); ++i)
      message += ',' + arguments[i];
    std::string const constant = longestConstant(message);
    if (constant.size() > 3) // what is shorter stands between two values
      messages.push_back(constant);
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
  for (char const* room : {"ozf", "discovery", "explorers", "host", "web", "publish"})
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
