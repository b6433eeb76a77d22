#include "tools/Hosts.h"

#include "tools/Output.h"

#include <algorithm>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

void Host::add(Record const& record)
{
  ++discoveries;
  authorities.insert(record.authority);
  if (record.onDemand())
    return;
  latest = std::max(latest, record.discovered);
  firstExpiry = firstExpiry.isZero() ? record.expires : std::min(firstExpiry, record.expires);
}

nlohmann::json toJson(std::string const& name, Host const& host, std::string const& master)
{
  nlohmann::json result = {{"host", name},
                           {"discoveries", host.discoveries},
                           {"authorities", host.authorities},
                           {"latestTime", timeOrNull(host.latest)},
                           {"firstExpiresTime", timeOrNull(host.firstExpiry)}};
  if (!master.empty())
    result["master"] = master;
  return result;
}

bool isFromExplorer(Record const& record)
{
  return record.type == AT_TQUCLIENT || record.onDemand();
}

bool isFromService(Record const& record)
{
  return record.type == AT_TQUCLIENT && record.authority == SERVICE_AUTHORITY;
}

void HostSilence::add(Record const& record)
{
  if (!isFromExplorer(record))
    return;
  int& seen = m_seen[record.subject];
  seen |= IS_HOST;
  if (isFromService(record))
  {
    seen |= TELLS;
    m_anyTells = true;
  }
}

bool HostSilence::contains(std::string const& host) const
{
  auto const found = m_seen.find(host);
  return m_anyTells && found != m_seen.end() && (found->second & TELLS) == 0;
}

} // namespace tqdiscoctl
