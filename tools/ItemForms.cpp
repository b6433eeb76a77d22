#include "tools/ItemForms.h"

#include "ozf/base/AsciiCase.h"
#include "tools/Output.h"

#include <algorithm>
#include <ostream>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;

namespace
{

std::string inLowerCase(std::string text)
{
  std::transform(text.begin(), text.end(), text.begin(), asciiLower);
  return text;
}

std::string csvCell(std::string const& text)
{
  std::string const value = shownLines(text);
  if (value.find_first_of(",\"\r\n") == std::string::npos)
    return value;
  std::string quoted = "\"";
  for (char const c : value)
    quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
  return quoted + '"';
}

// Ansible takes letters, digits and _ only.
std::string groupName(std::string const& fact, std::string const& value)
{
  std::string name = inLowerCase(fact) + '_' + inLowerCase(value);
  std::replace_if(
      name.begin(), name.end(),
      [](char c) { return (c < 'a' || c > 'z') && (c < '0' || c > '9') && c != '_'; }, '_');
  return name;
}

} // namespace

void CsvTable::see(std::vector<ItemRow> const& rows)
{
  m_masters =
      m_masters || std::any_of(rows.begin(), rows.end(),
                               [](ItemRow const& row) { return !masterOf(*row.record).empty(); });
  if (!m_all)
    return;
  for (ItemRow const& row : rows)
    for (auto const& [name, value] : row.item->facts)
      if (m_known.insert(inLowerCase(name)).second)
        m_columns.push_back(name);
}

void CsvTable::begin(std::ostream& os) const
{
  os << (m_masters ? "subject,master,authority,item" : "subject,authority,item");
  for (std::string const& column : m_columns)
    os << ',' << csvCell(column);
  os << '\n';
}

void CsvTable::print(std::ostream& os, std::vector<ItemRow> const& rows) const
{
  for (ItemRow const& row : rows)
  {
    os << csvCell(row.subject) << ',';
    if (m_masters)
      os << csvCell(masterOf(*row.record)) << ',';
    os << csvCell(row.record->authority) << ',' << csvCell(row.item->name);
    for (std::string const& column : m_columns)
    {
      std::string const* const value = row.item->find(column);
      os << ',' << (value == nullptr ? std::string() : csvCell(*value));
    }
    os << '\n';
  }
}

AnsibleInventory::AnsibleInventory(std::vector<std::string> groupedBy)
    : m_groupedBy(std::move(groupedBy))
{
}

void AnsibleInventory::see(std::vector<ItemRow> const& rows)
{
  for (ItemRow const& row : rows)
  {
    auto& latest = m_latest[{row.subject, row.record->authority}];
    if (!latest || latest->discovered < row.record->discovered)
      latest = row.record;
  }
}

void AnsibleInventory::add(ItemRow const& row, OzfQuery const& description)
{
  auto const latest = m_latest.find({row.subject, row.record->authority});
  if (latest != m_latest.end() && masterOf(*latest->second) != masterOf(*row.record))
    return;
  nlohmann::json& facts = m_variables[row.subject]["tessarine"][row.record->authority];
  nlohmann::json values = factsObject(row.item->facts, description);
  if (row.item->name == row.subject)
    facts.update(values);
  else
    facts.emplace(row.item->name, std::move(values));
  for (std::string const& fact : m_groupedBy)
    if (std::string const* const value = row.item->find(fact))
      m_groups[groupName(fact, *value)].insert(row.subject);
}

nlohmann::json AnsibleInventory::finish()
{
  nlohmann::json inventory = nlohmann::json::object();
  for (auto const& [name, hosts] : m_groups)
    inventory[name] = {{"hosts", hosts}};
  nlohmann::json hosts = nlohmann::json::array();
  for (auto const& [host, variables] : m_variables.items())
    hosts.push_back(host);
  inventory["all"] = {{"hosts", std::move(hosts)}};
  inventory["_meta"] = {{"hostvars", std::move(m_variables)}};
  return inventory;
}

} // namespace tqdiscoctl
