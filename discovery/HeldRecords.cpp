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

bool HeldRecords::add(std::size_t records, std::size_t bytes)
{
  constexpr char const* OPERATION = "HeldRecords::add";
  InAll& sums = inAll();
  for (;;)
  {
    std::size_t mostRecords = 0;
    auto mostBytes = static_cast<std::size_t>(getLimits().answers.value());
    {
      std::lock_guard const guard(sums.mutex);
      mostBytes = sums.mostBytes == 0 ? mostBytes : sums.mostBytes;
      if (sums.records + records <= sums.mostRecords && sums.bytes + bytes <= mostBytes)
      {
        sums.records += records;
        sums.bytes += bytes;
        m_records += records;
        m_bytes += bytes;
        return true;
      }
      mostRecords = sums.mostRecords;
    }
    Peer const* const peer = currentPeer();
    auto const met = getLimits().answers.meet(peer == nullptr ? "this service" : peer->address);
    // The list gives back what it has, which takes the mutex.
    if (!dropOneList())
      return false;
    if (met)
      OZF_LOG(getOzfLogger(), 1, "RemoteDB", OPERATION,
              "More than " << mostRecords << " discoveries of other hosts or " << mostBytes
                           << " bytes held for readers, dropped the list of the one idle longest"
                           << *met);
  }
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
