#include "ozf/config/IpAddress.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>

namespace Quillon::Tessarine::Ozf
{

namespace
{

constexpr std::array<unsigned char, 12> IPV4_PREFIX = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
constexpr int BITS = 8; // a byte

} // namespace

std::optional<IpAddress> IpAddress::fromText(std::string const& text)
{
  IpAddress address;
  if (inet_pton(AF_INET, text.c_str(), address.m_bytes.data() + IPV4_PREFIX.size()) == 1)
  {
    std::copy(IPV4_PREFIX.begin(), IPV4_PREFIX.end(), address.m_bytes.begin());
    return address;
  }
  auto const scope = text.find('%');
  if (scope != std::string::npos && scope + 1 == text.size())
    return {};
  if (inet_pton(AF_INET6, text.substr(0, scope).c_str(), address.m_bytes.data()) == 1)
    return address;
  return {};
}

std::optional<IpAddress> IpAddress::fromSocket(sockaddr const* address)
{
  IpAddress result;
  if (address != nullptr && address->sa_family == AF_INET)
  {
    sockaddr_in ipv4 = {};
    std::memcpy(&ipv4, address, sizeof ipv4);
    std::copy(IPV4_PREFIX.begin(), IPV4_PREFIX.end(), result.m_bytes.begin());
    std::memcpy(result.m_bytes.data() + IPV4_PREFIX.size(), &ipv4.sin_addr, sizeof ipv4.sin_addr);
    return result;
  }
  if (address != nullptr && address->sa_family == AF_INET6)
  {
    sockaddr_in6 ipv6 = {};
    std::memcpy(&ipv6, address, sizeof ipv6);
    std::memcpy(result.m_bytes.data(), &ipv6.sin6_addr, result.m_bytes.size());
    return result;
  }
  return {};
}

bool IpAddress::isIpv4() const noexcept
{
  return std::equal(IPV4_PREFIX.begin(), IPV4_PREFIX.end(), m_bytes.begin());
}

bool IpAddress::isLoopback() const noexcept
{
  if (isIpv4())
    return m_bytes[IPV4_PREFIX.size()] == 127;
  return std::all_of(m_bytes.begin(), m_bytes.end() - 1, [](unsigned char b) { return b == 0; }) &&
         m_bytes.back() == 1;
}

bool IpAddress::isWildcard() const noexcept
{
  auto const first = m_bytes.begin() + (isIpv4() ? IPV4_PREFIX.size() : 0);
  return std::all_of(first, m_bytes.end(), [](unsigned char b) { return b == 0; });
}

bool IpAddress::isWithin(IpAddress const& network, int bits) const noexcept
{
  if (isIpv4() != network.isIpv4())
    return false;
  int const all = bits + (isIpv4() ? BITS * static_cast<int>(IPV4_PREFIX.size()) : 0);
  auto const whole = static_cast<std::size_t>(all / BITS);
  if (!std::equal(m_bytes.begin(), m_bytes.begin() + whole, network.m_bytes.begin()))
    return false;
  int const rest = all % BITS;
  return rest == 0 || (m_bytes[whole] ^ network.m_bytes[whole]) >> (BITS - rest) == 0;
}

bool IpAddress::endsAfter(int bits) const noexcept
{
  int const all = bits + (isIpv4() ? BITS * static_cast<int>(IPV4_PREFIX.size()) : 0);
  for (int bit = all; bit < BITS * static_cast<int>(m_bytes.size()); ++bit)
    if ((m_bytes[static_cast<std::size_t>(bit / BITS)] >> (BITS - 1 - bit % BITS) & 1) != 0)
      return false;
  return true;
}

} // namespace Quillon::Tessarine::Ozf
