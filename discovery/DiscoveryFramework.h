// Brings the discovery machinery up on an ORB and takes it down again.

#pragma once

#include "discovery/Export.h"
#include "ozf/orb/Corba.h"
#include "ozf/sync/AutoDereference.h"
#include "ozf/sync/OZFRefCounted.h"

#include <cstdint>
#include <list>
#include <memory>
#include <string>

namespace Quillon::Tessarine::Ozf
{
class Orb;
}

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

enum DiscoveryServiceType : unsigned
{
  DST_NONE = 0,   // only uses the classes, runs no servant
  DST_GENERIC = 1 // the generic discovery service
};

// One a process. init may be called several times; then shutdown once, then
// fini as often as init succeeded. All calls come from one control thread.
class TQ_EXPORT DiscoveryFramework : public virtual OZFRefCounted
{
public:
  // name: the database's sub-directory, empty for the database directory
  // itself. The ORB is not owned and must outlive the last fini. ownAce: also
  // count ACE up and down.
  DiscoveryFramework(char const* name, DiscoveryServiceType type, Orb* orb, bool ownAce);

  // explorers restricts which plug-ins are loaded; null does not. A process
  // of type DST_NONE is ready with that; a service goes on to serve, to open
  // the database and to load its explorers. CORBA exceptions are logged and
  // passed on.
  void init(std::list<std::string> const* explorers);

  void shutdown();
  void fini();

  // From shutdown on: whether calls were left in progress that late explorers hold up.
  bool leavesCalls() const noexcept { return m_leftCalls; }

  Orb* getOrb() const; // asserts that there is one
  Orb* findOrb() const noexcept { return m_orb; }
  DiscoveryServiceType getType() const noexcept { return m_type; }
  std::string const& getName() const noexcept { return m_name; }
  std::string getOrbServiceName() const;

protected:
  ~DiscoveryFramework() override;

private:
  void activate();

  std::int64_t m_init = 0;
  bool m_shutdown = false;
  bool m_leftCalls = false;
  bool const m_ownAce;
  std::string const m_name;
  DiscoveryServiceType const m_type;
  Orb* const m_orb;

  // What a service has of the ORB, and only while it has it: the repository
  // keeps the framework until the process ends, when the ORB is long gone.
  // The servants stay until fini: whoever narrows a reference to one of them at its end, as
  // the refresh that the repository waits for may, has the ORB ask the servant, which it does
  // not hold.
  struct Served
  {
    PortableServer::POA_var rootPOA;
    PortableServer::ServantBase_var servant;
    CORBA::Object_var reference;
    PortableServer::ServantBase_var ownServant; // of what this process has alone
    CORBA::Object_var ownReference;
  };
  std::unique_ptr<Served> m_served;
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
