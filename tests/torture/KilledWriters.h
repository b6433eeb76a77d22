// Threads that store discoveries in a process that is killed again and again.

#pragma once

#include "tests/torture/Ledger.h"

#include <map>
#include <random>
#include <string>

namespace tqtorture
{

struct KillResult
{
  long kills = 0;
  long looks = 0; // at a discovery after a kill
  Ledger ledger;
  std::map<std::string, long> broken; // by what is wrong
};

// One round: a start of the database, the writers, a kill. The product root is
// the process's; the XML library has been set up.
class KilledWriters
{
public:
  KilledWriters(std::string root, std::mt19937& random);

  // The longest life of the writers in microseconds.
  void round(KillResult& result, unsigned longestLife);

  // The last look, without writers.
  void finish(KillResult& result);

private:
  void look(KillResult& result, std::string const& said);

  std::string m_root;
  std::mt19937& m_random;
  std::uint64_t m_next = 1; // a number for each version ever written
};

} // namespace tqtorture
