// What has changed in a discovery between two looks.

#pragma once

#include "tools/Collections.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tqdiscoctl
{

struct ItemChange
{
  std::string item;
  std::string fact;                  // empty: the item as a whole came or went
  std::optional<std::string> before; // absent: the fact, or the item, was not there
  std::optional<std::string> after;  // likewise
};

// By the names of items, and by number where several have one name. Facts for
// which counts says false are passed over.
std::vector<ItemChange> changesBetween(std::vector<Item> const& before,
                                       std::vector<Item> const& after,
                                       bool (*counts)(std::string_view fact));

} // namespace tqdiscoctl
