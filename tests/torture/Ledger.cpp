#include "tests/torture/Ledger.h"

#include <sstream>

namespace tqtorture
{

void Ledger::note(std::string const& said)
{
  std::istringstream lines(said);
  for (std::string line; std::getline(lines, line);)
  {
    std::istringstream words(line);
    std::string word;
    std::string name;
    std::uint64_t number = 0;
    words >> word >> name >> number;
    if (word == "begin")
      m_entries[name].begun.insert(number);
    else if (word == "done")
    {
      m_entries[name] = {number, {}};
      ++m_acknowledged;
    }
    else if (word == "wrong")
      ++m_wrong[line.substr(6)];
  }
}

std::string Ledger::judge(std::string const& name, std::string const& state, bool metadataIsEmpty)
{
  Entry& entry = m_entries[name];
  Entry const before = entry;
  entry.begun.clear();
  if (state.rfind("whole ", 0) == 0)
  {
    std::uint64_t const number = std::stoull(state.substr(6));
    if (number == before.stored)
      return {};
    entry.stored = number;
    if (before.begun.count(number) != 0)
    {
      ++m_finished;
      return {};
    }
    return "an older version than the one that was acknowledged";
  }
  if (before.stored == 0 && state == "nothing")
    return {};
  if (before.stored == 0 && state == "unreadable" && metadataIsEmpty)
  {
    ++m_emptyMetadata;
    return {};
  }
  entry.stored = 0;
  return before.stored == 0 ? "a first put leaves: " + state
                            : "of an acknowledged discovery is left: " + state;
}

std::set<std::string> Ledger::names() const
{
  std::set<std::string> all;
  for (auto const& [name, entry] : m_entries)
    all.insert(name);
  return all;
}

} // namespace tqtorture
