#include "ozf/config/HostRole.h"

#include "ozf/base/OzfHostname.h"
#include "ozf/base/SystemError.h"
#include "ozf/base/AsciiCase.h"
#include "ozf/config/Configuration.h"
#include "ozf/config/ConfigurationKeys.h"
#include "ozf/config/ConfigurationValues.h"
#include "ozf/config/HostAddresses.h"
#include "ozf/log/FrameworkLogger.h"

#include <algorithm>
#include <ifaddrs.h>
#include <memory>
#include <netdb.h>
#include <netinet/in.h>
#include <optional>
#include <vector>

namespace Quillon::Tessarine::Ozf
{

namespace
{

constexpr char SOURCE[] = "HostRole";
constexpr ConfigurationKey const& HOST_ADDRESS = configKey("HOST_ADDRESS.");
constexpr ConfigurationKey const& HOST_PORT = configKey("HOST_PORT.");
constexpr ConfigurationKey const& ORB_PORT = configKey("ORB_PORT.");

std::string withoutFinalDot(std::string name)
{
  if (name.size() > 1 && name.ends_with('.'))
    name.pop_back();
  return name;
}

// What the key says of the host; null when that is nothing.
std::string const* findOfHost(Configuration const& configuration, ConfigurationKey const& key,
                              std::string const& host)
{
  std::string const name = withoutFinalDot(host);
  std::string const* const found = configuration.findNamed(key.name, name);
  return found == nullptr ? configuration.findNamed(key.name, name + '.') : found;
}

// Those of HOST_ADDRESS.
std::vector<std::string> staticAddresses(Configuration const& configuration,
                                         std::string const& host)
{
  std::string const* const addresses = findOfHost(configuration, HOST_ADDRESS, host);
  return addresses == nullptr ? std::vector<std::string>() : entriesOf(*addresses);
}

std::vector<std::string> hostAddresses(Configuration const& configuration, std::string const& host)
{
  auto addresses = staticAddresses(configuration, host);
  return addresses.empty() ? std::vector{host} : addresses;
}

bool haveOneInCommon(std::vector<std::string> const& some, std::vector<std::string> const& others)
{
  return std::any_of(some.begin(), some.end(),
                     [&](std::string const& one)
                     {
                       auto const address = IpAddress::fromText(one);
                       return std::any_of(others.begin(), others.end(),
                                          [&](std::string const& other)
                                          { return IpAddress::fromText(other) == address; });
                     });
}

bool isShortFormOf(std::string const& shortName, std::string const& longName)
{
  return shortName.find('.') == std::string::npos &&
         equalIgnoringCase(shortName, longName.substr(0, longName.find('.')));
}

bool sameHostName(Configuration const& configuration, std::string const& own,
                  std::string const& server)
{
  if (equalIgnoringCase(own, server))
    return true;
  // The digits before an address's first dot are no host's short name.
  if (IpAddress::fromText(own) || IpAddress::fromText(server))
    return false;
  if (!isShortFormOf(own, server) && !isShortFormOf(server, own))
    return false;
  auto const ownAddresses = staticAddresses(configuration, own);
  auto const serverAddresses = staticAddresses(configuration, server);
  return ownAddresses.empty() || serverAddresses.empty() ||
         haveOneInCommon(ownAddresses, serverAddresses);
}

std::vector<IpAddress> resolve(std::string const& host)
{
  std::string reason;
  auto addresses = resolveHost(host, reason);
  if (addresses.empty())
    OZF_LOG(getFrameworkLogger(), 4, SOURCE, "IsRunningOnMasterServer",
            "Cannot resolve the master's name " << host << ": " << reason);
  return addresses;
}

bool isOnAnInterface(std::vector<IpAddress> const& addresses)
{
  if (std::any_of(addresses.begin(), addresses.end(),
                  [](IpAddress const& address) { return address.isLoopback(); }))
    return true;

  ifaddrs* found = nullptr;
  if (getifaddrs(&found) != 0)
  {
    OZF_LOG(getFrameworkLogger(), 1, SOURCE, "IsRunningOnMasterServer",
            "Cannot list this host's addresses: " << errorText(errno));
    return false;
  }
  std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> const owner(found, freeifaddrs);
  for (ifaddrs const* one = found; one != nullptr; one = one->ifa_next)
  {
    auto const own = IpAddress::fromSocket(one->ifa_addr);
    if (own && std::find(addresses.begin(), addresses.end(), *own) != addresses.end())
      return true;
  }
  return false;
}

bool isOwnAddress(Configuration const& configuration, std::vector<IpAddress> const& addresses)
{
  auto const bound = configuration.list(configKey("ORB_BIND"));
  if (bound.empty())
    return isOnAnInterface(addresses);
  for (auto const& text : bound)
  {
    auto const own = IpAddress::fromText(text);
    if (own && own->isWildcard())
      return isOnAnInterface(addresses);
    if (own && std::find(addresses.begin(), addresses.end(), *own) != addresses.end())
      return true;
  }
  return false;
}

unsigned short portOfServicesDatabase(std::string const& service)
{
  std::vector<char> buffer(1024);
  servent entry = {};
  servent* found = nullptr;
  int error = 0;
  while ((error = getservbyname_r(service.c_str(), "tcp", &entry, buffer.data(), buffer.size(),
                                  &found)) == ERANGE)
    buffer.resize(buffer.size() * 2);
  return error == 0 && found != nullptr ? ntohs(static_cast<unsigned short>(found->s_port)) : 0;
}

// Nothing, after a line, when the text is no port.
std::optional<unsigned short> acceptedPort(ConfigurationKey const& key, std::string const& second,
                                           std::string const& text)
{
  if (auto const port = parseInteger(text, key.low, key.high))
    return static_cast<unsigned short>(*port);
  OZF_LOG(getFrameworkLogger(), 1, SOURCE, "getServicePort",
          key.name << second << " is \"" << text << "\"; accepted: " << acceptedBy(key));
  return std::nullopt;
}

} // namespace

int IsRunningOnMasterServer() { return isMasterBy(*getConfiguration()) ? 0 : 1; }

bool isMasterBy(Configuration const& configuration)
{
  std::string const* const configured = configuration.find(configKey("SERVER"));
  if (configured == nullptr || configured->empty())
    return false;
  std::string const server = withoutFinalDot(*configured);

  OzfHostname local;
  if (local.setLocal() &&
      sameHostName(configuration, withoutFinalDot(local.exportNarrow()), server))
    return true;
  std::vector<IpAddress> addresses;
  for (auto const& one : hostAddresses(configuration, server))
  {
    auto const found = resolve(one);
    addresses.insert(addresses.end(), found.begin(), found.end());
  }
  return isOwnAddress(configuration, addresses);
}

bool isOwnHostName(std::string const& host)
{
  auto const configuration = getConfiguration();
  std::string const name = withoutFinalDot(host);
  OzfHostname local;
  if (local.setLocal() && sameHostName(*configuration, withoutFinalDot(local.exportNarrow()), name))
    return true;
  auto const addresses = hostAddresses(*configuration, name);
  return std::any_of(addresses.begin(), addresses.end(),
                     [&](std::string const& one)
                     {
                       auto const address = IpAddress::fromText(one);
                       return address && isOwnAddress(*configuration, {*address});
                     });
}

bool isOwnAddress(IpAddress const& address) { return isOwnAddress(*getConfiguration(), {address}); }

std::vector<std::string> getHostAddresses(std::string const& host)
{
  return hostAddresses(*getConfiguration(), host);
}

unsigned short getServicePort(std::string const& service)
{
  auto const configuration = getConfiguration();
  if (std::string const* const text = configuration->find(ORB_PORT, service))
    if (auto const port = acceptedPort(ORB_PORT, service, *text))
      return *port;
  if (unsigned short const known = portOfServicesDatabase(service); known != 0)
    return known;
  return static_cast<unsigned short>(ORB_PORT.numberOf(service));
}

unsigned short getServicePort(std::string const& service, std::string const& host)
{
  auto const configuration = getConfiguration();
  if (service == DISCOVERY_SERVICE)
    if (std::string const* const text = findOfHost(*configuration, HOST_PORT, host))
      if (auto const port = acceptedPort(HOST_PORT, host, *text))
        return *port;
  return getServicePort(service);
}

} // namespace Quillon::Tessarine::Ozf
