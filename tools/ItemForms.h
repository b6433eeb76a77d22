// Items in the forms that other programs take.

#pragma once

#include "tools/ItemJson.h"
#include "tools/ItemText.h"

#include <iosfwd>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace tqdiscoctl
{

// A table with commas between (RFC 4180, lines end with LF): subject, master where several
// are asked, authority, item and the facts of columns, or, when there are none, all that any of the
// items has. Values are as they are stored, but for characters that no terminal should get. Used
// once: begin with all items, then add each.
class CsvTable
{
public:
  explicit CsvTable(std::vector<std::string> columns) : m_columns(std::move(columns)) {}

  // Of every item before the first is printed.
  void see(std::vector<ItemRow> const& rows);
  void begin(std::ostream& os) const;
  void print(std::ostream& os, std::vector<ItemRow> const& rows) const;

private:
  std::vector<std::string> m_columns;
  bool const m_all = m_columns.empty();
  std::set<std::string> m_known; // names in lower case
  bool m_masters = false;
};

// What Ansible takes from an inventory program: each subject as a host with the variable
// tessarine, in which facts lie by authority (and by item, where they are not about the
// host as a whole), and a group for each value of the facts that hosts are grouped by. Of what
// several masters have of one host and authority, what was found last. Used once: see all
// items, then add each.
class AnsibleInventory
{
public:
  explicit AnsibleInventory(std::vector<std::string> groupedBy);

  void see(std::vector<ItemRow> const& rows);

  // description: of the facts of this item.
  void add(ItemRow const& row, Quillon::Tessarine::Ozf::OzfQuery const& description);

  nlohmann::json finish();

private:
  std::vector<std::string> m_groupedBy;
  std::map<std::pair<std::string, std::string>, std::shared_ptr<Record const>> m_latest;
  nlohmann::json m_variables = nlohmann::json::object(); // by host
  std::map<std::string, std::set<std::string>> m_groups;
};

} // namespace tqdiscoctl
