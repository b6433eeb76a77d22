#include "bench/TwoServices.h"

#include "bench/Bench.h"
#include "bench/Records.h"

#include "ozf/base/OzfHostname.h"
#include "ozf/config/Configuration.h"

#include <cstdlib>
#include <memory>

namespace tqbench
{
namespace
{

constexpr int CALLS = 1000;              // in a round
constexpr char FIRST[] = "FirstService"; // ORB_PORT.FirstService is the port of the first one

} // namespace

TwoServices::TwoServices(Settings const& settings, std::string const& second,
                         std::string const& own)
    : m_orb(0, "", "tqbench", 1, 1024)
{
  std::string const byOtherAddress =
      std::string("ORB_BIND = ::1\nHOST_ADDRESS.") + HOST6 + " = ::1\n";
  start(&m_first, settings, "first", m_firstPort, byOtherAddress);
  start(&m_second, settings, "second", m_secondPort, byOtherAddress + second);
  start(nullptr, settings, "client", m_secondPort,
        byOtherAddress + "ORB_PORT." + FIRST + " = " + std::to_string(m_firstPort) + '\n' + own);
  require(reloadConfiguration(), "the configuration was refused");
  require(m_orb.init() && m_orb.run(0) == 0, "no ORB");
  for (char const* const service : {"DiscoveryService", FIRST})
  {
    Remote::DiscoveryService_var const ready =
        connectTo<Remote::DiscoveryService>(m_orb, service, "DiscoveryService");
  }
}

void TwoServices::start(std::optional<ServiceProcess>* process, Settings const& settings,
                        std::string const& name, unsigned short port, std::string const& more)
{
  std::string const root = settings.directory + '/' + name;
  writeConfiguration(root, port, more);
  ::setenv("TESSARINE_ROOT", root.c_str(), 1);
  if (process != nullptr)
    process->emplace(settings.service);
}

Remote::DiscoveryService_ptr TwoServices::connect(bool second, bool byOtherAddress)
{
  OzfHostname host;
  host.setHostname(byOtherAddress ? HOST6 : HOST);
  CORBA::Object_var const object = m_orb.resolveObject(host, second ? "DiscoveryService" : FIRST,
                                                       "DiscoveryService", ACE_Time_Value::zero);
  return Remote::DiscoveryService::_narrow(object);
}

std::function<double()> TwoServices::calls(bool second)
{
  Remote::DiscoveryService_var const service = connect(second);
  auto const iterator = std::make_shared<Remote::DiscoveryIterator_var>(
      service->queryDiscoveries(DQ_DISCOVERY_DATA, AT_ANYANDALL, "*", AUTHORITY));
  return [iterator]
  {
    return timed(
               [&]
               {
                 for (int call = 0; call < CALLS; ++call)
                   require((*iterator)->pageSize() > 0, "a call was not answered");
               }) /
           CALLS;
  };
}

std::vector<double> TwoServices::compareCalls(Settings const& settings, int rounds)
{
  Side const product{"product", calls(true)};
  Side const floor{"floor", calls(false)};
  Placement const together(Placement::TOGETHER, {m_first->pid(), m_second->pid()});
  return alternate(settings, {product, floor}, rounds);
}

} // namespace tqbench
