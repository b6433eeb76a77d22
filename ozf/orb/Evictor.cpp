// The evictor's state lives in the servant locator, which the POA counts: it
// stays there for calls that still run when the Evictor itself goes.
//
// One mutex guards the table. A servant's destructor closes files, so no
// servant is dropped under the mutex: entries leave the table into a local
// list first. A call in progress holds its entry, which is what keeps the
// servant alive when the table forgets it.
//
// Which entry makes room for another is asked for each one that comes while there
// are as many as there may be, so it is known at all times: owners are kept in the
// order of how many entries they have, and of each the idle ones in the order in
// which they became so. A call changes either in the time that a look-up takes.

#include "ozf/orb/Evictor.h"

#include "ozf/config/Limits.h"
#include "ozf/log/FrameworkLogger.h"
#include "ozf/orb/ObjectKey.h"
#include "ozf/orb/Peer.h"

#include <atomic>
#include <cstring>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <utility>
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

struct Owner;

struct Entry
{
  explicit Entry(PortableServer::Servant taken)
      : servant(taken), cost(dynamic_cast<EvictionCost const*>(taken))
  {
    servant->_add_ref();
  }
  ~Entry() { servant->_remove_ref(); }
  Entry(Entry const&) = delete;
  Entry& operator=(Entry const&) = delete;

  bool isCostly() const { return cost != nullptr && cost->evictionCost() != 0; }
  bool isIdle() const { return timed && calls == 0; }

  PortableServer::Servant const servant;
  EvictionCost const* const cost; // null when it does not say
  std::string key;
  bool timed = false; // a time-out was given
  std::chrono::microseconds timeout{0};
  TimePoint lastUse;
  long calls = 0;         // in progress
  Owner* owner = nullptr; // null: the table has forgotten it
  // Itself, which is moved among the idle ones of its owner while it is one of them.
  std::list<Entry*> place{this};
  std::list<Entry*>::iterator const self = place.begin();
};

using EntryPtr = std::shared_ptr<Entry>;

// A peer that has entries in the table.
struct Owner
{
  explicit Owner(std::string peer) : address(std::move(peer)) {}

  std::string const address; // empty: this process
  std::size_t entries = 0;
  std::list<Entry*> idle; // the one idle longest first
};

// Whose entry goes first: of those that have an idle one who has most, and of those
// with as many whose has been idle longest.
struct GoesFirst
{
  bool operator()(Owner const* a, Owner const* b) const
  {
    if (a->idle.empty() || b->idle.empty())
      return a->idle.empty() == b->idle.empty() ? std::less<>()(a, b) : b->idle.empty();
    if (a->entries != b->entries)
      return a->entries > b->entries;
    TimePoint const ofA = a->idle.front()->lastUse;
    TimePoint const ofB = b->idle.front()->lastUse;
    return ofA != ofB ? ofA < ofB : std::less<>()(a, b);
  }
};

// There is no room for one more object of the peer.
[[noreturn]] void refuseObject(std::string const& peer, std::size_t most)
{
  if (auto const met = getLimits().iterators.meet(peer))
    OZF_LOG(getFrameworkLogger(), 1, SOURCE, "Evictor::activate",
            "Refused an object of " << peer << ": all of " << most << " are in calls" << *met);
  throw CORBA::NO_RESOURCES(0, CORBA::COMPLETED_NO);
}

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
  void setLimit(Limit const& limit);

private:
  using Entries = std::map<std::string, EntryPtr>;

  ~Locator() override = default;

  // Under the mutex, all of them.
  std::size_t capacity() const;
  // Changes what the order of the owners goes by. Needs no memory, and change may not
  // throw.
  template <class Change>
  void reorder(Owner& owner, Change const& change) noexcept;
  void add(EntryPtr const& entry, std::string const& address);
  void setIdle(Entry& entry) noexcept;
  void setBusy(Entry& entry) noexcept;
  EntryPtr take(Entries::iterator entry) noexcept;
  EntryPtr takeOfLargestOwner() noexcept;

  std::atomic<long> m_references{1};
  std::size_t const m_capacity;
  Limit const* m_limit = nullptr; // of which the capacity is, if any
  mutable std::mutex m_mutex;
  Clock m_clock = &std::chrono::steady_clock::now;
  bool m_closed = false;
  Entries m_entries;
  std::map<std::string, Owner> m_owners;
  std::set<Owner*, GoesFirst> m_order; // all of them
};

std::size_t Evictor::Locator::capacity() const
{
  return m_limit != nullptr ? static_cast<std::size_t>(m_limit->value()) : m_capacity;
}

template <class Change>
void Evictor::Locator::reorder(Owner& owner, Change const& change) noexcept
{
  auto node = m_order.extract(&owner);
  change();
  m_order.insert(std::move(node));
}

void Evictor::Locator::add(EntryPtr const& entry, std::string const& address)
{
  auto const [owner, isNew] = m_owners.try_emplace(address, address);
  try
  {
    if (isNew)
      m_order.insert(&owner->second);
    m_entries.emplace(entry->key, entry);
  }
  catch (...)
  {
    if (isNew)
    {
      m_order.erase(&owner->second);
      m_owners.erase(owner);
    }
    throw;
  }
  entry->owner = &owner->second;
  reorder(owner->second, [&] { ++entry->owner->entries; });
}

void Evictor::Locator::setIdle(Entry& entry) noexcept
{
  std::list<Entry*>& idle = entry.owner->idle;
  auto const append = [&] { idle.splice(idle.end(), entry.place); };
  if (idle.empty())
    reorder(*entry.owner, append);
  else
    append();
}

