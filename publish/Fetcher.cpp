#include "publish/Fetcher.h"

#include "discovery/RemoteDBDrain.h"
#include "tools/Collections.h"

#include <algorithm>
#include <chrono>

namespace Publish
{

using namespace Quillon::Tessarine::Ozf;
using namespace tqdiscoctl;

namespace
{

// A master serves so many callers of one address and more besides; beyond that, two processors
// have enough to do.
constexpr std::size_t AT_A_TIME = 4;
constexpr std::size_t MOST_HELD = std::size_t(1) << 20; // bytes
constexpr std::size_t SMALL = std::size_t(128) << 10;   // bytes
constexpr std::chrono::seconds LONGEST_READ(60);

std::mutex& largeOnes()
{
  static std::mutex mutex;
  return mutex;
}

} // namespace

Fetcher::Fetcher(std::span<Record const> records, std::size_t most)
    : m_records(records), m_most(most), m_slots(records.size())
{
  std::size_t const threads = std::min(AT_A_TIME, records.size());
  for (std::size_t i = 0; i < threads; ++i)
    m_threads.emplace_back([this] { fetchAhead(); });
}

Fetcher::~Fetcher()
{
  {
    std::lock_guard const guard(m_mutex);
    m_isOver = true;
  }
  m_changed.notify_all();
  for (std::thread& thread : m_threads)
    thread.join();
}

bool Fetcher::read(Record const& record, std::size_t most, std::string& bytes) const
{
  DiscoverySvc::ReadDeadline const deadline(LONGEST_READ);
  DiscoverySvc::ReadSize const size(most);
  return readBytes(record, "", bytes);
}

// Records are begun in their order, so that of those that wait to be asked for the first has
// always begun: who waits here for room waits for who asks, and never the other way round.
void Fetcher::fetchAhead()
{
  std::unique_lock lock(m_mutex);
  for (;;)
  {
    m_changed.wait(lock, [this] { return m_isOver || m_held < MOST_HELD; });
    if (m_isOver || m_begun == m_records.size())
      return;
    std::size_t const number = m_begun++;
    lock.unlock();
    Slot slot;
    try
    {
      slot.isThere = !m_records[number].onDemand() &&
                     read(m_records[number], std::min(SMALL, m_most), slot.bytes);
    }
    catch (...)
    {
      slot.isThere = false; // who asks tries again, and meets it
    }
    if (!slot.isThere)
      slot.bytes = {};
    slot.isDone = true;
    lock.lock();
    m_held += slot.bytes.size();
    m_slots[number] = std::move(slot);
    m_changed.notify_all();
  }
}

Fetcher::Payload Fetcher::next()
{
  std::size_t const number = m_asked++;
  Payload payload;
  {
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [&] { return m_slots[number].isDone; });
    payload.isThere = m_slots[number].isThere;
    payload.bytes = std::move(m_slots[number].bytes);
    m_held -= payload.bytes.size();
  }
  m_changed.notify_all();
  if (payload.isThere || m_records[number].onDemand())
    return payload;
  payload.alone = std::unique_lock(largeOnes());
  payload.isThere = read(m_records[number], m_most, payload.bytes);
  if (!payload.isThere)
    payload.bytes = {};
  return payload;
}

} // namespace Publish
