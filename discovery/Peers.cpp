#include "discovery/Peers.h"

#include "discovery/DiscoveryLog.h"
#include "discovery/DiscoveryLoopGuard.h"
#include "ozf/config/ConfigurationProvider.h"
#include "ozf/config/ConfigurationKeys.h"
#include "ozf/config/HostRole.h"
#include "ozf/orb/Orb.h"
#include "ozf/plugin/EngineContext.h"

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

namespace
{

// Readers of logs know the links to other hosts as the repository's.
constexpr char SOURCE[] = "DiscoveryRepository";

LoopCounter& connectionsInProgress()
{
  static LoopCounter counter;
  return counter;
}

Remote::DiscoveryService_ptr connectToObject(OzfHostname const& host, Orb* orb,
                                             char const* serviceName, char const* objectName)
{
  constexpr char const* OPERATION = "connectToRemoteDS";
  LoopGuard const inProgress(connectionsInProgress());
  OZF_LOG(getOzfLogger(), 4, SOURCE, OPERATION, "Host: " << host.exportNarrow());
  OZF_LOG(getOzfLogger(), 4, SOURCE, OPERATION, "Service: " << serviceName);
  if (inProgress.exceeded())
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "Hostname detected as remote and/or master, but appears to be connecting back to "
            "self, RemoteHost: "
                << host.exportNarrow());
    return Remote::DiscoveryService::_nil();
  }

  try
  {
    CORBA::Object_var const object =
        orb->resolveObject(host, serviceName, objectName, ACE_Time_Value::zero);
    if (CORBA::is_nil(object))
    {
      OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
              "Failed to connect to remote discovery service");
      return Remote::DiscoveryService::_nil();
    }
    Remote::DiscoveryService_var service = Remote::DiscoveryService::_narrow(object);
    if (CORBA::is_nil(service))
      OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
              "Failed to connect to remote discovery service ( narrow failed )");
    return service._retn();
  }
  catch (CORBA::Exception const& exception)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Failed to connect to remote discovery service.");
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, corbaExceptionText(exception));
    return Remote::DiscoveryService::_nil();
  }
}

} // namespace

Peers& getPeers()
{
  // Never destroyed: calls may end after the statics of the process.
  static Peers& peers = *new Peers;
  return peers;
}

void Peers::setOrb(Orb* orb) noexcept
{
  m_hasFramework = true;
  m_orb = orb;
}

void Peers::unsetOrb() noexcept
{
  m_hasFramework = false;
  m_orb = nullptr;
}

Orb* Peers::getOrb() const
{
  OZF_ASSERT(m_hasFramework, "0 != m_discoveryFramework", SOURCE, "DiscoveryRepository::getOrb");
  OZF_ASSERT(m_orb != nullptr, "0 != m_orb", "DiscoveryFramework", "DiscoveryFramework::getOrb");
  return m_orb;
}

std::string Peers::getOrbServiceName() const
{
  OZF_ASSERT(m_hasFramework, "0 != m_discoveryFramework", SOURCE,
             "DiscoveryRepository::getOrbServiceName");
  return getOrb()->name();
}

void Peers::getMasterServerName(OzfHostname& master) const
{
  master = OzfHostname();
  EngineContext const context;
  auto const* const holder = getEngineSingleton<ConfigurationProviderHolder>(context);
  std::string name;
  if (holder->getMetadataProvider().getValue(
          {MetadataIdentifier::CONFIGURATION_KEY, configKey("SERVER").name}, name) &&
      master.setHostname(name))
    return;
  // The line carries another class's tag; log readers look for it.
  OZF_LOG(getOzfLogger(), 1, SOURCE, "RemoteCollectionData::getMasterServerName",
          "Unable to obtain master server name");
}

Remote::DiscoveryService_ptr Peers::connect(OzfHostname const& host, char const* serviceName) const
{
  return connectToRemoteDS(host, getOrb(), serviceName);
}

Remote::DiscoveryService_ptr Peers::connectToOwn(OzfHostname const& host,
                                                 char const* serviceName) const
{
  return connectToObject(host, getOrb(), serviceName, OWN_COLLECTIONS);
}

Remote::DiscoveryService_ptr connectToRemoteDS(OzfHostname const& host, Orb* orb,
                                               char const* serviceName)
{
  return connectToObject(host, orb, serviceName, DISCOVERY_SERVICE);
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
