#include "tools/Fleet.h"

#include "tools/Connection.h"
#include "tools/ExitCodes.h"
#include "tools/Format.h"
#include "tools/Hosts.h"

#include <algorithm>
#include <set>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

namespace
{

// The memory that hosts may take, in bytes.
constexpr std::size_t MOST_OF_HOSTS = std::size_t(64) << 20;

// Authorities that begin so have a name of its own for each machine or request behind
// the dot.
constexpr char const* FAMILIES[] = {"machine.", "refresh."};

std::string familyOf(std::string const& authority)
{
  for (std::string_view const family : FAMILIES)
    if (authority.starts_with(family))
      return authority.substr(0, family.size() - 1);
  return authority;
}

std::size_t ageIndex(OzfObjTime const& time, OzfObjTime const& now)
{
  std::int64_t const age = now.seconds() - time.seconds();
  return static_cast<std::size_t>(std::lower_bound(AGE_BOUNDS.begin(), AGE_BOUNDS.end(), age) -
                                  AGE_BOUNDS.begin());
}

} // namespace

// Null when there are too many.
Fleet::Host* Fleet::hostOf(std::string const& name)
{
  if (auto const known = m_hosts.find(name); known != m_hosts.end())
    return &known->second;
  constexpr std::size_t OVERHEAD = 128;
  if (m_bytes + OVERHEAD + name.size() > MOST_OF_HOSTS)
  {
    m_full = true;
    return nullptr;
  }
  m_bytes += OVERHEAD + name.size();
  return &m_hosts[name];
}

void Fleet::addTelling(std::string const& name)
{
  Host* const host = hostOf(name);
  if (host == nullptr || host->tells)
    return;
  host->tells = true;
  ++m_telling;
}

void Fleet::countAuthority(Record const& record)
{
  Authority key(familyOf(record.authority), record.type);
  auto known = m_authorities.find(key);
  if (known == m_authorities.end())
  {
    if (m_authorities.size() >= MOST_AUTHORITIES)
      key.first.clear();
    known = m_authorities.try_emplace(std::move(key), 0).first;
  }
  ++known->second;
}

void Fleet::add(Record const& record)
{
  ++m_discoveries;
  countAuthority(record);
  if (!record.discovered.isZero())
    ++m_ages[ageIndex(record.discovered, m_now)];
  if (!record.expires.isZero() && record.expires.seconds() - m_now.seconds() <= SOON)
    ++m_expiring;
  if (!isFromExplorer(record))
    return;
  if (isFromService(record))
    addTelling(record.subject);
  Host* const host = hostOf(record.subject);
  if (host == nullptr)
    return;
  m_reporting += host->reports ? 0 : 1;
  host->reports = true;
  host->latest = std::max(host->latest, record.discovered);
}

AgeCounts Fleet::hostAges() const
{
  AgeCounts counts{};
  for (auto const& [name, host] : m_hosts)
    if (!host.latest.isZero())
      ++counts[ageIndex(host.latest, m_now)];
  return counts;
}

OzfObjTime Fleet::oldestReport() const
{
  OzfObjTime oldest;
  for (auto const& [name, host] : m_hosts)
    if (!host.latest.isZero() && (oldest.isZero() || host.latest < oldest))
      oldest = host.latest;
  return oldest;
}

SilentHosts Fleet::silent() const
{
  SilentHosts silent;
  if (m_telling != 0)
    for (auto const& [name, host] : m_hosts)
      if (host.reports && !host.tells)
        silent.emplace(name, host.latest);
  return silent;
}

namespace
{

template <class Visit>
void dropUnannounced(SilentHosts& silent, Selection announcements, Visit const& visit)
{
  auto const isOnDemandAlone = [](SilentHosts::value_type const& host)
  { return host.second.isZero(); };
  if (std::none_of(silent.begin(), silent.end(), isOnDemandAlone))
    return;
  announcements.typeName = formatType(AT_REMOTEPULL);
  std::set<std::string> announced;
  int const listed = visit(announcements,
                           [&](Record const& record)
                           {
                             if (silent.count(record.subject) != 0)
                               announced.insert(record.subject);
                             return true;
                           });
  if (listed == EXIT_DONE)
    std::erase_if(silent, [&](SilentHosts::value_type const& host)
                  { return isOnDemandAlone(host) && announced.count(host.first) == 0; });
}

} // namespace

void dropForgotten(Connection const& connection, SilentHosts& silent)
{
  dropUnannounced(silent, Selection(),
                  [&](Selection const& announcements, RecordSink const& take)
                  { return visitRecords(connection, announcements, take, true); });
}

void dropForgotten(std::string const& master, SilentHosts& silent)
{
  Selection ofMaster;
  ofMaster.master = master;
  dropUnannounced(silent, ofMaster,
                  [](Selection const& announcements, RecordSink const& take)
                  { return visitRecords(announcements, take, true); });
}

} // namespace tqdiscoctl
