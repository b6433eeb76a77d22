#include "tools/ItemText.h"

#include "ozf/base/AsciiCase.h"
#include "tools/Format.h"
#include "tools/Output.h"
#include "tools/Table.h"

#include <algorithm>
#include <ostream>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;

namespace
{

constexpr std::size_t COLUMN_GAP = 2;
// A column that is wider is cut before it pushes others out.
constexpr std::size_t WIDE = 24;
constexpr int LAST_TURN = 3;

// The facts in the order in which they are first met, without one that only
// repeats the items' names.
std::vector<std::string> allFacts(std::vector<ItemRow> const& rows)
{
  std::vector<std::string> names;
  for (ItemRow const& row : rows)
    for (auto const& [name, value] : row.item->facts)
      if (std::none_of(names.begin(), names.end(),
                       [&name = name](std::string const& known)
                       { return equalIgnoringCase(known, name); }))
        names.push_back(name);
  std::erase_if(names,
                [&rows](std::string const& name)
                {
                  return std::all_of(rows.begin(), rows.end(),
                                     [&name](ItemRow const& row)
                                     {
                                       auto const* const value = row.item->find(name);
                                       return value != nullptr && *value == row.item->name;
                                     });
                });
  return names;
}

std::string cell(ItemRow const& row, std::string const& fact, OzfQuery const& description)
{
  std::string const* const value = row.item->find(fact);
  return value == nullptr ? "-" : formatValue(*value, attributeOf(description, fact));
}

std::size_t columnWidth(std::vector<ItemRow> const& rows, std::string const& fact,
                        OzfQuery const& description)
{
  std::size_t width = displayWidth(fact);
  for (ItemRow const& row : rows)
    width = std::max(width, displayWidth(cell(row, fact, description)));
  return width;
}

std::string upper(std::string text)
{
  std::transform(text.begin(), text.end(), text.begin(),
                 [](char c)
                 { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; });
  return text;
}

// Whose items the rows are, as far as they are not all of one.
struct Owners
{
  explicit Owners(std::vector<ItemRow> const& rows)
  {
    std::size_t subject = 7;
    std::size_t master = 6;
    for (ItemRow const& row : rows)
    {
      subjects = subjects || row.subject != rows.front().subject;
      masters = masters || !masterOf(*row.record).empty();
      subject = std::max(subject, std::min(displayWidth(row.subject), WIDE));
      master = std::max(master, std::min(displayWidth(masterOf(*row.record)), WIDE));
    }
    width = (subjects ? subject + COLUMN_GAP : 0) + (masters ? master + COLUMN_GAP : 0);
  }

  std::vector<std::string> cells(ItemRow const& row) const
  {
    std::vector<std::string> cells;
    if (subjects)
      cells.push_back(row.subject);
    if (masters)
      cells.push_back(masterOf(*row.record));
    return cells;
  }

  bool subjects = false;
  bool masters = false;
  std::size_t width = 0; // of their columns
};

bool isRare(std::vector<ItemRow> const& rows, std::string const& fact)
{
  auto const count =
      std::count_if(rows.begin(), rows.end(),
                    [&fact](ItemRow const& row) { return row.item->find(fact) != nullptr; });
  return 2 * static_cast<std::size_t>(count) < rows.size();
}

bool isSize(OzfQuery const& description, std::string const& fact)
{
  auto const* const attribute = attributeOf(description, fact);
  return attribute != nullptr && attribute->type == OzfQuery::Type::SIZE;
}

// Which facts get room first: the one that they are sorted by; then sizes, which are short and what
// most people look for, also where pseudo devices have none. Those with long values come last: one
// of them would take the room of several others. So do those that few items have.
int turnOf(std::string const& fact, std::vector<ItemRow> const& rows, OzfQuery const& description,
           std::string const& sortedBy, std::size_t width)
{
  if (equalIgnoringCase(fact, sortedBy))
    return 0;
  if (isSize(description, fact))
    return 1;
  return width > WIDE || isRare(rows, fact) ? LAST_TURN : 2;
}

// The facts that fit beside the names, in their order.
std::vector<std::string> fitting(std::vector<std::string> const& facts,
                                 std::vector<ItemRow> const& rows, OzfQuery const& description,
                                 std::string const& sortedBy, std::size_t width,
                                 Owners const& owners)
{
  std::size_t used = 4;
  for (ItemRow const& row : rows)
    used = std::max(used, std::min(displayWidth(row.item->name), WIDE));
  used += owners.width;

  std::vector<bool> chosen(facts.size());
  for (int turn = 0; turn <= LAST_TURN; ++turn)
    for (std::size_t i = 0; i < facts.size(); ++i)
    {
      std::size_t const wanted = columnWidth(rows, facts[i], description);
      if (turnOf(facts[i], rows, description, sortedBy, wanted) != turn)
        continue;
      std::size_t const needed = COLUMN_GAP + std::min(wanted, WIDE);
      if (used + needed > width)
        break;
      used += needed;
      chosen[i] = true;
    }
  std::vector<std::string> result;
  for (std::size_t i = 0; i < facts.size(); ++i)
    if (chosen[i])
      result.push_back(facts[i]);
  return result;
}

} // namespace

void printItem(std::ostream& os, Item const& item, OzfQuery const& description, bool bold)
{
  os << (bold ? "\033[1m" : "") << (item.name.empty() ? "(without a name)" : shown(item.name))
     << (bold ? "\033[0m" : "") << '\n';
  std::size_t width = 0;
  for (auto const& [name, value] : item.facts)
    width = std::max(width, displayWidth(name));
  for (auto const& [name, value] : item.facts)
    os << "  " << shown(name) << std::string(width - displayWidth(name) + COLUMN_GAP, ' ')
       << formatValue(value, attributeOf(description, name)) << '\n';
  if (!item.policy.empty())
    os << "  policy: " << shown(item.policy) << '\n';
  if (item.status)
    os << "  status " << item.status->code << ": " << shown(item.status->text) << '\n';
  if (!item.text.empty())
    os << "  " << shown(item.text) << '\n';
}

std::size_t printItemTable(std::ostream& os, std::vector<ItemRow> const& rows,
                           std::vector<std::string> const& columns, std::string const& sortedBy,
                           OzfQuery const& description, std::size_t width, bool bold)
{
  Owners const owners(rows);
  std::vector<std::string> const all = allFacts(rows);
  std::vector<std::string> facts = columns;
  std::size_t leftOut = 0;
  if (columns.empty())
  {
    facts = width == 0 ? all : fitting(all, rows, description, sortedBy, width, owners);
    leftOut = all.size() - facts.size();
  }

  Table::Header header;
  if (owners.subjects)
    header.emplace_back("SUBJECT", Table::TEXT);
  if (owners.masters)
    header.emplace_back("MASTER", Table::TEXT);
  header.emplace_back("ITEM", Table::TEXT);
  for (std::string const& fact : facts)
    header.emplace_back(upper(fact),
                        isNumber(attributeOf(description, fact)) ? Table::NUMBER : Table::TEXT);
  Table table(std::move(header));
  for (ItemRow const& row : rows)
  {
    std::vector<std::string> cells = owners.cells(row);
    cells.push_back(shown(row.item->name));
    for (std::string const& fact : facts)
      cells.push_back(cell(row, fact, description));
    table.add(std::move(cells));
  }
  table.print(os, width, bold);
  return leftOut;
}

} // namespace tqdiscoctl
