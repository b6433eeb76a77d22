#include "ozf/orb/ConnectionWatcher.h"

#include "ozf/base/WakeUp.h"
#include "ozf/config/Limits.h"
#include "ozf/log/FrameworkLogger.h"
#include "ozf/plugin/CurrentException.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <list>
#include <system_error>

namespace Quillon::Tessarine::Ozf
{

namespace
{

constexpr char SOURCE[] = "ConnectionWatcher";
constexpr ConnectionNumber WAKE = 0; // no connection's number
constexpr std::size_t EVENTS = 64;
constexpr int MOST_ATTEMPTS = 100;
// Until memory may be there again.
constexpr auto SHORT_OF_MEMORY = std::chrono::milliseconds(10);

void logStall(std::string const& address)
{
  static std::time_t lastLine = 0; // one a second: it is likely to be a flood
  std::time_t const now = std::time(nullptr);
  if (now == lastLine)
    return;
  lastLine = now;
  OZF_LOG(getFrameworkLogger(), 1, SOURCE, "ConnectionWatcher::checkProgress",
          "Ended a connection from " << address << ", its request did not go on");
}

// What is kept waiting is answered in the end, but others of its peer wait with it.
void noteCrowd(std::string const& address, std::size_t calls)
{
  if (auto const met = getLimits().peerCalls.meet(address))
    OZF_LOG(getFrameworkLogger(), 1, SOURCE, "ConnectionWatcher::handle",
            "Kept a request of " << address << " waiting: " << calls
                                 << " of its calls are in progress" << *met);
}

void noteTooMany(std::string const& address)
{
  Limits& limits = getLimits();
  if (auto const met = limits.peerRequests.meet(address))
    OZF_LOG(getFrameworkLogger(), 1, SOURCE, "ConnectionWatcher::handle",
            "Refused a request of " << address << ": it makes more than "
                                    << limits.peerRequests.value() << " a second" << *met);
}

[[noreturn]] void throwError(char const* what)
{
  throw std::system_error(errno, std::generic_category(), what);
}

} // namespace

ConnectionWatcher::ConnectionWatcher(WatchLimits const& limits)
    : m_limits(limits),
      m_epoll(epoll_create1(EPOLL_CLOEXEC)),
      m_wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
  if (!m_epoll.valid() || !m_wake.valid())
    throwError("epoll");
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u64 = WAKE;
  if (epoll_ctl(m_epoll.get(), EPOLL_CTL_ADD, m_wake.get(), &event) != 0)
    throwError("epoll_ctl");
  m_thread = std::thread([this] { loop(); });
}

ConnectionWatcher::~ConnectionWatcher() { stop(); }

void ConnectionWatcher::allow(HandOver receiver, void* cookie)
{
  {
    std::lock_guard gate(m_gate);
    m_handOver = receiver;
    m_cookie = cookie;
    m_allowed = true;
  }
  m_gateChanged.notify_all();
}

void ConnectionWatcher::forbid()
{
  std::unique_lock gate(m_gate);
  m_allowed = false;
  m_gateChanged.wait(gate, [this] { return !m_passing; });
}

bool ConnectionWatcher::enter()
{
  std::unique_lock gate(m_gate);
  m_gateChanged.wait(gate, [this] { return m_ending || m_allowed; });
  m_passing = !m_ending;
  return m_passing;
}

void ConnectionWatcher::leave() noexcept
{
  {
    std::lock_guard gate(m_gate);
    m_passing = false;
  }
  m_gateChanged.notify_all();
}

void ConnectionWatcher::stop() noexcept
{
  {
    std::lock_guard gate(m_gate);
    m_ending = true;
  }
  m_gateChanged.notify_all();
  wake();
  if (m_thread.joinable())
    m_thread.join();
}

void ConnectionWatcher::add(WatchedConnection& connection)
{
  std::lock_guard guard(m_mutex);
  auto const number = connection.peer().connection;
  Address& address = m_addresses[connection.peer().address];
  Entry entry{};
  entry.connection = &connection;
  entry.address = &address;
  m_entries.emplace(number, entry);
  ++address.connections;
  epoll_event event{};
  event.data.u64 = number;
  if (epoll_ctl(m_epoll.get(), EPOLL_CTL_ADD, connection.descriptor(), &event) == 0)
    return;
  int const failure = errno;
  m_entries.erase(number);
  if (--address.connections == 0)
    m_addresses.erase(connection.peer().address);
  errno = failure;
  throwError("epoll_ctl");
}

