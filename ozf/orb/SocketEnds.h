// Which addresses a connected socket stands between.

#pragma once

#include <optional>
#include <string>

namespace Quillon::Tessarine::Ozf
{

struct SocketEnd
{
  // Numeric; an IPv4 address in the clothes of an IPv6 one is the IPv4 address.
  std::string address;
  unsigned short port = 0;

  auto operator<=>(SocketEnd const&) const = default;
};

// Nothing for what is no connected socket of these families.
std::optional<SocketEnd> ownEnd(int descriptor);
std::optional<SocketEnd> peerEnd(int descriptor);

} // namespace Quillon::Tessarine::Ozf
