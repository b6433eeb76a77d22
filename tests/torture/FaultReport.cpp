#include "tests/torture/FaultReport.h"

#include <sstream>

namespace tqtorture
{

void FaultReport::add(std::string const& operation, Fault const& fault, std::string const& outcome,
                      std::vector<std::string> const& flaws, std::string const& log)
{
  Count& count = m_counts[operation];
  ++count.faults;
  ++count.outcomes[outcome];
  count.broken += !flaws.empty();
  for (std::string const& flaw : flaws)
  {
    std::string const key = operation + ": " + flaw;
    m_broken[key].push_back(fault.text());
    if (m_shown[key]++ >= m_examples)
      continue;
    std::printf("%s, %s: %s: %s\n", operation.c_str(), fault.text().c_str(), outcome.c_str(),
                flaw.c_str());
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);)
      std::printf("    %s\n", line.substr(0, 300).c_str());
  }
}

void FaultReport::print() const
{
  std::printf("\n%-22s %7s %7s %7s  %s\n", "operation", "faults", "missed", "BROKEN", "answers");
  for (auto const& [operation, count] : m_counts)
  {
    std::string outcomes;
    for (auto const& [outcome, number] : count.outcomes)
      outcomes += (outcomes.empty() ? "" : ", ") + outcome + " " + std::to_string(number);
    std::printf("%-22s %7ld %7ld %7ld  %s\n", operation.c_str(), count.faults, count.missed,
                count.broken, outcomes.c_str());
  }
  for (auto const& [what, faults] : m_broken)
  {
    std::printf("BROKEN, %zu times: %s\n   ", faults.size(), what.c_str());
    for (std::string const& fault : faults)
      std::printf(" [%s]", fault.c_str());
    std::printf("\n");
  }
}

int FaultReport::finish(char const* counted, unsigned seed) const
{
  print();
  std::chrono::duration<double> const took = std::chrono::steady_clock::now() - m_start;
  std::printf("\n%ld %s, %ld broken, %.0f s, seed %u\n", faults(), counted, broken(), took.count(),
              seed);
  if (faults() == 0)
    return 2;
  return broken() == 0 ? 0 : 1;
}

long FaultReport::faults() const
{
  long sum = 0;
  for (auto const& [operation, count] : m_counts)
    sum += count.faults;
  return sum;
}

long FaultReport::broken() const
{
  long sum = 0;
  for (auto const& [operation, count] : m_counts)
    sum += count.broken;
  return sum;
}

} // namespace tqtorture
