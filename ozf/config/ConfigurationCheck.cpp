// What the product's keys mean: which there are and which values they take.

#include "ozf/config/Configuration.h"

#include "ozf/base/AsciiCase.h"
#include "ozf/config/ConfigurationKeys.h"
#include "ozf/config/PeerList.h"

#include <algorithm>
#include <string_view>

namespace Quillon::Tessarine::Ozf
{

namespace
{

// Of large families, unless it may be one of them, the beginning only.
std::string knownKeys(std::string_view unknown)
{
  std::string text;
  std::string_view before;
  for (ConfigurationKey const& key : CONFIGURATION_KEYS)
  {
    std::string_view family;
    for (std::string_view const each : {"LIMIT_", "WEB_", "PUBLISH_", "HISTORY_"})
      if (std::string_view(key.name).starts_with(each) && !unknown.starts_with(each))
        family = each;
    if (family.empty() || family != before)
      text.append(text.empty() ? "" : ", ")
          .append(family.empty() ? shownKey(key) : std::string(family) + "...");
    before = family;
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

bool isKnownPart(ConfigurationKey const& key, std::string const& name)
{
  auto const isName = [&](KeyPart const& part)
  { return name == std::string(key.name) + part.name; };
  return !key.hasNoOtherParts || std::ranges::any_of(key.parts, isName);
}

// Keys that differ here only in the case of a host's name are one key.
std::string sameKey(std::string const& key)
{
  if (!key.starts_with(configKey("HOST_ADDRESS.").name) &&
      !key.starts_with(configKey("HOST_PORT.").name))
    return key;
  std::string lower = key;
  std::transform(lower.begin(), lower.end(), lower.begin(), asciiLower);
  return lower;
}

// What is wrong with one line.
std::vector<std::string> mistakesOf(std::string const& name, std::string const& value)
{
  ConfigurationKey const* const key = findKey(name);
  if (key == nullptr)
    return {"unknown key " + quoted(name) + "; known are " + knownKeys(name)};
  std::vector<std::string> mistakes;
  if (name == key->name && key->hasTwoParts())
    mistakes.push_back(name + " lacks the name after the dot");
  else if (!isKnownPart(*key, name))
    mistakes.push_back("there is no " + std::string(key->part) + " of the name in " + quoted(name) +
                       "; accepted: " + acceptedParts(*key));
  if (!isAccepted(*key, value))
    mistakes.push_back(quoted(name) +
                       (key->kind == KeyKind::PEERS ? " has " + PeerList::mistakeIn(value)
                                                    : " is " + quoted(value)) +
                       "; accepted: " + acceptedBy(*key));
  return mistakes;
}

bool mayStandTwice(std::string const& name)
{
  ConfigurationKey const* const key = findKey(name);
  return key == nullptr || key->use == KeyUse::AS_LIST;
}

} // namespace

std::vector<ConfigurationProblem> Configuration::check() const
{
  // Every line, and the mistakes of syntax, by where they stand.
  using Place = std::pair<std::size_t, int>;
  std::map<Place, std::pair<std::string const*, Entry const*>> lines;
  for (auto const& [name, entries] : m_entries)
    for (auto const& entry : entries)
      if (entry.file != nullptr)
        lines[{entry.number, entry.line}] = {&name, &entry};

  std::vector<ConfigurationProblem> problems = m_problems;
  std::map<std::pair<std::size_t, std::string>, int> firstLine; // of a key in a file
  for (auto const& [place, line] : lines)
  {
    auto const& [name, entry] = line;
    for (std::string& mistake : mistakesOf(*name, entry->value))
      problems.push_back({*entry->file, entry->line, std::move(mistake)});
    auto const [first, isFirst] =
        firstLine.emplace(std::pair{entry->number, sameKey(*name)}, entry->line);
    if (!isFirst && !mayStandTwice(*name))
      problems.push_back({*entry->file, entry->line,
                          quoted(*name) + " is given again, first in line " +
                              std::to_string(first->second) +
                              "; accepted once, and the last value counts"});
  }
  auto const placeOf = [this](ConfigurationProblem const& problem)
  { return Place(std::ranges::find(m_files, problem.file) - m_files.begin(), problem.line); };
  std::ranges::stable_sort(problems, std::less(), placeOf);
  return problems;
}

} // namespace Quillon::Tessarine::Ozf
