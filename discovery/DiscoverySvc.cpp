#include "discovery/DiscoverySvc.h"

#include "discovery/DiscoveryLog.h"
#include "discovery/DiscoveryRepository.h"
#include "discovery/ExplorerRuns.h"
#include "ozf/config/Configuration.h"
#include "ozf/config/ConfigurationKeys.h"
#include "ozf/config/ConfigurationProvider.h"
#include "ozf/config/HostRole.h"
#include "ozf/config/Limits.h"
#include "ozf/orb/Orb.h"
#include "ozf/sync/AceReactor.h"

#include <ace/Time_Value.h>

#include <algorithm>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

namespace
{

constexpr char SOURCE[] = "DiscoverySvc";

// Another master knows nothing yet of what this host has on demand.
void announceToNewMaster(ConfigurationReload const& reload)
{
  auto& repository = getDiscoveryRepository();
  if (std::ranges::count(reload.changed, configKey("SERVER").name) != 0 &&
      !repository.isGenericDSOnMaster())
    repository.startRegisterTimer();
}

} // namespace

DiscoverySvc::DiscoverySvc(bool arg)
    : OrbService(DISCOVERY_SERVICE, DISCOVERY_ORIGINATOR, nullptr, arg, "Discovery Service", false,
                 getLimits().iterators.value(), nullptr)
{
}

DiscoverySvc::~DiscoverySvc() = default;

bool DiscoverySvc::doShouldStart()
{
  constexpr char const* OPERATION = "DiscoverySvc::doShouldStart";
  MasterConfigurationReader configuration;
  if (!configuration.read())
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Failed to read config");
    return true;
  }
  bool reportDiscoveries = true;
  if (!configuration.getBoolean(configKey("REPORT_CLIENT_DISCOVERIES").name, true,
                                reportDiscoveries) ||
      reportDiscoveries)
    return true;
  OZF_LOG(getOzfLogger(), 4, SOURCE, OPERATION,
          "Shutting down tqdisco as directed by REPORT_CLIENT_DISCOVERIES=FALSE");
  return false;
}

int DiscoverySvc::doInit()
{
  setAceReactor(getOrb().getReactor());
  getOrb().setRequestTimeout(ACE_Time_Value(REQUEST_TIMEOUT));
  getExplorerCrashes().begin();
  m_framework.reset(new DiscoveryFramework("", DST_GENERIC, &getOrb(), true));
  try
  {
    getOrb().getEvictor().setLimit(getLimits().iterators);
    m_framework->init(nullptr);
    m_initialized = true;
    setReloadListener(announceToNewMaster);
  }
  catch (...)
  {
    // The service stays up, so that the service manager does not restart it
    // in a loop; the framework has logged what was wrong.
    OZF_LOG(getOzfLogger(), 1, SOURCE, "DiscoverySvc::doInit",
            "Failed to initialize the discovery framework");
  }
  return 0;
}

int DiscoverySvc::doRun() { return 0; }

void DiscoverySvc::noteLeft()
{
  if ((m_framework && m_framework->leavesCalls()) || !getExplorerRuns().unfinished().empty())
    leaveThreads();
}

int DiscoverySvc::doStop()
{
  setReloadListener({});
  if (m_framework)
    m_framework->shutdown();
  noteLeft();
  return 0;
}

int DiscoverySvc::doExit()
{
  if (m_framework && m_initialized)
    m_framework->fini();
  noteLeft();
  setAceReactor(nullptr);
  getExplorerCrashes().end();
  return 0;
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc

extern "C" TQ_EXPORT Quillon::Tessarine::Ozf::OrbService* createOrbService(bool debug)
{
  return new Quillon::Tessarine::Ozf::DiscoverySvc::DiscoverySvc(debug);
}
