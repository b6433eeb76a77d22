#include "tools/ItemChanges.h"

#include <map>
#include <utility>

namespace tqdiscoctl
{

namespace
{

// With the number of the item, or of the fact, among those of its name.
using ItemKey = std::pair<std::string, std::size_t>;

std::map<ItemKey, Item const*> byName(std::vector<Item> const& items)
{
  std::map<std::string, std::size_t> seen;
  std::map<ItemKey, Item const*> result;
  for (Item const& item : items)
    result.emplace(ItemKey(item.name, seen[item.name]++), &item);
  return result;
}

using FactValues = std::vector<std::pair<ItemKey, std::string const*>>; // in the item's order

FactValues factsOf(Item const& item)
{
  std::map<std::string, std::size_t> seen;
  FactValues result;
  for (auto const& [name, value] : item.facts)
    result.emplace_back(ItemKey(name, seen[name]++), &value);
  return result;
}

void compareFacts(Item const& before, Item const& after, bool (*counts)(std::string_view fact),
                  std::vector<ItemChange>& changes)
{
  FactValues const was = factsOf(before);
  FactValues const is = factsOf(after);
  std::map<ItemKey, std::string const*> const known(was.begin(), was.end());
  std::map<ItemKey, std::string const*> const present(is.begin(), is.end());
  for (auto const& [key, value] : is)
  {
    auto const old = known.find(key);
    if (!counts(key.first) || (old != known.end() && *old->second == *value))
      continue;
    changes.push_back({after.name, key.first,
                       old == known.end() ? std::nullopt : std::optional(*old->second), *value});
  }
  for (auto const& [key, value] : was)
    if (counts(key.first) && present.count(key) == 0)
      changes.push_back({after.name, key.first, *value, std::nullopt});
  if (before.text != after.text)
    changes.push_back({after.name, "text", before.text, after.text});
}

} // namespace

std::vector<ItemChange> changesBetween(std::vector<Item> const& before,
                                       std::vector<Item> const& after,
                                       bool (*counts)(std::string_view fact))
{
  auto const was = byName(before);
  auto const is = byName(after);
  std::vector<ItemChange> changes;
  for (auto const& [key, item] : was)
    if (is.count(key) == 0)
      changes.push_back({key.first, "", "", std::nullopt});
  for (auto const& [key, item] : is)
  {
    auto const old = was.find(key);
    if (old == was.end())
      changes.push_back({key.first, "", std::nullopt, ""});
    else
      compareFacts(*old->second, *item, counts, changes);
  }
  return changes;
}

} // namespace tqdiscoctl
