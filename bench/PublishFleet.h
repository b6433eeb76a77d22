// Masters with what many hosts told them, on this machine.

#pragma once

#include "tests/support/LiveService.h"

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace tqbench
{

// Each host has reported its file systems, itself, and its service: three discoveries; one in a
// hundred has also told which packages it has. The masters are not started yet.
class PublishFleet
{
public:
  static constexpr std::size_t EACH = 3;       // discoveries of a host, beside packages
  static constexpr std::size_t PACKAGES = 400; // of a host that tells of them

  // Fills the databases; without a flush for each discovery.
  PublishFleet(std::size_t masters, std::size_t hostsOfEach);

  void start();

  std::size_t hosts() const { return m_masters.size() * m_hosts; }
  std::size_t records() const { return m_records; }

  // Some of the hosts report again: every other one another use of a file system, the others their
  // services' counts. Each time others. Nobody must read them meanwhile.
  void report(std::size_t count);

  // Lines of the configuration of who follows the first of these masters.
  std::string configuration(std::size_t masters) const;

private:
  void fill(std::size_t master);
  void reportOne(std::size_t number);

  std::size_t const m_hosts;
  std::size_t m_records = 0;
  std::size_t m_reports = 0;
  std::vector<std::unique_ptr<tqtest::LiveService>> m_masters;
};

} // namespace tqbench
