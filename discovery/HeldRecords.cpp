#include "discovery/HeldRecords.h"

#include "discovery/DiscoveryLog.h"
#include "discovery/Peers.h"
#include "ozf/orb/Orb.h"

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
  std::size_t mostBytes = HeldRecords::MOST_BYTES;
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
    std::size_t mostBytes = 0;
    {
      std::lock_guard const guard(sums.mutex);
      if (sums.records + records <= sums.mostRecords && sums.bytes + bytes <= sums.mostBytes)
      {
        sums.records += records;
        sums.bytes += bytes;
        m_records += records;
        m_bytes += bytes;
        return true;
      }
      mostRecords = sums.mostRecords;
      mostBytes = sums.mostBytes;
    }
    // The list gives back what it has, which takes the mutex.
    if (!dropOneList())
      return false;
    OZF_LOG(getOzfLogger(), 1, "RemoteDB", OPERATION,
            "More than " << mostRecords << " discoveries of other hosts or " << mostBytes
                         << " bytes held for readers, dropped the list of the one idle longest");
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
  sums.mostBytes = bytes == 0 ? MOST_BYTES : bytes;
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