void ConnectionWatcher::remove(WatchedConnection const& connection) noexcept
{
  std::lock_guard guard(m_mutex);
  auto const found = m_entries.find(connection.peer().connection);
  if (found == m_entries.end())
    return;
  epoll_ctl(m_epoll.get(), EPOLL_CTL_DEL, connection.descriptor(), nullptr);
  release(found->second);
  Address* const address = found->second.address;
  m_entries.erase(found);
  if (--address->connections != 0)
    return;
  m_waiting.erase(address);
  m_addresses.erase(connection.peer().address);
}

void ConnectionWatcher::watch(WatchedConnection& connection) noexcept
{
  auto const arrived = connection.arrived();
  bool const isThere =
      (arrived != WatchedConnection::NOTHING && arrived != WatchedConnection::PART) ||
      connection.holdsBytes();
  std::lock_guard guard(m_mutex);
  auto const found = m_entries.find(connection.peer().connection);
  if (found == m_entries.end())
    return;
  Entry& entry = found->second;
  release(entry);
  try
  {
    note(entry, arrived);
    listen(entry, isThere);
  }
  catch (std::exception const&)
  {
    // Without memory to keep its time by it cannot stay.
    connection.abandon();
    listen(entry, true);
  }
}

bool ConnectionWatcher::admitLarge(WatchedConnection& connection) noexcept
{
  std::lock_guard guard(m_mutex);
  auto const found = m_entries.find(connection.peer().connection);
  if (found == m_entries.end() || m_large >= m_limits.largeRequests ||
      found->second.address->large >= m_limits.largeRequestsOfAddress)
    return false;
  try
  {
    note(found->second, WatchedConnection::LARGE);
  }
  catch (std::exception const&)
  {
    return false;
  }
  // Last, as one that is not admitted is counted when it comes again.
  if (RequestRate* const rate = connection.rate(); rate != nullptr && !rate->admits(Clock::now()))
    return false;
  found->second.large = true;
  ++found->second.address->large;
  ++m_large;
  return true;
}

void ConnectionWatcher::largeIsRead(WatchedConnection const& connection) noexcept
{
  std::lock_guard guard(m_mutex);
  auto const found = m_entries.find(connection.peer().connection);
  if (found == m_entries.end())
    return;
  found->second.unfinished = false;
  releaseLarge(found->second);
}

std::size_t ConnectionWatcher::callsOfAddress() const noexcept
{
  return m_limits.callsOfAddress != 0 ? m_limits.callsOfAddress
                                      : static_cast<std::size_t>(getLimits().peerCalls.value());
}

bool ConnectionWatcher::admit(Entry& entry, WatchedConnection::Arrived arrived) noexcept
{
  Address& address = *entry.address;
  bool const large = arrived == WatchedConnection::LARGE;
  if (address.calls >= callsOfAddress() ||
      (large &&
       (m_large >= m_limits.largeRequests || address.large >= m_limits.largeRequestsOfAddress)))
    return false;
  entry.calling = true;
  entry.waiting = WatchedConnection::NOTHING;
  ++address.calls;
  if (large)
  {
    entry.large = true;
    ++address.large;
    ++m_large;
    // The time that it waited does not count.
    entry.since = Clock::now();
  }
  return true;
}

void ConnectionWatcher::releaseLarge(Entry& entry) noexcept
{
  if (!entry.large)
    return;
  entry.large = false;
  --entry.address->large;
  --m_large;
  if (!m_waiting.empty())
    wake();
}

void ConnectionWatcher::release(Entry& entry) noexcept
{
  releaseLarge(entry);
  if (!entry.calling)
    return;
  entry.calling = false;
  --entry.address->calls;
  if (!m_waiting.empty())
    wake();
}

void ConnectionWatcher::note(Entry& entry, WatchedConnection::Arrived arrived)
{
  bool const unfinished = arrived == WatchedConnection::PART || arrived == WatchedConnection::LARGE;
  if (unfinished && !entry.unfinished)
  {
    entry.since = Clock::now();
    entry.receivedThen = entry.connection->received();
    if (!entry.checked)
    {
      m_checks.emplace(entry.since + m_limits.stall, entry.connection->peer().connection);
      entry.checked = true;
      if (m_checks.size() == 1)
        wake();
    }
  }
  entry.unfinished = unfinished;
}

