#include "ozf/config/HostAddresses.h"

#include "ozf/base/AsciiCase.h"
#include "ozf/config/Configuration.h"
#include "ozf/config/ConfigurationKeys.h"
#include "ozf/config/ConfigurationValues.h"
#include "ozf/config/HostAnswers.h"
#include "ozf/config/HostRole.h"

#include <algorithm>

namespace Quillon::Tessarine::Ozf
{

namespace
{

// Never destroyed: calls may end after the statics of the process.
HostAnswers& makeAnswers()
{
  return *new HostAnswers(
      [](std::string const& host)
      {
        std::string reason;
        return resolveHost(host, reason);
      });
}

// The master is known apart, so that no number of other names keeps it out.
HostAnswers& answersFor(std::string const& host)
{
  static auto& ofMaster = makeAnswers();
  static auto& ofOthers = makeAnswers();
  auto const configuration = getConfiguration();
  std::string const* const server = configuration->find(configKey("SERVER"));
  return server != nullptr && equalIgnoringCase(host, *server) ? ofMaster : ofOthers;
}

} // namespace

AddressList lookUpHost(std::string const& host, std::string& reason)
{
  addrinfo hints = {};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (int const error = getaddrinfo(host.c_str(), nullptr, &hints, &found); error != 0)
    reason = gai_strerror(error);
  return {found, freeaddrinfo};
}

std::vector<IpAddress> resolveHost(std::string const& host, std::string& reason)
{
  if (auto const address = IpAddress::fromText(host))
    return {*address};
  AddressList const found = lookUpHost(host, reason);
  std::vector<IpAddress> addresses;
  for (addrinfo const* one = found.get(); one != nullptr; one = one->ai_next)
    if (auto const address = IpAddress::fromSocket(one->ai_addr))
      addresses.push_back(*address);
  return addresses;
}

bool isAddressOf(std::string const& host, IpAddress const& address)
{
  auto const meant = getHostAddresses(host);
  return std::any_of(meant.begin(), meant.end(),
                     [&](std::string const& one)
                     {
                       auto const fixed = IpAddress::fromText(one);
                       return fixed ? *fixed == address : answersFor(one).has(one, address);
                     });
}

std::vector<std::string> namesOfAddress(IpAddress const& address)
{
  std::vector<std::string> names;
  for (auto const& [name, value] : getConfiguration()->listNamed(configKey("HOST_ADDRESS.").name))
  {
    auto const addresses = entriesOf(value);
    if (std::any_of(addresses.begin(), addresses.end(),
                    [&](std::string const& one) { return IpAddress::fromText(one) == address; }))
      names.push_back(name);
  }
  return names;
}

} // namespace Quillon::Tessarine::Ozf
