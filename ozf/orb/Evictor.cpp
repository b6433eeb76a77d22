// The evictor's state lives in the servant locator, which the POA counts: it
// stays there for calls that still run when the Evictor itself goes.
//
// One mutex guards the table. A servant's destructor closes files, so no
// servant is dropped under the mutex: entries leave the table into a local
// list first. A call in progress holds its entry, which is what keeps the
// servant alive when the table forgets it.

#include "ozf/orb/Evictor.h"

#include "ozf/config/Limits.h"
#include "ozf/log/FrameworkLogger.h"
#include "ozf/orb/ObjectKey.h"
#include "ozf/orb/Peer.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace Quillon::Tessarine::Ozf
{

namespace
{

constexpr char SOURCE[] = "Evictor";

using TimePoint = std::chrono::steady_clock::time_point;

// CORBA::OctetSeq and PortableServer::ObjectId are different types.
template <class Sequence>
std::string keyOf(Sequence const& id)
{
  return {reinterpret_cast<char const*>(id.get_buffer()), id.length()};
}

struct Entry
{
  explicit Entry(PortableServer::Servant taken)
      : servant(taken), cost(dynamic_cast<EvictionCost const*>(taken))
  {
    if (Peer const* const peer = currentPeer())
      owner = peer->address;
    servant->_add_ref();
  }
  ~Entry() { servant->_remove_ref(); }
  Entry(Entry const&) = delete;
  Entry& operator=(Entry const&) = delete;

  bool isCostly() const { return cost != nullptr && cost->evictionCost() != 0; }

  PortableServer::Servant const servant;
  EvictionCost const* const cost; // null when it does not say
  std::string owner;              // the peer's address; empty: this process
  bool timed = false;             // a time-out was given
  std::chrono::microseconds timeout{0};
  TimePoint lastUse;
  long calls = 0; // in progress
};

using EntryPtr = std::shared_ptr<Entry>;

} // namespace

class Evictor::Locator : public virtual PortableServer::ServantLocator
{
public:
  explicit Locator(std::size_t capacity) : m_capacity(capacity) {}

  void _add_ref() override { ++m_references; }
  void _remove_ref() override
  {
    if (--m_references == 0)
      delete this;
  }

  PortableServer::Servant preinvoke(PortableServer::ObjectId const& id, PortableServer::POA_ptr,
                                    char const*, Cookie& cookie) override;
  void postinvoke(PortableServer::ObjectId const& id, PortableServer::POA_ptr, char const*,
                  Cookie cookie, PortableServer::Servant) override;

  std::string insert(PortableServer::Servant servant);
  bool start(std::string const& key, std::chrono::microseconds timeout);
  bool remove(std::string const& key, bool deactivate, bool destroy);
  void evictIdle();
  bool dropCostlyIdleLongest();
  void shutdown();
  std::size_t size() const;
  void setClock(Clock clock);

private:
  ~Locator() override = default;

  // Removes the entry idle longest, of those that the condition holds for; null
  // when there is none. Under the mutex.
  template <class Condition>
  EntryPtr takeIdleLongest(Condition const& condition);
  // The same, of an owner who has most.
  EntryPtr takeOfLargestOwner();

  std::atomic<long> m_references{1};
  std::size_t const m_capacity;
  mutable std::mutex m_mutex;
  Clock m_clock = &std::chrono::steady_clock::now;
  bool m_closed = false;
  std::map<std::string, EntryPtr> m_entries;
};

PortableServer::Servant Evictor::Locator::preinvoke(PortableServer::ObjectId const& id,
                                                    PortableServer::POA_ptr, char const*,
                                                    Cookie& cookie)
{
  std::lock_guard guard(m_mutex);
  auto const found = m_entries.find(keyOf(id));
  if (found == m_entries.end())
    throw CORBA::OBJECT_NOT_EXIST(0, CORBA::COMPLETED_NO);
  cookie = new EntryPtr(found->second);
  ++found->second->calls;
  return found->second->servant;
}

void Evictor::Locator::postinvoke(PortableServer::ObjectId const&, PortableServer::POA_ptr,
                                  char const*, Cookie cookie, PortableServer::Servant)
{
  // Destroyed after the guard: it may be the servant's last holder.
  std::unique_ptr<EntryPtr> const entry(static_cast<EntryPtr*>(cookie));
  std::lock_guard guard(m_mutex);
  --(*entry)->calls;
  (*entry)->lastUse = m_clock();
}

template <class Condition>
EntryPtr Evictor::Locator::takeIdleLongest(Condition const& condition)
{
  auto oldest = m_entries.end();
  for (auto i = m_entries.begin(); i != m_entries.end(); ++i)
  {
    Entry const& entry = *i->second;
    if (entry.timed && entry.calls == 0 &&
        (oldest == m_entries.end() || entry.lastUse < oldest->second->lastUse) && condition(entry))
      oldest = i;
  }
  if (oldest == m_entries.end())
    return {};
  EntryPtr taken = std::move(oldest->second);
  m_entries.erase(oldest);
  return taken;
}

EntryPtr Evictor::Locator::takeOfLargestOwner()
{
  std::map<std::string_view, std::size_t> counts;
  std::size_t most = 0;
  for (auto const& entry : m_entries)
    most = std::max(most, ++counts[entry.second->owner]);
  auto taken = takeIdleLongest([&](Entry const& entry) { return counts[entry.owner] == most; });
  return taken ? taken : takeIdleLongest([](Entry const&) { return true; });
}

std::string Evictor::Locator::insert(PortableServer::Servant servant)
{
  auto entry = std::make_shared<Entry>(servant);
  std::string key = makeObjectKey();
  EntryPtr evicted;
  {
    std::lock_guard guard(m_mutex);
    if (m_closed)
      throw CORBA::TRANSIENT(0, CORBA::COMPLETED_NO);
    if (m_capacity != 0 && m_entries.size() >= m_capacity)
    {
      evicted = takeOfLargestOwner();
      if (!evicted)
        throw CORBA::NO_RESOURCES(0, CORBA::COMPLETED_NO);
    }
    entry->lastUse = m_clock();
    m_entries.emplace(key, std::move(entry));
  }
  if (evicted)
  {
    std::string const& owner = evicted->owner;
    if (auto const met = getLimits().iterators.meet(owner.empty() ? "this service" : owner))
      OZF_LOG(getFrameworkLogger(), 1, SOURCE, "Evictor::activate",
              "More than " << m_capacity << " objects in use, dropped the one idle longest"
                           << (owner.empty() ? "" : " of " + owner) << *met);
  }
  return key;
}

bool Evictor::Locator::start(std::string const& key, std::chrono::microseconds timeout)
{
  std::lock_guard guard(m_mutex);
  auto const found = m_entries.find(key);
  if (found == m_entries.end())
    return false;
  found->second->timed = true;
  found->second->timeout = timeout;
  found->second->lastUse = m_clock();
  return true;
}

bool Evictor::Locator::remove(std::string const& key, bool deactivate, bool destroy)
{
  EntryPtr removed;
  std::lock_guard guard(m_mutex);
  auto const found = m_entries.find(key);
  if (found == m_entries.end())
    return false;
  if (!deactivate)
    return true;
  if (!destroy)
    found->second->servant->_add_ref();
  removed = std::move(found->second);
  m_entries.erase(found);
  return true;
}

void Evictor::Locator::evictIdle()
{
  std::vector<EntryPtr> evicted;
  std::lock_guard guard(m_mutex);
  auto const now = m_clock();
  for (auto i = m_entries.begin(); i != m_entries.end();)
  {
    Entry const& entry = *i->second;
    if (entry.timed && entry.calls == 0 && now - entry.lastUse >= entry.timeout)
    {
      evicted.push_back(std::move(i->second));
      i = m_entries.erase(i);
    }
    else
      ++i;
  }
}

bool Evictor::Locator::dropCostlyIdleLongest()
{
  EntryPtr dropped;
  std::lock_guard guard(m_mutex);
  dropped = takeIdleLongest([](Entry const& entry) { return entry.isCostly(); });
  return dropped != nullptr;
}

void Evictor::Locator::shutdown()
{
  std::map<std::string, EntryPtr> dropped;
  std::lock_guard guard(m_mutex);
  m_closed = true;
  dropped.swap(m_entries);
}

std::size_t Evictor::Locator::size() const
{
  std::lock_guard guard(m_mutex);
  return m_entries.size();
}

void Evictor::Locator::setClock(Clock clock)
{
  std::lock_guard guard(m_mutex);
  m_clock = clock ? std::move(clock) : Clock(&std::chrono::steady_clock::now);
}

Evictor::Evictor(PortableServer::POA_ptr poa, std::size_t capacity)
    : m_locator(new Locator(capacity), [](Locator* locator) { locator->_remove_ref(); })
{
  poa->set_servant_manager(m_locator.get());
}

Evictor::~Evictor() { m_locator->shutdown(); }

CORBA::OctetSeq* Evictor::activate(PortableServer::Servant servant)
{
  std::string const key = m_locator->insert(servant);
  auto const length = static_cast<CORBA::ULong>(key.size());
  CORBA::OctetSeq_var id = new CORBA::OctetSeq(length);
  id->length(length);
  std::memcpy(id->get_buffer(), key.data(), key.size());
  return id._retn();
}

void Evictor::addObject(ACE_Time_Value const& timeout, PortableServer::POA_ptr,
                        CORBA::OctetSeq const& objectId, CORBA::OctetSeq const&)
{
  auto const interval =
      std::chrono::seconds(timeout.sec()) + std::chrono::microseconds(timeout.usec());
  if (!m_locator->start(keyOf(objectId), interval))
    throw CORBA::OBJECT_NOT_EXIST(0, CORBA::COMPLETED_NO);
}

bool Evictor::removeObject(CORBA::OctetSeq const& objectId, bool deactivate, bool destroy)
{
  return m_locator->remove(keyOf(objectId), deactivate, destroy);
}

void Evictor::evictIdle() { m_locator->evictIdle(); }

bool Evictor::dropCostlyIdleLongest() { return m_locator->dropCostlyIdleLongest(); }

void Evictor::shutdown() { m_locator->shutdown(); }

std::size_t Evictor::size() const { return m_locator->size(); }

void Evictor::setClock(Clock clock) { m_locator->setClock(std::move(clock)); }

} // namespace Quillon::Tessarine::Ozf
