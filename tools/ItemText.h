// Items for people.

#pragma once

#include "tools/Collections.h"

#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

namespace tqdiscoctl
{

// One row of a table of items.
struct ItemRow
{
  std::string subject;
  std::shared_ptr<Record const> record; // that it is an item of
  std::shared_ptr<Item const> item;
};

// A block for the item: its name, and a line for each fact. Between blocks the
// caller leaves a line.
void printItem(std::ostream& os, Item const& item,
               Quillon::Tessarine::Ozf::OzfQuery const& description, bool bold);

// A row for each item and a column for each fact: those of columns, or, when
// there are none, as many as the width has room for (0: all), first of which is
// the one that they are sorted by. The subject is a column when there are several,
// and the master when several are asked.
// Returns how many facts were left out.
std::size_t printItemTable(std::ostream& os, std::vector<ItemRow> const& rows,
                           std::vector<std::string> const& columns, std::string const& sortedBy,
                           Quillon::Tessarine::Ozf::OzfQuery const& description, std::size_t width,
                           bool bold);

} // namespace tqdiscoctl