void ConnectionWatcher::listen(Entry const& entry, bool atOnce) noexcept
{
  epoll_event event{};
  event.events = EPOLLIN | EPOLLRDHUP | EPOLLONESHOT;
  // What has been read already makes no event of its own. To a peer that leaves
  // its answers unread nothing can be written, and it gets no further ones.
  if (atOnce)
    event.events |= EPOLLOUT;
  event.data.u64 = entry.connection->peer().connection;
  // One that nobody listens to would keep its peer waiting.
  int attempts = MOST_ATTEMPTS;
  while (epoll_ctl(m_epoll.get(), EPOLL_CTL_MOD, entry.connection->descriptor(), &event) != 0 &&
         attempts > 0)
    --attempts;
}

void ConnectionWatcher::wake() noexcept { wakeUp(m_wake.get()); }

int ConnectionWatcher::waitTime()
{
  std::lock_guard guard(m_mutex);
  auto next = Clock::time_point::max();
  for (auto const* const times : {&m_checks, &m_turns})
    if (!times->empty())
      next = std::min(next, times->begin()->first);
  if (next == Clock::time_point::max())
    return -1;
  auto const left = std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now());
  return static_cast<int>(std::max<std::int64_t>(left.count(), 0));
}

void ConnectionWatcher::loop()
{
  std::array<epoll_event, EVENTS> events{};
  while (true)
  {
    int const count =
        epoll_wait(m_epoll.get(), events.data(), static_cast<int>(events.size()), waitTime());
    for (int i = 0; i < count; ++i)
    {
      std::uint64_t woken = 0;
      auto const number = events[static_cast<std::size_t>(i)].data.u64;
      if (number == WAKE && read(m_wake.get(), &woken, sizeof woken) < 0)
        continue;
      Passage const passage(*this);
      if (!passage)
        return;
      if (number != WAKE)
        handle(number);
      while (auto* const connection = number == WAKE ? admitWaiting() : nullptr)
        handOver(*connection);
    }
    try
    {
      if (isTurn())
      {
        Passage const passage(*this);
        if (!passage)
          return;
        while (auto* const connection = takeTurn())
          handOver(*connection);
      }
      checkProgress();
    }
    catch (std::exception const&)
    {
      std::this_thread::sleep_for(SHORT_OF_MEMORY);
    }
  }
}

void ConnectionWatcher::handle(ConnectionNumber number)
{
  std::unique_lock lock(m_mutex);
  auto const found = m_entries.find(number);
  if (found == m_entries.end())
    return;
  Entry& entry = found->second; // stays while it is watched
  WatchedConnection& connection = *entry.connection;
  lock.unlock();
  enum
  {
    HANDED_OVER,
    KEPT,
    CROWDED, // and so kept
    TOO_MANY // and so kept to be refused
  } outcome = KEPT;
  try
  {
    auto const arrived = connection.readAvailable();
    lock.lock();
    note(entry, arrived);
    if (arrived == WatchedConnection::NOTHING || arrived == WatchedConnection::PART)
    {
      listen(entry, false);
      return;
    }
    auto const turn = turnOf(entry, arrived);
    outcome = turn == NOW && admitOrQueue(entry, arrived)               ? HANDED_OVER
              : turn == NEVER                                           ? TOO_MANY
              : turn == NOW && entry.address->calls >= callsOfAddress() ? CROWDED
                                                                        : KEPT;
  }
  catch (std::exception const&)
  {
    if (!lock.owns_lock())
      lock.lock();
    listen(entry, true);
    lock.unlock();
    std::this_thread::sleep_for(SHORT_OF_MEMORY);
    return;
  }
  lock.unlock();
  switch (outcome)
  {
  case HANDED_OVER:
    handOver(connection);
    break;
  case CROWDED:
    noteCrowd(connection.peer().address, callsOfAddress());
    break;
  case TOO_MANY:
    noteTooMany(connection.peer().address);
    break;
  case KEPT:
    break;
  }
}

