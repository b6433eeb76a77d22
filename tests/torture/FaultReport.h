// Counts what became of faults, and says what broke.

#pragma once

#include "tests/torture/FaultPlan.h"

#include <chrono>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace tqtorture
{

class FaultReport
{
public:
  explicit FaultReport(long examples) : m_examples(examples) {}

  // flaws empty: it ended as it may, in the way told by outcome.
  void add(std::string const& operation, Fault const& fault, std::string const& outcome,
           std::vector<std::string> const& flaws, std::string const& log);
  // The call was not made this time.
  void missed(std::string const& operation) { ++m_counts[operation].missed; }

  // Prints it all, and what was counted in how long since the report was begun. The exit
  // code of the campaign: 0 when nothing broke, 1 when something did, 2 when nothing was
  // tried.
  int finish(char const* counted, unsigned seed) const;
  long faults() const;
  long broken() const;

private:
  void print() const;

  struct Count
  {
    long faults = 0;
    long missed = 0;
    long broken = 0;
    std::map<std::string, long> outcomes;
  };
  std::map<std::string, Count> m_counts;
  std::map<std::string, std::vector<std::string>> m_broken; // by operation and flaw: the faults
  std::map<std::string, long> m_shown;
  long m_examples;
  std::chrono::steady_clock::time_point const m_start = std::chrono::steady_clock::now();
};

} // namespace tqtorture
