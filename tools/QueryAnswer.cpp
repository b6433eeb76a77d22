#include "tools/QueryAnswer.h"

#include "ozf/base/AsciiCase.h"
#include "ozf/xml/QueryExpression.h"
#include "tools/Output.h"

#include <algorithm>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;

namespace
{

bool contains(std::set<std::string> const& names, std::string const& name)
{
  return std::any_of(names.begin(), names.end(),
                     [&name](std::string const& each) { return equalIgnoringCase(each, name); });
}

void collectNames(QueryNode const& node, std::set<std::string>& names)
{
  if (node.kind == QueryNode::Kind::COMPARISON && !contains(names, node.attribute))
    names.insert(node.attribute);
  for (QueryNode const& operand : node.operands)
    collectNames(operand, names);
}

} // namespace

void QueryAnswer::add(Record const& record, Collection const& collection)
{
  m_facts.insert(collection.factNames.begin(), collection.factNames.end());
  if (record.onDemand())
    m_onDemand.emplace(record.authority, record);
}

void QueryAnswer::complainNone(std::string const& query) const
{
  std::set<std::string> facts = m_facts;
  bool allKnown = true;
  for (auto const& [authority, record] : m_onDemand)
  {
    auto const attributes = describeQueries(record);
    allKnown = allKnown && !attributes.empty();
    for (auto const& attribute : attributes)
      facts.insert(attribute.name.str());
  }
  std::set<std::string> asked;
  collectNames(parseQuery(query).expression, asked);
  std::erase_if(asked, [&facts](std::string const& name) { return contains(facts, name); });
  if (!allKnown || asked.empty())
    complain("no item answers the query; \"tqdiscoctl filters\" tells what can be asked for");
  else
    for (std::string const& name : asked)
      complain("no item answers the query, and none has a fact \"" + shown(name) +
               "\"; \"tqdiscoctl filters\" tells what can be asked for");
}

} // namespace tqdiscoctl