void Evictor::Locator::setBusy(Entry& entry) noexcept
{
  std::list<Entry*>& idle = entry.owner->idle;
  auto const leave = [&] { entry.place.splice(entry.place.end(), idle, entry.self); };
  if (idle.front() == &entry)
    reorder(*entry.owner, leave);
  else
    leave();
}

// The entry leaves the table.
EntryPtr Evictor::Locator::take(Entries::iterator entry) noexcept
{
  EntryPtr taken = std::move(entry->second);
  m_entries.erase(entry);
  if (taken->isIdle())
    setBusy(*taken);
  Owner& owner = *std::exchange(taken->owner, nullptr);
  reorder(owner, [&] { --owner.entries; });
  if (owner.entries == 0)
  {
    m_order.erase(&owner);
    m_owners.erase(owner.address);
  }
  return taken;
}

// Null when none is idle. There is an entry.
EntryPtr Evictor::Locator::takeOfLargestOwner() noexcept
{
  if ((*m_order.begin())->idle.empty())
    return {};
  return take(m_entries.find((*m_order.begin())->idle.front()->key));
}

PortableServer::Servant Evictor::Locator::preinvoke(PortableServer::ObjectId const& id,
                                                    PortableServer::POA_ptr, char const*,
                                                    Cookie& cookie)
{
  std::lock_guard guard(m_mutex);
  auto const found = m_entries.find(keyOf(id));
  if (found == m_entries.end())
    throw CORBA::OBJECT_NOT_EXIST(0, CORBA::COMPLETED_NO);
  Entry& entry = *found->second;
  cookie = new EntryPtr(found->second);
  if (entry.isIdle())
    setBusy(entry);
  ++entry.calls;
  return entry.servant;
}

void Evictor::Locator::postinvoke(PortableServer::ObjectId const&, PortableServer::POA_ptr,
                                  char const*, Cookie cookie, PortableServer::Servant)
{
  // Destroyed after the guard: it may be the servant's last holder.
  std::unique_ptr<EntryPtr> const entry(static_cast<EntryPtr*>(cookie));
  std::lock_guard guard(m_mutex);
  --(*entry)->calls;
  (*entry)->lastUse = m_clock();
  if ((*entry)->owner != nullptr && (*entry)->isIdle())
    setIdle(**entry);
}

std::string Evictor::Locator::insert(PortableServer::Servant servant)
{
  auto const entry = std::make_shared<Entry>(servant);
  entry->key = makeObjectKey();
  Peer const* const peer = currentPeer();
  std::vector<EntryPtr> evicted; // more than one after the limit was lowered
  std::string owner;
  std::size_t most = 0;
  bool isFull = false;
  {
    std::lock_guard guard(m_mutex);
    if (m_closed)
      throw CORBA::TRANSIENT(0, CORBA::COMPLETED_NO);
    most = capacity();
    while (most != 0 && m_entries.size() >= most && !isFull)
    {
      owner = (*m_order.begin())->address;
      evicted.emplace_back();
      evicted.back() = takeOfLargestOwner();
      isFull = !evicted.back();
    }
    if (!isFull)
    {
      entry->lastUse = m_clock();
      add(entry, peer == nullptr ? std::string() : peer->address);
    }
  }
  if (isFull)
    refuseObject(peer == nullptr ? "this service" : peer->address, most);
  if (!evicted.empty())
    if (auto const met = getLimits().iterators.meet(owner.empty() ? "this service" : owner))
      OZF_LOG(getFrameworkLogger(), 1, SOURCE, "Evictor::activate",
              "More than " << most << " objects in use, dropped the one idle longest"
                           << (owner.empty() ? "" : " of " + owner) << *met);
  return entry->key;
}

bool Evictor::Locator::start(std::string const& key, std::chrono::microseconds timeout)
{
  std::lock_guard guard(m_mutex);
  auto const found = m_entries.find(key);
  if (found == m_entries.end())
    return false;
  Entry& entry = *found->second;
  if (entry.isIdle())
    setBusy(entry);
  entry.timed = true;
  entry.timeout = timeout;
  entry.lastUse = m_clock();
  if (entry.isIdle())
    setIdle(entry);
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
  removed = take(found);
  return true;
}

void Evictor::Locator::evictIdle()
{
  std::vector<EntryPtr> evicted;
  std::lock_guard guard(m_mutex);
  auto const now = m_clock();
  for (auto i = m_entries.begin(); i != m_entries.end();)
  {
    auto const each = i++;
    Entry const& entry = *each->second;
    if (!entry.isIdle() || now - entry.lastUse < entry.timeout)
      continue;
    evicted.emplace_back();
    evicted.back() = take(each);
  }
}

bool Evictor::Locator::dropCostlyIdleLongest()
{
  EntryPtr dropped;
  std::lock_guard guard(m_mutex);
  auto oldest = m_entries.end();
  for (auto i = m_entries.begin(); i != m_entries.end(); ++i)
  {
    Entry const& entry = *i->second;
    if (entry.isIdle() && entry.isCostly() &&
        (oldest == m_entries.end() || entry.lastUse < oldest->second->lastUse))
      oldest = i;
  }
  if (oldest != m_entries.end())
    dropped = take(oldest);
  return dropped != nullptr;
}

void Evictor::Locator::shutdown()
{
  Entries dropped;
  std::lock_guard guard(m_mutex);
  m_closed = true;
  for (auto const& each : m_entries)
    each.second->owner = nullptr;
  m_order.clear();
  m_owners.clear();
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

void Evictor::Locator::setLimit(Limit const& limit)
{
  std::lock_guard guard(m_mutex);
  m_limit = &limit;
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

void Evictor::setLimit(Limit const& limit) { m_locator->setLimit(limit); }

void Evictor::setClock(Clock clock) { m_locator->setClock(std::move(clock)); }

} // namespace Quillon::Tessarine::Ozf