void ConnectionWatcher::handOver(WatchedConnection& connection) noexcept
{
  auto const number = connection.peer().connection;
  try
  {
    m_handOver(m_cookie, connection);
    return;
  }
  catch (...)
  {
  }
  // No thread has it, so it is still there.
  {
    std::lock_guard guard(m_mutex);
    auto const found = m_entries.find(number);
    if (found == m_entries.end())
      return;
    release(found->second);
    listen(found->second, true);
  }
  std::this_thread::sleep_for(SHORT_OF_MEMORY);
}

// When it is not now, the connection waits.
ConnectionWatcher::Turn ConnectionWatcher::turnOf(Entry& entry, WatchedConnection::Arrived arrived)
{
  WatchedConnection& connection = *entry.connection;
  RequestRate* const rate = connection.rate();
  if (rate == nullptr || arrived == WatchedConnection::ENDED)
    return NOW;
  auto const now = Clock::now();
  auto const turn = rate->reserve(now);
  connection.setTooMany(!turn);
  if (turn && *turn <= now)
    return NOW;
  // Who is refused waits as well, or would only ask again the sooner.
  std::chrono::milliseconds const longest(getLimits().requestWait.value());
  m_turns.emplace(turn.value_or(now + longest), connection.peer().connection);
  entry.waiting = arrived;
  return turn ? LATER : NEVER;
}

// False when it has to wait for others of its address.
bool ConnectionWatcher::admitOrQueue(Entry& entry, WatchedConnection::Arrived arrived)
{
  if (admit(entry, arrived))
    return true;
  entry.address->waiting.push_back(entry.connection->peer().connection);
  m_waiting.insert(entry.address);
  entry.waiting = arrived;
  return false;
}

bool ConnectionWatcher::isTurn()
{
  std::lock_guard guard(m_mutex);
  return !m_turns.empty() && m_turns.begin()->first <= Clock::now();
}

// The next of those whose turn it is and that are admitted; null when there is none.
WatchedConnection* ConnectionWatcher::takeTurn()
{
  std::lock_guard guard(m_mutex);
  auto const now = Clock::now();
  while (!m_turns.empty() && m_turns.begin()->first <= now)
  {
    auto const found = m_entries.find(m_turns.begin()->second);
    bool const admitted =
        found != m_entries.end() && admitOrQueue(found->second, found->second.waiting);
    m_turns.erase(m_turns.begin());
    if (admitted)
      return found->second.connection;
  }
  return nullptr;
}

WatchedConnection* ConnectionWatcher::admitWaiting() noexcept
{
  std::lock_guard guard(m_mutex);
  for (auto i = m_waiting.begin(); i != m_waiting.end();)
  {
    auto& waiting = (*i)->waiting;
    for (; !waiting.empty(); waiting.pop_front())
    {
      auto const found = m_entries.find(waiting.front());
      if (found == m_entries.end() || found->second.waiting == WatchedConnection::NOTHING)
        continue;
      if (!admit(found->second, found->second.waiting))
        break;
      waiting.pop_front();
      return found->second.connection;
    }
    i = waiting.empty() ? m_waiting.erase(i) : std::next(i);
  }
  return nullptr;
}

void ConnectionWatcher::checkProgress()
{
  std::list<std::string> ended; // addresses
  std::unique_lock lock(m_mutex);
  auto const now = Clock::now();
  while (!m_checks.empty() && m_checks.begin()->first <= now)
  {
    auto check = m_checks.extract(m_checks.begin());
    auto const found = m_entries.find(check.mapped());
    if (found == m_entries.end())
      continue;
    Entry& entry = found->second;
    if (entry.unfinished && entry.since + m_limits.stall <= now)
    {
      std::uint64_t const received = entry.connection->received();
      // What waits is not read.
      if (entry.waiting == WatchedConnection::NOTHING &&
          received - entry.receivedThen < m_limits.leastProgress)
      {
        entry.unfinished = false;
        entry.connection->abandon();
        if (ended.empty())
          ended.push_back(entry.connection->peer().address);
      }
      entry.receivedThen = received;
      entry.since = now;
    }
    entry.checked = entry.unfinished;
    if (!entry.unfinished)
      continue;
    check.key() = entry.since + m_limits.stall;
    m_checks.insert(std::move(check));
  }
  lock.unlock();
  if (!ended.empty())
    logStall(ended.front());
}

} // namespace Quillon::Tessarine::Ozf
