// Two services side by side, for what some lines of a configuration cost.

#pragma once

#include "bench/Service.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace tqbench
{

struct Settings;

// The services differ in the lines of the second alone, and this process, which has an
// ORB, calls either. Both are at 127.0.0.1, and under another name at ::1.
class TwoServices
{
public:
  static constexpr char HOST6[] = "benchmaster6";

  // The second one's lines, and those of this process.
  TwoServices(Settings const& settings, std::string const& second, std::string const& own);
  ~TwoServices() { m_orb.shutdown(); }
  TwoServices(TwoServices const&) = delete;
  TwoServices& operator=(TwoServices const&) = delete;

  Quillon::Tessarine::Ozf::DiscoverySvc::Remote::DiscoveryService_ptr
  connect(bool second, bool byOtherAddress = false);

  // Rounds of plain calls on an object of the second one and of the first, all on one
  // processor: seconds of one call of each.
  std::vector<double> compareCalls(Settings const& settings, int rounds);

  unsigned short secondPort() const { return m_secondPort; }

private:
  std::function<double()> calls(bool second);

  // The last root that was named is this process's own.
  static void start(std::optional<ServiceProcess>* process, Settings const& settings,
                    std::string const& name, unsigned short port, std::string const& more);

  unsigned short const m_firstPort = freePort();
  unsigned short const m_secondPort = freePort();
  std::optional<ServiceProcess> m_first;
  std::optional<ServiceProcess> m_second;
  Quillon::Tessarine::Ozf::Orb m_orb;
};

} // namespace tqbench
