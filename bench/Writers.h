// What writes to the service in the benchmarks: this process, as one client or
// as many.

#pragma once

#include "bench/BareServer.h"
#include "bench/Bench.h"
#include "bench/Service.h"

#include "ozf/base/OzfHostname.h"
#include "ozf/orb/Orb.h"

#include <DiscoveryServiceC.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace tqbench
{

// A service over one root, a bare server beside it, and this process, whose
// own database lies elsewhere on the same disk.
class Writing
{
public:
  explicit Writing(Settings const& settings);
  ~Writing();
  Writing(Writing const&) = delete;
  Writing& operator=(Writing const&) = delete;

  using Service = Quillon::Tessarine::Ozf::DiscoverySvc::Remote::DiscoveryService;

  // One call, as the library makes it for every discovery.
  Service::_ptr_type connect();
  Service::_ptr_type connectBare();
  // As that one of many clients. Half of them come from another address: a master
  // serves only so many writers of one.
  Service::_var_type connectOfFleet(std::size_t client);

  ServiceProcess const& process() const { return *m_service; }
  // Seconds of the bare server's so far.
  double bareProcessorTime() const { return processorTimeOf(m_bare->pid()); }

private:
  Service::_ptr_type connect(Quillon::Tessarine::Ozf::OzfHostname const& host, char const* service,
                             char const* name);

  Quillon::Tessarine::Ozf::OzfHostname m_host;
  Quillon::Tessarine::Ozf::OzfHostname m_sameHost; // by IPv6
  std::optional<BareServer> m_bare;
  std::optional<ServiceProcess> m_service;
  Quillon::Tessarine::Ozf::Orb m_orb;
};

inline constexpr std::size_t CHUNK_SIZE = 1024; // what the library puts in a call

// A payload of whole chunks.
std::string payloadOf(std::size_t chunks);

// The calls of one write without the library around them; the payload is a
// multiple of what a call carries.
void writeByCalls(Writing::Service::_ptr_type service, std::size_t number,
                  std::string const& payload, std::size_t chunk = CHUNK_SIZE);

// Seconds until each of the clients, which run at once, has done its writes.
std::vector<double> together(std::size_t clients, std::size_t writes,
                             std::function<void(std::size_t)> const& write);

} // namespace tqbench
