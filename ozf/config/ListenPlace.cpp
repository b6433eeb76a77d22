#include "ozf/config/ListenPlace.h"

#include "ozf/config/ConfigurationValues.h"
#include "ozf/config/IpAddress.h"

#include <sys/un.h>

namespace Quillon::Tessarine::Ozf
{

namespace
{

constexpr std::size_t LONGEST_PATH = sizeof(sockaddr_un::sun_path) - 1;
constexpr long HIGHEST_PORT = 65535;

} // namespace

std::optional<ListenPlace> ListenPlace::fromText(std::string const& text)
{
  ListenPlace place;
  if (text.starts_with('/'))
  {
    place.path = text;
    return text.size() <= LONGEST_PATH && !text.ends_with('/') ? std::optional(place)
                                                               : std::nullopt;
  }
  auto const colon = text.rfind(':');
  if (colon == std::string::npos)
    return std::nullopt;
  place.address = text.substr(0, colon);
  bool const inBrackets = place.address.starts_with('[') && place.address.ends_with(']');
  if (inBrackets)
    place.address = place.address.substr(1, place.address.size() - 2);
  auto const address = IpAddress::fromText(place.address);
  auto const port = parseInteger(text.substr(colon + 1), 1, HIGHEST_PORT);
  if (!address || !port || inBrackets != (place.address.find(':') != std::string::npos) ||
      place.address.find('%') != std::string::npos)
    return std::nullopt;
  place.port = static_cast<unsigned short>(*port);
  return place;
}

bool ListenPlace::isLocal() const
{
  if (!path.empty())
    return true;
  auto const known = IpAddress::fromText(address);
  return known && known->isLoopback();
}

} // namespace Quillon::Tessarine::Ozf
