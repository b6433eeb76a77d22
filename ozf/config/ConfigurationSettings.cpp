// What a configuration comes to: every key with what holds for it.

#include "ozf/config/Configuration.h"

#include "ozf/config/ConfigurationKeys.h"

#include <set>

namespace Quillon::Tessarine::Ozf
{

namespace
{

// Whether whoever reads a key of the kind takes a value that is none for absent. Of the
// others a wrong value fails what it is for, or the start.
bool fallsBack(ConfigurationKey const& key)
{
  switch (key.kind)
  {
  case KeyKind::BOOLEAN:
  case KeyKind::NUMBER:
  case KeyKind::SPAN:
  case KeyKind::PATH:
  case KeyKind::LOG_FILE:
  case KeyKind::LOG_PATTERN:
  case KeyKind::NAMES:
    return true;
  default:
    return false;
  }
}

} // namespace

std::vector<ConfigurationSetting> Configuration::settings() const
{
  std::vector<ConfigurationSetting> result;
  auto const add = [&](ConfigurationKey const& key, std::string const& second)
  {
    std::string const name = key.name + second;
    ConfigurationSetting const absent{name, {},    defaultOf(key, second),           {},
                                      0,    false, key.holds == KeyHolds::FROM_START};
    auto const found = m_entries.find(name);
    std::vector<Entry> entries = found == m_entries.end() ? std::vector<Entry>() : found->second;
    if (key.use == KeyUse::ONCE && entries.size() > 1)
      entries = {entries.back()};
    std::erase_if(entries, [&](Entry const& entry)
                  { return fallsBack(key) && !isAccepted(key, entry.value); });
    for (Entry const& entry : entries)
    {
      ConfigurationSetting given = absent;
      given.value = entry.value;
      given.file = entry.file == nullptr ? std::string() : *entry.file;
      given.line = entry.line;
      given.isGiven = true;
      result.push_back(std::move(given));
    }
    if (!entries.empty())
      return;
    result.push_back(absent);
    result.back().value = absent.byDefault;
  };

  for (ConfigurationKey const& key : CONFIGURATION_KEYS)
  {
    if (!key.hasTwoParts())
    {
      add(key, {});
      continue;
    }
    std::set<std::string> seconds;
    for (KeyPart const& part : key.parts)
      seconds.insert(part.name);
    for (auto const& [second, value] : listNamed(key.name))
      seconds.insert(second);
    if (seconds.empty())
      seconds.insert(shownKey(key).substr(std::string_view(key.name).size()));
    for (std::string const& second : seconds)
      add(key, second);
  }
  return result;
}

} // namespace Quillon::Tessarine::Ozf
