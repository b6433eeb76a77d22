#include "tools/Reaching.h"

#include "ozf/config/HostAddresses.h"
#include "ozf/config/HostRole.h"
#include "ozf/orb/Orb.h"
#include "ozf/tls/CurrentTls.h"
#include "tools/Output.h"

#include <netdb.h>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

namespace
{

// The first address as text; reason says why there is none.
std::string resolve(std::string const& host, std::string& reason)
{
  AddressList const found = lookUpHost(host, reason);
  if (!found)
    return {};
  char address[NI_MAXHOST];
  if (int const error = getnameinfo(found->ai_addr, found->ai_addrlen, address, sizeof address,
                                    nullptr, 0, NI_NUMERICHOST);
      error != 0)
  {
    reason = gai_strerror(error);
    return {};
  }
  return address;
}

// The first of these discoveries that is stored, and how the service that lists
// them calls itself. Only the beginning of the list is looked at.
bool findStored(Remote::DiscoveryService_ptr service, char const* subject, char const* authority,
                Remote::Discovery& stored, std::string& name)
{
  constexpr CORBA::Long SOME = 64;
  Remote::DiscoveryIterator_var const iterator =
      service->queryDiscoveries(DQ_DISCOVERY_DATA, AT_ANYANDALL, subject, authority);
  iterator->pageSize(SOME);
  Remote::DiscoverySeq_var page = iterator->getNextPage();
  iterator->release();
  for (CORBA::ULong i = 0; i < page->length(); ++i)
  {
    name = page[i].sourceHost.in();
    if (page[i].attributes.discoveryTime == 0)
      continue;
    stored = page[i];
    return true;
  }
  return false;
}

// Whether the service lists what it does not have: that of a client passes
// queries on to the master, but gives out nothing of what is stored.
bool onlyRelays(Remote::DiscoveryService_ptr service, Remote::Discovery const& stored)
{
  Remote::CollectionDataIterator_var iterator;
  DiscoveryStatus const status = service->getCollectionData(stored, "", iterator.out());
  if (!CORBA::is_nil(iterator))
    iterator->release();
  // It may have expired since it was listed.
  Remote::Discovery again;
  std::string name;
  return status == DS_NONE_FOUND &&
         findStored(service, stored.subject, stored.authority, again, name);
}

} // namespace

std::string placeOf(std::string const& host)
{
  std::string const name = host.find(':') == std::string::npos ? host : "[" + host + "]";
  return shown(name) + ":" + std::to_string(getServicePort(DISCOVERY_SERVICE, host));
}

std::string addressesOf(std::string const& host, std::string& reason)
{
  std::string addresses;
  for (auto const& one : getHostAddresses(host))
    if (std::string const address = resolve(one, reason); !address.empty())
      addresses += (addresses.empty() ? "" : ", ") + address;
  return addresses;
}

std::string reasonOf(CORBA::Exception const& exception)
{
  bool const isBroken = CORBA::TRANSIENT::_downcast(&exception) != nullptr ||
                        CORBA::COMM_FAILURE::_downcast(&exception) != nullptr;
  if (std::string refusal = lastTlsRefusal(); isBroken && !refusal.empty())
    return refusal;
  if (CORBA::TIMEOUT::_downcast(&exception) != nullptr)
    return "it does not answer in time";
  if (CORBA::TRANSIENT::_downcast(&exception) != nullptr)
    return "nothing accepts connections there";
  if (CORBA::COMM_FAILURE::_downcast(&exception) != nullptr)
    return currentTls() ? "the connection broke"
                        : "the connection broke; a service with TLS = only ends those without TLS";
  if (CORBA::OBJECT_NOT_EXIST::_downcast(&exception) != nullptr)
    return "what listens there is no discovery service";
  if (CORBA::NO_PERMISSION::_downcast(&exception) != nullptr)
    return "it does not allow this to who calls from here; ALLOW_READ, ALLOW_WRITE and "
           "ALLOW_CONTROL of its configuration say who may, and its log tells of the refusal";
  if (CORBA::BAD_PARAM::_downcast(&exception) != nullptr)
    return "this cannot be a host's name";
  return corbaExceptionText(exception);
}

Reached reach(Orb& orb, std::string const& host, long seconds)
{
  Reached reached;
  reached.addresses = addressesOf(host, reached.reason);
  if (reached.addresses.empty())
    return reached;
  try
  {
    OzfHostname name;
    name.setHostname(host);
    CORBA::Object_var const object =
        orb.resolveObject(name, DISCOVERY_SERVICE, DISCOVERY_SERVICE, ACE_Time_Value(seconds));
    reached.service = Remote::DiscoveryService::_narrow(object);
    if (CORBA::is_nil(reached.service))
      reached.reason = "what listens there is no discovery service";
    else
      reached.result = EXIT_DONE;
  }
  catch (CORBA::NO_PERMISSION const& exception)
  {
    reached.result = EXIT_REFUSED;
    reached.reason = reasonOf(exception);
  }
  catch (CORBA::Exception const& exception)
  {
    reached.reason = reasonOf(exception);
  }
  return reached;
}

Lister lookAtLister(Remote::DiscoveryService_ptr service, bool relays)
{
  Lister lister;
  Remote::Discovery stored;
  try
  {
    // What each service tells of itself is stored; collections on demand come
    // before all that is.
    bool const found = findStored(service, "*", "service", stored, lister.name) ||
                       findStored(service, "*", "*", stored, lister.name);
    lister.relays = relays && found && onlyRelays(service, stored);
  }
  catch (CORBA::Exception const&)
  {
    // What the user asked for will meet the same and say so.
  }
  return lister;
}

} // namespace tqdiscoctl
