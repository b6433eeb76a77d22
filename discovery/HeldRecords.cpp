#include "discovery/HeldRecords.h"

#include "discovery/DiscoveryLog.h"
#include "discovery/Peers.h"
#include "ozf/config/Limits.h"
#include "ozf/orb/Orb.h"
#include "ozf/orb/Peer.h"

#include <mutex>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

namespace
{

struct InAll
{
  std::mutex mutex;
  std::size_t records = 0;
  std::size_t bytes = 0;
  std::size_t mostRecords = HeldRecords::MOST_RECORDS;
  std::size_t mostBytes = 0; // 0: as the limit says
};

InAll& inAll()
{
  // Never destroyed: lists may outlive the statics of the process.
  static InAll& sums = *new InAll;
  return sums;
}

// Lets the list of the reader idle longest go; false when there is none.
bool dropOneList()
{
  Orb* const orb = getPeers().findOrb();
  if (orb == nullptr || !orb->isEvictorEnabled())
    return false;
  try
  {
    return orb->getEvictor().dropCostlyIdleLongest();
  }
  catch (CORBA::BAD_INV_ORDER const&)
  {
    return false; // the ORB is down
  }
}

} // namespace

bool HeldRecords::take(std::size_t records, std::size_t bytes, Most& most)
{
  InAll& sums = inAll();
  std::lock_guard const guard(sums.mutex);
  most.records = sums.mostRecords;
  most.bytes =
      sums.mostBytes == 0 ? static_cast<std::size_t>(getLimits().answers.value()) : sums.mostBytes;
  if (sums.records + records > most.records || sums.bytes + bytes > most.bytes)
    return false;
  sums.records += records;
  sums.bytes += bytes;
  m_records += records;
  m_bytes += bytes;
  return true;
}

bool HeldRecords::add(std::size_t records, std::size_t bytes)
{
  constexpr char const* OPERATION = "HeldRecords::add";
  Most most;
  bool fits = take(records, bytes, most);
  if (fits)
    return true;
  // A list gives back what it has, which takes the mutex.
  while (!fits && dropOneList())
    fits = take(records, bytes, most);
  Peer const* const peer = currentPeer();
  std::string const reader = peer == nullptr ? "this service" : peer->address;
  // Once for each call, when its end is known: who is refused has its line, whatever
  // has been dropped before.
  if (auto const met = getLimits().answers.meet(reader))
    OZF_LOG(getOzfLogger(), 1, "RemoteDB", OPERATION,
            "More than " << most.records << " discoveries of other hosts or " << most.bytes
                         << " bytes held for readers, "
                         << (fits ? "dropped the list of the one idle longest for a query of "
                                  : "no list of another can go for a query of ")
                         << reader << (fits ? "" : ", which fails") << *met);
  return fits;
}

void HeldRecords::remove(std::size_t records, std::size_t bytes)
{
  m_records -= records;
  m_bytes -= bytes;
  InAll& sums = inAll();
  std::lock_guard const guard(sums.mutex);
  sums.records -= records;
  sums.bytes -= bytes;
}

void HeldRecords::setMost(std::size_t records, std::size_t bytes)
{
  InAll& sums = inAll();
  std::lock_guard const guard(sums.mutex);
  sums.mostRecords = records == 0 ? MOST_RECORDS : records;
  sums.mostBytes = bytes;
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
