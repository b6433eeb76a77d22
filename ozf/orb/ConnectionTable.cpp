#include "ozf/orb/ConnectionTable.h"

#include "ozf/base/LineIfMemory.h"
#include "ozf/log/FrameworkLogger.h"
#include "ozf/plugin/CurrentException.h"

namespace Quillon::Tessarine::Ozf
{

namespace
{

constexpr char SOURCE[] = "ConnectionTable";

thread_local Peer const* peerOfThread = nullptr;

} // namespace

ConnectionTable& ConnectionTable::instance()
{
  // Never destroyed: connections may outlast the static objects.
  static auto* const table = new ConnectionTable;
  return *table;
}

void ConnectionTable::start()
{
  m_ending = false;
  m_thread = std::thread([this] { loop(); });
}

void ConnectionTable::stop() noexcept
{
  if (!m_thread.joinable())
    return;
  {
    std::lock_guard guard(m_mutex);
    m_ending = true;
  }
  m_changed.notify_all();
  m_thread.join();
}

std::list<Peer> ConnectionTable::add(std::string address, std::size_t limit)
{
  std::list<Peer> peer(1);
  peer.front().address = std::move(address);
  std::lock_guard guard(m_mutex);
  auto const count = m_ofAddress.try_emplace(peer.front().address).first;
  if (count->second >= limit)
    return {};
  peer.front().connection = ++m_last;
  m_open.insert(m_last);
  ++count->second;
  return peer;
}

void ConnectionTable::remove(std::list<Peer>& peer) noexcept
{
  std::lock_guard guard(m_mutex);
  m_open.erase(peer.front().connection);
  auto const count = m_ofAddress.find(peer.front().address);
  if (count != m_ofAddress.end() && --count->second == 0)
    m_ofAddress.erase(count);
  if (m_observers.empty())
    return;
  m_gone.splice(m_gone.end(), peer);
  m_changed.notify_all();
}

bool ConnectionTable::isOpen(ConnectionNumber connection) const noexcept
{
  std::lock_guard guard(m_mutex);
  return m_open.contains(connection);
}

std::size_t ConnectionTable::size() const noexcept
{
  std::lock_guard guard(m_mutex);
  return m_open.size();
}

std::uint64_t ConnectionTable::taken() const noexcept
{
  std::lock_guard guard(m_mutex);
  return m_last; // they are numbered
}

void ConnectionTable::observe(Observer const& observer)
{
  std::lock_guard guard(m_mutex);
  m_observers.push_back(observer);
}

void ConnectionTable::leave(Observer const& observer) noexcept
{
  std::unique_lock lock(m_mutex);
  m_changed.wait(lock, [&] { return m_told != observer; });
  m_observers.remove(observer);
}

void ConnectionTable::loop()
{
  std::unique_lock lock(m_mutex);
  while (!m_ending || !m_gone.empty())
  {
    m_changed.wait(lock, [this] { return m_ending || !m_gone.empty(); });
    while (!m_gone.empty())
      tell(lock);
  }
}

void ConnectionTable::tell(std::unique_lock<std::mutex>& lock)
{
  std::list<Peer> gone;
  gone.splice(gone.end(), m_gone, m_gone.begin());
  // An observer does not leave the list while it is being told.
  for (auto const& observer : m_observers)
  {
    m_told = observer;
    lock.unlock();
    try
    {
      (*m_told)(gone.front());
    }
    catch (...)
    {
      lineIfMemory(
          []
          {
            OZF_LOG(
                getFrameworkLogger(), 1, SOURCE, "ConnectionTable::tell",
                "Caught exception telling that a connection has gone: " << currentExceptionText());
          });
    }
    lock.lock();
    m_told.reset();
    m_changed.notify_all();
  }
}

PeerOfCall::PeerOfCall(Peer const* peer) noexcept : m_before(peerOfThread) { peerOfThread = peer; }

PeerOfCall::~PeerOfCall() { peerOfThread = m_before; }

Peer const* currentPeer() noexcept { return peerOfThread; }

bool isConnectionOpen(ConnectionNumber connection) noexcept
{
  return ConnectionTable::instance().isOpen(connection);
}

ConnectionObserver::ConnectionObserver(Gone gone) : m_gone(std::make_shared<Gone>(std::move(gone)))
{
  ConnectionTable::instance().observe(m_gone);
}

ConnectionObserver::~ConnectionObserver() { ConnectionTable::instance().leave(m_gone); }

} // namespace Quillon::Tessarine::Ozf
