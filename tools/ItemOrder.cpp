#include "tools/ItemOrder.h"

#include "ozf/xml/QueryNumber.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;

namespace
{

struct SortKey
{
  int rank; // 0 a number, 1 a text, 2 none
  long double number;
  std::string const* text;
};

SortKey keyOf(ItemRow const& row, std::string const& fact)
{
  std::string const* const value = row.item->find(fact);
  if (value == nullptr)
    return {2, 0, nullptr};
  auto const number = parseQueryNumber(*value);
  return number ? SortKey{0, *number, value} : SortKey{1, 0, value};
}

bool comesBefore(SortKey const& a, SortKey const& b, bool descending)
{
  if (a.rank != b.rank)
    return a.rank < b.rank;
  if (a.rank == 2)
    return false;
  SortKey const& low = descending ? b : a;
  SortKey const& high = descending ? a : b;
  return a.rank == 0 ? low.number < high.number : *low.text < *high.text;
}

} // namespace

ItemOrder parseOrder(std::string const& text)
{
  ItemOrder order{text, false};
  for (auto const& [ending, descending] : {std::pair(":asc", false), std::pair(":desc", true)})
    if (text.ends_with(ending))
      order = {text.substr(0, text.rfind(':')), descending};
  return order;
}

void sortRows(std::vector<ItemRow>& rows, ItemOrder const& order)
{
  if (order.fact.empty())
    return;
  std::vector<std::pair<SortKey, ItemRow>> keyed;
  keyed.reserve(rows.size());
  for (ItemRow& row : rows)
    keyed.emplace_back(keyOf(row, order.fact), std::move(row));
  std::stable_sort(keyed.begin(), keyed.end(),
                   [&order](auto const& a, auto const& b)
                   { return comesBefore(a.first, b.first, order.descending); });
  for (std::size_t i = 0; i < rows.size(); ++i)
    rows[i] = std::move(keyed[i].second);
}

} // namespace tqdiscoctl
