// What the product's keys mean: which there are and which values they take.

#include "ozf/config/Configuration.h"

#include "ozf/base/OzfString.h"
#include "ozf/config/ConfigurationValues.h"
#include "ozf/config/IpAddress.h"

#include <algorithm>
#include <cstdint>
#include <limits>

namespace Quillon::Tessarine::Ozf
{

namespace
{

constexpr std::size_t MAX_HOST_NAME = 255;

bool isBoolean(std::string const& text) { return parseBoolean(text).has_value(); }

template <long Low, long High>
bool isInteger(std::string const& text)
{
  return parseInteger(text, Low, High).has_value();
}

bool isHostName(std::string const& text)
{
  return !text.empty() && text.size() <= MAX_HOST_NAME &&
         text.find_first_of(" \t/") == std::string::npos;
}

bool isAddress(std::string const& text) { return IpAddress::fromText(text).has_value(); }

bool isLogFile(std::string const& text)
{
  return text.starts_with('/') || text == "stderr" || text == "syslog";
}

enum class Occurs
{
  Once,
  AsList
};

struct KeyRule
{
  std::string_view key; // one that ends in '.' is the first part of a key of two parts
  Occurs occurs;
  bool (*accepts)(std::string const& value);
  std::string_view accepted;
};

constexpr std::string_view HOST_ADDRESS = "HOST_ADDRESS.";

constexpr KeyRule RULES[] = {
    {"SERVER", Occurs::Once, isHostName, "a host name or an address"},
    {"CLIENT_NAME", Occurs::Once, isHostName, "a host name"},
    {"REPORT_CLIENT_DISCOVERIES", Occurs::Once, isBoolean,
     "true, yes, on, 1, false, no, off and 0"},
    {"LOG_LEVEL", Occurs::Once, isInteger<0, 6>, "whole numbers from 0 to 6"},
    {"LOG_FILE", Occurs::Once, isLogFile, "an absolute path, stderr and syslog"},
    {"ORB_PORT.", Occurs::Once, isInteger<1, 65535>, "whole numbers from 1 to 65535"},
    {"ORB_BIND", Occurs::AsList, isAddress, "one IPv4 or IPv6 address a line"},
    {HOST_ADDRESS, Occurs::Once, isAddress, "an IPv4 or IPv6 address"},
    {"COLLECTION_PAGE_SIZE", Occurs::Once, isInteger<1, std::numeric_limits<std::int32_t>::max()>,
     "whole numbers from 1 to 2147483647"},
    {"READ_LIMIT_SECONDS", Occurs::Once, isInteger<1, std::numeric_limits<std::int32_t>::max()>,
     "whole numbers from 1 to 2147483647"},
};

KeyRule const* findRule(std::string_view key)
{
  for (auto const& rule : RULES)
    if (rule.key.ends_with('.') ? key.starts_with(rule.key) : key == rule.key)
      return &rule;
  return nullptr;
}

std::string knownKeys()
{
  std::string text;
  for (auto const& rule : RULES)
  {
    text += text.empty() ? "" : ", ";
    text += rule.key;
    if (rule.key.ends_with('.'))
      text += rule.key == HOST_ADDRESS ? "<host>" : "<service>";
  }
  return text;
}

// A value may be megabytes long; a message is not. Cuts between characters.
std::string quoted(std::string const& text)
{
  constexpr std::size_t MAX_SHOWN = 80;
  if (text.size() <= MAX_SHOWN)
    return '"' + text + '"';
  std::size_t length = MAX_SHOWN;
  while ((static_cast<unsigned char>(text[length]) & 0xC0) == 0x80)
    --length;
  return '"' + text.substr(0, length) + "...\"";
}

// Keys that differ here only in the case of a host's name are one key.
std::string sameKey(std::string const& key)
{
  if (!key.starts_with(HOST_ADDRESS))
    return key;
  std::string lower = key;
  std::transform(lower.begin(), lower.end(), lower.begin(), asciiLower);
  return lower;
}

} // namespace

std::vector<ConfigurationProblem> Configuration::check() const
{
  struct Use
  {
    int line;
    std::string const* key;
    std::string const* value;
  };
  std::vector<Use> uses;
  for (auto const& [key, entries] : m_entries)
    for (auto const& entry : entries)
      if (entry.line != NO_LINE)
        uses.push_back({entry.line, &key, &entry.value});
  std::sort(uses.begin(), uses.end(), [](Use const& a, Use const& b) { return a.line < b.line; });

  std::vector<ConfigurationProblem> problems = m_problems;
  std::map<std::string, int> firstLine;
  for (auto const& use : uses)
  {
    auto const add = [&](std::string const& message) {
      problems.push_back({m_path, use.line, message});
    };
    KeyRule const* const rule = findRule(*use.key);
    if (rule == nullptr)
    {
      add("unknown key " + quoted(*use.key) + "; known are " + knownKeys());
      continue;
    }
    if (*use.key == rule->key && rule->key.ends_with('.'))
      add(*use.key + " lacks the name after the dot");
    if (!rule->accepts(*use.value))
      add(quoted(*use.key) + " is " + quoted(*use.value) +
          "; accepted: " + std::string(rule->accepted));
    auto const [first, isFirst] = firstLine.emplace(sameKey(*use.key), use.line);
    if (!isFirst && rule->occurs == Occurs::Once)
      add(quoted(*use.key) + " is given again, first in line " + std::to_string(first->second) +
          "; accepted once, and the last value counts");
  }
  std::stable_sort(problems.begin(), problems.end(),
                   [](auto const& a, auto const& b) { return a.line < b.line; });
  return problems;
}

} // namespace Quillon::Tessarine::Ozf
