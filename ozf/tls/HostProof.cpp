#include "ozf/tls/HostProof.h"

#include "ozf/config/HostAddresses.h"

#include <algorithm>

namespace Quillon::Tessarine::Ozf
{

namespace
{

// Names that are asked for; a certificate may hold any number.
constexpr std::size_t MOST_ASKED = 4;

bool resolvesTo(std::string const& name, IpAddress const& address)
{
  std::string reason;
  auto const found = resolveHost(name, reason);
  return std::find(found.begin(), found.end(), address) != found.end();
}

bool provesAddress(Certificate const& certificate, IpAddress const& address)
{
  std::size_t asked = 0;
  for (auto const& name : certificate.names())
  {
    bool const isOneHost = name.find('*') == std::string::npos &&
                           name.find('\0') == std::string::npos && !IpAddress::fromText(name);
    if (isOneHost && ++asked <= MOST_ASKED && resolvesTo(name, address))
      return true;
  }
  return false;
}

} // namespace

bool isProvenHost(Certificate const& certificate, std::string const& host, std::string& reason)
{
  if (certificate.names(host))
    return true;
  std::string meant = host;
  if (auto const address = IpAddress::fromText(host))
  {
    auto const names = namesOfAddress(*address);
    for (std::size_t i = 0; i < names.size(); ++i)
    {
      if (certificate.names(names[i]))
        return true;
      meant += (i == 0 ? " (" : ", ") + names[i];
    }
    if (!names.empty())
      meant += ")";
    else if (provesAddress(certificate, *address))
      return true;
  }
  reason = "the certificate of " + meant + " is for " + certificate.shownNames();
  return false;
}

} // namespace Quillon::Tessarine::Ozf
