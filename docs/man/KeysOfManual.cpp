// Writes the manual of tq.conf: copies the page given on standard input and puts the
// keys in for the lines that ask for them. "[KEYS LIMIT_]" is for those whose names
// begin so, "[KEYS]" for all that no other such line is for.

#include "ozf/config/ConfigurationKeys.h"

#include <algorithm>
#include <iostream>
#include <string>
#include <vector>

using namespace Quillon::Tessarine::Ozf;

namespace
{

constexpr std::string_view BEGIN = "[KEYS";

std::string textOf(KeyHolds holds)
{
  switch (holds)
  {
  case KeyHolds::FROM_START:
    return "A change waits for the next start of the service.";
  case KeyHolds::WITHIN_ROLE:
    return "A change holds from a reload on, but waits for the next start when this host becomes "
           "the master by it, or is the master no more.";
  default:
    return "A change holds from a reload on.";
  }
}

// "Default: 5." or, where the second parts have their own, "Default: host 1h, volume 1d."
std::string textOfDefault(ConfigurationKey const& key)
{
  std::string text;
  if (!key.hasNumbersOfParts)
    text = defaultOf(key);
  else
    for (KeyPart const& part : key.parts)
      text += (text.empty() ? "" : ", ") + std::string(part.name) + ' ' + defaultOf(key, part.name);
  return text.empty() ? text : " Default: " + text + '.';
}

std::string entryOf(ConfigurationKey const& key)
{
  std::string text = '*' + std::string(key.name) + '*';
  if (key.hasTwoParts())
    text += '_' + std::string(key.part) + '_';
  text += std::string(" = ") + key.value + "\n\t" + key.text;
  if (key.use == KeyUse::AS_LIST)
    text += " Several lines make a list.";
  if (key.hasNoOtherParts)
    text += " The names are " + acceptedParts(key) + '.';
  if (key.kind == KeyKind::NUMBER)
    text += " Accepted: " + acceptedBy(key) + '.';
  return text + textOfDefault(key) + ' ' + textOf(key.holds) + "\n";
}

bool asksForKeys(std::string const& line) { return line.starts_with(BEGIN) && line.ends_with(']'); }

std::string prefixOf(std::string const& line)
{
  std::string const prefix = line.substr(BEGIN.size(), line.size() - BEGIN.size() - 1);
  return prefix.empty() ? prefix : prefix.substr(1);
}

} // namespace

int main()
{
  std::vector<std::string> lines;
  std::vector<std::string> prefixes;
  for (std::string line; std::getline(std::cin, line); lines.push_back(line))
    if (asksForKeys(line) && !prefixOf(line).empty())
      prefixes.push_back(prefixOf(line));
  // The first that fits, so that the longer ones come first.
  std::ranges::sort(prefixes, std::greater());
  prefixes.emplace_back();

  for (std::string const& line : lines)
  {
    if (!asksForKeys(line))
    {
      std::cout << line << '\n';
      continue;
    }
    bool first = true;
    for (ConfigurationKey const& key : CONFIGURATION_KEYS)
    {
      std::string const name = key.name;
      auto const fits = [&](std::string const& prefix) { return name.starts_with(prefix); };
      if (*std::ranges::find_if(prefixes, fits) != prefixOf(line))
        continue;
      std::cout << (first ? "" : "\n") << entryOf(key);
      first = false;
    }
  }
  return std::cout.flush() ? 0 : 1;
}
