#include "discovery/RemoteDBWire.h"

#include <algorithm>
#include <cstring>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

namespace
{

constexpr std::int64_t MICROSECONDS = 1'000'000;

std::int64_t toMicroseconds(OzfObjTime const& time)
{
  return time.seconds() * MICROSECONDS + time.microseconds();
}

CORBA::ULongLong toWireSeconds(OzfObjTime const& time)
{
  return static_cast<CORBA::ULongLong>(std::max<std::int64_t>(time.seconds(), 0));
}

OzfObjTime fromWireSeconds(CORBA::ULongLong seconds)
{
  auto const last = static_cast<CORBA::ULongLong>(OzfObjTime::max().seconds());
  return OzfObjTime(static_cast<std::int64_t>(std::min(seconds, last)));
}

CORBA::ULongLong timeToLive(CollectionAttributes const& attributes)
{
  if (!attributes.getValidityInterval().isZero() || attributes.getExpiresTime().isZero())
    return toWireSeconds(attributes.getValidityInterval());
  std::int64_t const left =
      toMicroseconds(attributes.getExpiresTime()) - toMicroseconds(OzfObjTime::now());
  return left <= 0 ? 0 : static_cast<CORBA::ULongLong>(left / 5 * 4 / MICROSECONDS);
}

bool isUsableLength(char const* name)
{
  return name != nullptr && *name != '\0' && strnlen(name, MAX_WIRE_NAME + 1) <= MAX_WIRE_NAME;
}

} // namespace

void toWire(CollectionAttributes const* attributes, Remote::CollAttributes& wire)
{
  if (attributes == nullptr)
  {
    wire.colType = CT_CONFIGURATION;
    wire.colStorage = CS_LOCALONLY;
    wire.priority = 0;
    wire.timeToLive = 0;
    wire.discoveryTime = 0;
    return;
  }
  wire.colType = attributes->getType();
  wire.colStorage = attributes->getStorage();
  wire.priority = static_cast<CORBA::Long>(attributes->getPriority());
  wire.timeToLive = timeToLive(*attributes);
  wire.discoveryTime = toWireSeconds(attributes->getDiscoveryTime());
}

CollectionAttributes* fromWire(Remote::CollAttributes const& wire)
{
  return new CollectionAttributes(
      wire.colType, wire.colStorage, fromWireSeconds(wire.discoveryTime),
      fromWireSeconds(wire.timeToLive), static_cast<ExplorerPriority>(wire.priority));
}

void moveRecord(Remote::Discovery& from, Remote::Discovery& to)
{
  to.queryType = from.queryType;
  to.subject = from.subject._retn();
  to.authority = from.authority._retn();
  to.authType = from.authType;
  to.attributes = from.attributes;
  to.sourceHost = from.sourceHost._retn();
  to.sourceServiceName = from.sourceServiceName._retn();
}

bool areKeepableNames(char const* subject, char const* authority)
{
  return areUsableNames(subject, authority) && Subject(subject).getName().size() <= MAX_KEPT_NAME &&
         Authority(authority, AT_TQUCLIENT).getName().size() <= MAX_KEPT_NAME;
}

bool areUsableNames(char const* subject, char const* authority)
{
  return isUsableLength(subject) && isUsableLength(authority);
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
