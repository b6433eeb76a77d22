// What the product's keys mean: which there are and which values they take.

#include "ozf/config/Configuration.h"

#include "ozf/base/AsciiCase.h"
#include "ozf/config/ConfigurationKeys.h"
#include "ozf/config/PeerList.h"

#include <algorithm>

namespace Quillon::Tessarine::Ozf
{

namespace
{

std::string knownKeys()
{
  std::string text;
  for (ConfigurationKey const& key : CONFIGURATION_KEYS)
    text += (text.empty() ? "" : ", ") + shownKey(key);
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

bool isKnownPart(ConfigurationKey const& key, std::string const& name)
{
  auto const isName = [&](KeyPart const& part)
  { return name == std::string(key.name) + part.name; };
  return !key.hasNoOtherParts || std::ranges::any_of(key.parts, isName);
}

// Keys that differ here only in the case of a host's name are one key.
std::string sameKey(std::string const& key)
{
  if (!key.starts_with(configKey("HOST_ADDRESS.").name))
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
    ConfigurationKey const* const known = findKey(*use.key);
    if (known == nullptr)
    {
      add("unknown key " + quoted(*use.key) + "; known are " + knownKeys());
      continue;
    }
    if (*use.key == known->name && known->hasTwoParts())
      add(*use.key + " lacks the name after the dot");
    else if (!isKnownPart(*known, *use.key))
      add("there is no " + std::string(known->part) + " of the name in " + quoted(*use.key) +
          "; accepted: " + acceptedParts(*known));
    if (!isAccepted(*known, *use.value))
      add(quoted(*use.key) +
          (known->kind == KeyKind::PEERS ? " has " + PeerList::mistakeIn(*use.value)
                                         : " is " + quoted(*use.value)) +
          "; accepted: " + acceptedBy(*known));
    auto const [first, isFirst] = firstLine.emplace(sameKey(*use.key), use.line);
    if (!isFirst && known->use == KeyUse::ONCE)
      add(quoted(*use.key) + " is given again, first in line " + std::to_string(first->second) +
          "; accepted once, and the last value counts");
  }
  std::stable_sort(problems.begin(), problems.end(),
                   [](auto const& a, auto const& b) { return a.line < b.line; });
  return problems;
}

} // namespace Quillon::Tessarine::Ozf
