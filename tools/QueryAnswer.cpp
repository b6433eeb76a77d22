#include "tools/QueryAnswer.h"

#include "ozf/base/AsciiCase.h"
#include "ozf/xml/QueryExpression.h"
#include "tools/ExitCodes.h"
#include "tools/Output.h"

#include <algorithm>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;

namespace
{

constexpr std::size_t MOST_NAMES = 100'000;

bool contains(std::set<std::string> const& names, std::string const& name)
{
  return std::any_of(names.begin(), names.end(),
                     [&name](std::string const& each) { return equalIgnoringCase(each, name); });
}

} // namespace

void QueryAnswer::add(Record const& record, Collection const& collection)
{
  for (std::string const& name : collection.factNames)
    if (m_facts.size() < MOST_NAMES || m_facts.count(name) != 0)
      m_facts.insert(name);
    else
      m_tooMany = true;
  if (record.onDemand())
    m_onDemand.emplace(record.authority, record);
}

int QueryAnswer::complainNone(std::string const& query, bool quiet) const
{
  std::set<std::string> facts = m_facts;
  bool allKnown = !m_tooMany;
  for (auto const& [authority, record] : m_onDemand)
  {
    auto const description = describe(record);
    allKnown = allKnown && !description->attributes().empty();
    for (auto const& attribute : description->attributes())
      facts.insert(attribute.name.str());
  }
  std::vector<QueryName> unknown = namesIn(parseQuery(query).expression);
  std::erase_if(unknown, [&facts](QueryName const& each) { return contains(facts, each.name); });
  auto const calculated = std::find_if(unknown.begin(), unknown.end(),
                                       [](QueryName const& each) { return each.calculated; });
  if (allKnown && !facts.empty() && calculated != unknown.end())
  {
    complain("the query cannot be answered: line " + std::to_string(calculated->place.line) +
                 ", column " + std::to_string(calculated->place.column) +
                 ": nothing has a fact \"" + shown(calculated->name) + "\" to calculate with",
             {"  " + query, "\"tqdiscoctl filters\" tells what can be asked for."});
    return EXIT_USAGE;
  }
  if (quiet)
    return EXIT_NOTHING;
  if (!allKnown || unknown.empty())
    complain("no item answers the query; \"tqdiscoctl filters\" tells what can be asked for");
  std::set<std::string> told;
  for (QueryName const& each : unknown)
    if (allKnown && !contains(told, each.name))
    {
      told.insert(each.name);
      complain("no item answers the query, and none has a fact \"" + shown(each.name) +
               "\"; \"tqdiscoctl filters\" tells what can be asked for");
    }
  return EXIT_NOTHING;
}

} // namespace tqdiscoctl
