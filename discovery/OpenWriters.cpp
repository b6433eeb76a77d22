#include "discovery/OpenWriters.h"

#include "discovery/DiscoveryLog.h"
#include "discovery/Peers.h"
#include "ozf/config/Limits.h"
#include "ozf/orb/Orb.h"

#include <algorithm>
#include <iterator>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Remote
{

namespace
{

constexpr char SOURCE[] = "DiscoveryService_i";
constexpr char RESERVE[] = "OpenWriters::reserve";
constexpr char DROP_IDLE[] = "OpenWriters::dropIdle";

std::string nameOf(Peer const& peer)
{
  return peer.address.empty() ? "this service" : peer.address;
}

} // namespace

std::string resultText(DiscoveryStatus status)
{
  static constexpr char const* NAMES[] = {"DS_SUCCESS",     "DS_NONE_FOUND", "DS_LOGIC_ERROR",
                                          "DS_OPEN_FAILED", "DS_COM_ERROR",  "DS_DATA_EXISTS"};
  if (status == DS_SUCCESS)
    return "stored";
  auto const number = static_cast<std::size_t>(status);
  return std::string("not stored: ") +
         (number < std::size(NAMES) ? NAMES[number] : std::to_string(number).c_str());
}

OpenWriters& getOpenWriters()
{
  // Never destroyed: calls may end after the statics of the process.
  static OpenWriters& all = *new OpenWriters;
  return all;
}

// ---- places ----

OpenWriters::Place::~Place()
{
  if (m_taken)
    return;
  std::lock_guard const guard(m_all.m_mutex);
  m_all.m_entries.erase(m_entry);
}

bool OpenWriters::Place::take(OpenWriter& writer, CORBA::Object_ptr reference)
{
  std::lock_guard const guard(m_all.m_mutex);
  if (m_all.m_closed)
    return false;
  writer._add_ref();
  m_entry->writer = &writer;
  m_entry->keeper = &writer;
  m_entry->reference = CORBA::Object::_duplicate(reference);
  m_entry->lastPut = m_all.m_clock();
  m_taken = true;
  return true;
}

std::unique_ptr<OpenWriters::Place> OpenWriters::reserve(Peer const* peer, AuditedCall const& call)
{
  Peer const opener = peer == nullptr ? Peer() : *peer;
  Limits& limits = getLimits();
  std::size_t all = 0;
  std::size_t ofPeer = 0;
  {
    std::lock_guard const guard(m_mutex);
    all = m_entries.size();
    if (peer != nullptr)
      ofPeer = static_cast<std::size_t>(std::count_if(
          m_entries.begin(), m_entries.end(),
          [&](Entry const& entry) { return entry.opener.address == opener.address; }));
    if (!limits.writers.forbids(all + 1) && !limits.peerWriters.forbids(ofPeer + 1))
    {
      Entry& entry = m_entries.emplace_back();
      entry.opener = opener;
      return std::unique_ptr<Place>(new Place(*this, std::prev(m_entries.end())));
    }
  }
  auditRefusal(peer, call, "too many writers are open already");
  bool const tooManyOfPeer = limits.peerWriters.forbids(ofPeer + 1);
  auto const met = (tooManyOfPeer ? limits.peerWriters : limits.writers).meet(nameOf(opener));
  if (met && tooManyOfPeer)
    OZF_LOG(getOzfLogger(), 1, SOURCE, RESERVE,
            "Refused a discovery of " << nameOf(opener) << ": it has " << ofPeer
                                      << " writers open already" << *met);
  else if (met)
    OZF_LOG(getOzfLogger(), 1, SOURCE, RESERVE,
            "Refused a discovery of " << nameOf(opener) << ": " << all
                                      << " writers are open already" << *met);
  return {};
}

// ---- what becomes of writers ----

OpenWriters::Entries::iterator OpenWriters::find(OpenWriter const& writer)
{
  return std::find_if(m_entries.begin(), m_entries.end(),
                      [&](Entry const& entry) { return entry.writer == &writer; });
}

OpenWriters::Entries::iterator OpenWriters::take(Entries::iterator entry, Entries& taken)
{
  auto const next = std::next(entry);
  taken.splice(taken.end(), m_entries, entry);
  return next;
}

void OpenWriters::drop(Entries& entries)
{
  for (Entry& entry : entries)
  {
    if (Orb* const orb = getPeers().findOrb())
      orb->destroyObjectRef(entry.reference);
    entry.writer->abandon();
  }
  entries.clear();
}

void OpenWriters::notePut(OpenWriter const& writer)
{
  std::lock_guard const guard(m_mutex);
  if (auto const entry = find(writer); entry != m_entries.end())
    entry->lastPut = m_clock();
}

void OpenWriters::noteFailed(OpenWriter const& writer)
{
  Entries dropped;
  {
    std::lock_guard const guard(m_mutex);
    auto const entry = find(writer);
    if (entry == m_entries.end() || entry->failed != 0)
      return;
    entry->failed = ++m_failures;
    auto const isFailed = [](Entry const& each) { return each.failed != 0; };
    if (std::count_if(m_entries.begin(), m_entries.end(), isFailed) >
        static_cast<std::ptrdiff_t>(MOST_FAILED))
    {
      auto oldest = std::find_if(m_entries.begin(), m_entries.end(), isFailed);
      for (auto each = oldest; each != m_entries.end(); ++each)
        if (isFailed(*each) && each->failed < oldest->failed)
          oldest = each;
      take(oldest, dropped);
    }
  }
  drop(dropped);
}

void OpenWriters::remove(OpenWriter const& writer)
{
  Entries removed;
  std::lock_guard const guard(m_mutex);
  if (auto const entry = find(writer); entry != m_entries.end())
    take(entry, removed);
}

void OpenWriters::dropIdle()
{
  Entries idle;
  Entries lost;
  {
    std::lock_guard const guard(m_mutex);
    auto const now = m_clock();
    for (auto entry = m_entries.begin(); entry != m_entries.end();)
    {
      bool const fromNetwork = !entry->opener.address.empty();
      bool const made = entry->writer != nullptr;
      if (made && entry->failed != 0 && fromNetwork && !isConnectionOpen(entry->opener.connection))
        entry = take(entry, lost);
      // A call in progress may wait for another host; this is not to wait for it.
      else if (made && now - entry->lastPut >= MOST_IDLE && !entry->writer->isBusy())
        entry = take(entry, idle);
      else
        ++entry;
    }
  }
  for (Entry const& entry : idle)
    OZF_LOG(getOzfLogger(), 1, SOURCE, DROP_IDLE,
            "Dropped a writer of " << nameOf(entry.opener) << ": nothing was put for "
                                   << MOST_IDLE.count() << " minutes, " << entry.writer->names());
  drop(lost);
  drop(idle);
}

void OpenWriters::close()
{
  Entries all;
  {
    std::lock_guard const guard(m_mutex);
    m_closed = true;
    for (auto entry = m_entries.begin(); entry != m_entries.end();)
      entry = entry->writer == nullptr ? std::next(entry) : take(entry, all);
  }
  drop(all);
}

void OpenWriters::open()
{
  std::lock_guard const guard(m_mutex);
  m_closed = false;
}

std::size_t OpenWriters::size() const
{
  std::lock_guard const guard(m_mutex);
  return m_entries.size();
}

void OpenWriters::setClock(Clock clock)
{
  std::lock_guard const guard(m_mutex);
  m_clock = clock ? std::move(clock) : Clock(&std::chrono::steady_clock::now);
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Remote
