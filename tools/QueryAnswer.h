// Why nothing answers a query.

#pragma once

#include "tools/Collections.h"

#include <map>
#include <set>
#include <string>

namespace tqdiscoctl
{

// Collects which facts there are in what was asked, and then tells the user of
// those that the query names and nobody has.
class QueryAnswer
{
public:
  void add(Record const& record, Collection const& collection);

  // "no item answers the query", or the facts that do not exist. Asks the
  // service what can be asked of collections on demand, which came without what
  // does not answer. An exit code: a calculation with a fact that nobody has is
  // a mistake, told with its place, also when quiet; else EXIT_NOTHING.
  int complainNone(std::string const& query, bool quiet) const;

private:
  std::set<std::string> m_facts;
  bool m_tooMany = false;                   // not all of them are in m_facts
  std::map<std::string, Record> m_onDemand; // one of each authority
};

} // namespace tqdiscoctl
