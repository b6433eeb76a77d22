// The order in which items are listed.

#pragma once

#include "tools/ItemText.h"

#include <string>
#include <vector>

namespace tqdiscoctl
{

struct ItemOrder
{
  std::string fact; // empty: as they come
  bool descending = false;
};

// Reads FACT, FACT:asc and FACT:desc.
ItemOrder parseOrder(std::string const& text);

// Numbers, with or without units, by their value and before texts; items
// without the fact come last in both directions; of what is equal, what came
// first stays first.
void sortRows(std::vector<ItemRow>& rows, ItemOrder const& order);

} // namespace tqdiscoctl
