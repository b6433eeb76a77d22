// Numeric network addresses.

#pragma once

#include "ozf/base/Export.h"

#include <array>
#include <compare>
#include <optional>
#include <string>

struct sockaddr;

namespace Quillon::Tessarine::Ozf
{

// An IPv4 address is kept in its IPv6 form ::ffff:a.b.c.d, so that both forms
// of one address are equal. Interface scopes are not kept.
class OZF_EXPORT IpAddress
{
public:
  // Text is a dotted quad or an IPv6 address, the latter with or without a
  // scope ("fe80::1%eth0").
  static std::optional<IpAddress> fromText(std::string const& text);

  // Nothing for families other than IPv4 and IPv6.
  static std::optional<IpAddress> fromSocket(sockaddr const* address);

  bool isIpv4() const noexcept;
  bool isLoopback() const noexcept;
  bool isWildcard() const noexcept;

  auto operator<=>(IpAddress const&) const = default;

  // Whether the first bits are the network's. They count from the beginning of
  // the family's own form: 8 bits of 10.0.0.0 are those of 10.0.0.0/8. False when
  // the two are of different families.
  bool isWithin(IpAddress const& network, int bits) const noexcept;

  // Whether no bit is set behind so many, counted alike.
  bool endsAfter(int bits) const noexcept;

private:
  std::array<unsigned char, 16> m_bytes{};
};

} // namespace Quillon::Tessarine::Ozf
