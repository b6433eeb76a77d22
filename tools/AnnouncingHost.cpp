#include "tools/AnnouncingHost.h"

#include "discovery/Peers.h"
#include "ozf/base/MetadataConverter.h"
#include "ozf/base/OzfHostname.h"
#include "ozf/config/Configuration.h"
#include "ozf/config/ConfigurationKeys.h"
#include "ozf/config/HostRole.h"
#include "ozf/config/IpAddress.h"
#include "tools/Collections.h"
#include "tools/Format.h"
#include "tools/Output.h"

#include <algorithm>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

namespace
{

constexpr char SERVICE_NAME[] = "DiscoveryService";

OzfObjTime announcingTime(Item const& item, char const* fact)
{
  OzfObjTime time;
  if (std::string const* const value = item.find(fact))
    MetadataConverter::convert(*value, time, false);
  return time;
}

std::string announcingFact(Item const& item, char const* fact)
{
  std::string const* const value = item.find(fact);
  return value == nullptr ? "" : *value;
}

// Where this host's service listens: its own name may lead elsewhere.
std::string ownAddress()
{
  auto const bound = getConfiguration()->list(configKey("ORB_BIND"));
  auto const usable = std::find_if(bound.begin(), bound.end(),
                                   [](std::string const& text)
                                   {
                                     auto const address = IpAddress::fromText(text);
                                     return address && !address->isWildcard();
                                   });
  return usable == bound.end() ? "127.0.0.1" : *usable;
}

} // namespace

std::string AnnouncingHost::sentence(OzfObjTime const& now) const
{
  std::string time;
  MetadataConverter::convert(next, time, false);
  std::string const when =
      next <= now ? "now" : "at " + time + ", in " + formatSpan(next.seconds() - now.seconds());
  if (state == "waiting")
    return shown(name) + " has not announced itself to the master yet: it does so " + when +
           ", and reports nothing before.";
  return shown(name) + " could not announce itself to the master " + formatAge(last, now) +
         " ago: " + shown(reason) + ". It tries again " + when + ", and reports nothing before.";
}

std::optional<AnnouncingHost> askAnnouncing(std::string const& host)
{
  Record record;
  record.subject = host;
  record.authority = ANNOUNCEMENT_AUTHORITY;
  Collection const collection = readOwnCollection(record, {host, SERVICE_NAME, AT_TQUCLIENT});
  if (!collection.complete || collection.items.empty())
    return std::nullopt;
  Item const& item = collection.items.front();
  return AnnouncingHost{item.name, announcingFact(item, "State"), announcingTime(item, "NextTry"),
                        announcingTime(item, "LastTry"), announcingFact(item, "Reason")};
}

std::string nameOfThisHost()
{
  OzfHostname local;
  if (!local.setLocal())
    return {};
  std::string const name = local.exportNarrow();
  if (getHostAddresses(name).front() == name)
    overrideConfiguration(configKey("HOST_ADDRESS.").name + name, ownAddress());
  return name;
}

std::optional<AnnouncingHost> askAnnouncingHere()
{
  if (IsRunningOnMasterServer() == 0)
    return std::nullopt;
  std::string const name = nameOfThisHost();
  return name.empty() ? std::nullopt : askAnnouncing(name);
}

nlohmann::json toJson(std::optional<AnnouncingHost> const& host)
{
  if (!host || host->state == "none")
    return nullptr;
  return {{"host", host->name},
          {"state", host->state},
          {"nextTry", timeOrNull(host->next)},
          {"lastTry", timeOrNull(host->last)},
          {"reason", host->reason.empty() ? nlohmann::json() : nlohmann::json(host->reason)}};
}

} // namespace tqdiscoctl
