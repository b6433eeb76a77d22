#include "ozf/tls/Handshakes.h"

#include "ozf/base/WakeUp.h"
#include "ozf/log/AuditLog.h"
#include "ozf/log/FrameworkLogger.h"
#include "ozf/tls/RareLines.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>
#include <system_error>
#include <utility>
#include <unistd.h>

namespace Quillon::Tessarine::Ozf
{

namespace
{

constexpr char SOURCE[] = "Handshakes";
// No connection's numbers.
constexpr std::uint64_t STOP = 0;
constexpr std::uint64_t WAKE = std::numeric_limits<std::uint64_t>::max();
constexpr unsigned char RECORD_OF_HANDSHAKE = 0x16;
constexpr char CROWD[] = "too many others have not proven who they are either";
constexpr char LATE[] = "it did not go on with the handshake";
// At least so often, while any is waited for, it is looked for what peers have said.
constexpr int LOOK_MILLISECONDS = 500;
// One of so many turns is for those that have not begun, whoever sends a little on end.
constexpr std::size_t TURNS = 4;

[[noreturn]] void throwError(char const* what)
{
  throw std::system_error(errno, std::generic_category(), what);
}

// A line that there is no memory for is left out: the threads here go on.
void logEnd(std::string const& address, std::string_view reason) noexcept
{
  AuditLog::refuseConnection(address, reason);
  try
  {
    if (refusalLines().admits(address, reason))
      OZF_LOG(getFrameworkLogger(), 1, SOURCE, "Handshakes::work",
              "Ended a connection from " << address << " before any call: " << reason);
  }
  catch (std::exception const&)
  {
  }
}

// Whether it has closed its side, having given up.
bool isGone(int connection)
{
  pollfd state{connection, POLLRDHUP, 0};
  return poll(&state, 1, 0) == 1;
}

void logPlain(std::string const& address)
{
  static RareLines lines(std::chrono::hours(1), 4096);
  if (lines.admits(address))
    OZF_LOG(getFrameworkLogger(), 1, SOURCE, "Handshakes::work",
            address << " calls without TLS, as TLS = both allows");
}

} // namespace

Handshakes::Handshakes(std::function<void()> tell, HandshakeLimits const& limits)
    : m_tell(std::move(tell)),
      m_limits(limits),
      m_epoll(epoll_create1(EPOLL_CLOEXEC)),
      m_stop(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      m_wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      m_addressesWith(limits.ofAddress + 2)
{
  if (!m_epoll.valid() || !m_stop.valid() || !m_wake.valid())
    throwError("epoll");
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u64 = STOP; // it stays readable, for every thread
  if (epoll_ctl(m_epoll.get(), EPOLL_CTL_ADD, m_stop.get(), &event) != 0)
    throwError("epoll_ctl");
  event.data.u64 = WAKE;
  if (epoll_ctl(m_epoll.get(), EPOLL_CTL_ADD, m_wake.get(), &event) != 0)
    throwError("epoll_ctl");
  unsigned const threads = std::clamp(std::thread::hardware_concurrency(), 1U, MOST_THREADS);
  try
  {
    for (unsigned i = 0; i < threads; ++i)
      m_threads.emplace_back([this] { loop(); });
  }
  catch (std::system_error const&)
  {
    if (m_threads.empty())
      throw;
  }
}

Handshakes::~Handshakes()
{
  wakeUp(m_stop.get());
  for (auto& thread : m_threads)
    thread.join();
}

void Handshakes::begin(UniqueFd connection, std::string address,
                       std::shared_ptr<TlsContext const> context)
{
  Entries made;
  made.push_back({0, std::move(connection), std::move(address), std::move(context)});
  Entry& entry = made.front();
  Deadlines deadline;
  deadline.emplace(Clock::now() + m_limits.time, &entry);
  entry.deadline = deadline.extract(deadline.begin());
  std::lock_guard const guard(m_mutex);
  if (!makeRoom(entry.address))
  {
    logEnd(entry.address, CROWD);
    return;
  }
  entry.number = ++m_last;
  m_byNumber.emplace(entry.number, made.begin());
  try
  {
    countIn(entry);
  }
  catch (std::bad_alloc const&)
  {
    m_byNumber.erase(entry.number);
    throw;
  }
  entry.in = &made;
  move(made.begin(), m_entries);
  epoll_event event{};
  event.events = EPOLLIN | EPOLLONESHOT;
  event.data.u64 = entry.number;
  if (epoll_ctl(m_epoll.get(), EPOLL_CTL_ADD, entry.connection.get(), &event) == 0)
  {
    awaitPeer(entry);
    // All threads may be waiting without a time.
    if (m_deadlines.size() == 1)
      wakeUp(m_wake.get());
    return;
  }
  int const failure = errno;
  forget(std::prev(m_entries.end()));
  errno = failure;
  throwError("epoll_ctl");
}

std::optional<Handshakes::Finished> Handshakes::takeFinished()
{
  std::lock_guard const guard(m_mutex);
  if (m_finished.empty())
    return {};
  std::optional<Finished> first(std::move(m_finished.front()));
  m_finished.pop_front();
  return first;
}

void Handshakes::countIn(Entry& entry)
{
  std::size_t& count = m_ofAddress[entry.address];
  entry.ofAddress = &count;
  if (count != 0)
    --m_addressesWith[count];
  ++m_addressesWith[++count];
  m_most = std::max(m_most, count);
}

void Handshakes::move(Entries::iterator entry, Entries& to) noexcept
{
  to.splice(to.end(), *entry->in, entry);
  entry->in = &to;
}

void Handshakes::forget(Entries::iterator entry)
{
  if (entry->deadline.empty())
    m_deadlines.erase(entry->place);
  if (entry->begun)
    --m_begun;
  m_byNumber.erase(entry->number);
  std::size_t& count = *entry->ofAddress;
  --m_addressesWith[count];
  if (--count == 0)
    m_ofAddress.erase(entry->address);
  else
    ++m_addressesWith[count];
  if (m_addressesWith[m_most] == 0)
    --m_most;
  entry->in->erase(entry);
}

void Handshakes::end(Entry const& entry, char const* why)
{
  if (!entry.refused)
    logEnd(entry.address, why);
  forget(m_byNumber.find(entry.number)->second);
}

// Of those that are waited for, and for which the condition holds. Null when there is
// none.
template <class Condition>
Handshakes::Entry* Handshakes::longestWaited(Condition condition)
{
  Entry* first = nullptr;
  for (auto const& [deadline, entry] : m_deadlines)
  {
    if (!condition(*entry))
      continue;
    if (*entry->ofAddress == m_most)
      return entry;
    if (first == nullptr)
      first = entry;
  }
  return first;
}

// False when there is none for one more of the address.
bool Handshakes::makeRoom(std::string const& address)
{
  auto const own = m_ofAddress.find(address);
  std::size_t const count = own == m_ofAddress.end() ? 0 : own->second;
  bool const isCrowded = count != 0 && count >= m_limits.ofAddress;
  if (!isCrowded && m_byNumber.size() < m_limits.all)
    return true;
  noteReady();
  wakeUp(m_wake.get());
  // What an address has beyond that is more than its share.
  std::size_t const share = count + 1;
  auto const lastOfPatient = Clock::now() + m_limits.time - m_limits.patience;
  auto const* const stalled = longestWaited(
      [&](Entry const& entry)
      {
        bool const isOwn = count != 0 && entry.ofAddress == &own->second;
        return (isOwn || !isCrowded) && (entry.place->first <= lastOfPatient ||
                                         (!entry.begun && (isOwn || *entry.ofAddress > share)));
      });
  if (stalled != nullptr)
  {
    end(*stalled, CROWD);
    return true;
  }
  if (isCrowded || m_most <= share)
    return false;
  auto const next = std::find_if(m_toBegin.begin(), m_toBegin.end(),
                                 [&](Entry const& entry) { return *entry.ofAddress == m_most; });
  if (next == m_toBegin.end())
    return false;
  end(*next, CROWD);
  return true;
}

int Handshakes::waitTime()
{
  std::lock_guard const guard(m_mutex);
  if (isTurnOfOne())
    return 0;
  if (m_deadlines.empty())
    return -1;
  auto end = m_deadlines.begin()->first;
  if (!m_toBegin.empty())
    end -= m_limits.time - m_limits.patience;
  auto const left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
  return static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, LOOK_MILLISECONDS));
}

// Of another than those that wait until a handshake has ended.
bool Handshakes::isTurnOfOne() const noexcept
{
  return !m_toGoOn.empty() || (!m_toBegin.empty() && m_begun < m_limits.begun);
}

void Handshakes::expire()
{
  auto const now = Clock::now();
  while (!m_deadlines.empty() && m_deadlines.begin()->first <= now)
    end(*m_deadlines.begin()->second, LATE);
}

// Takes those of which there is something to read or to write for ready. False when
// there is nothing to be done any more.
bool Handshakes::noteReady()
{
  auto const before = std::exchange(m_looked, Clock::now());
  std::array<epoll_event, 64> events{};
  std::size_t count = events.size();
  while (count == events.size())
  {
    int const got = epoll_wait(m_epoll.get(), events.data(), static_cast<int>(events.size()), 0);
    count = static_cast<std::size_t>(std::max(got, 0));
    for (std::size_t i = 0; i < count; ++i)
    {
      auto const number = events[i].data.u64;
      std::uint64_t woken = 0;
      if (number == STOP)
        return false;
      if (number == WAKE) [[maybe_unused]]
        auto const ignored = read(m_wake.get(), &woken, sizeof woken);
      else if (auto const found = m_byNumber.find(number); found != m_byNumber.end())
        queue(found->second, before);
    }
  }
  return true;
}

// What it says may have come at any time since it was looked for last.
void Handshakes::queue(Entries::iterator entry, Clock::time_point since) noexcept
{
  entry->deadline = m_deadlines.extract(entry->place);
  entry->ready = std::max(since, entry->deadline.key() - m_limits.time);
  move(entry, entry->begun ? m_toGoOn : m_toBegin);
}

void Handshakes::awaitPeer(Entry& entry) noexcept
{
  entry.place = m_deadlines.insert(std::move(entry.deadline));
}

void Handshakes::loop()
{
  for (;;)
  {
    pollfd wait{m_epoll.get(), POLLIN, 0};
    poll(&wait, 1, waitTime());
    {
      std::lock_guard const guard(m_mutex);
      if (!noteReady())
        return;
      expire();
    }
    work();
  }
}

// Who has his first turn now, the end of m_toBegin when nobody has. Another may be ended for
// it.
Handshakes::Entries::iterator Handshakes::nextToBegin()
{
  auto next = m_toBegin.begin();
  if (m_begun < m_limits.begun || next == m_toBegin.end())
    return next;
  auto const lastOfPatient = Clock::now() + m_limits.time - m_limits.patience;
  auto const* stalled = longestWaited(
      [&](Entry const& entry) { return entry.begun && entry.place->first <= lastOfPatient; });
  if (stalled == nullptr)
  {
    next = std::find_if(next, m_toBegin.end(),
                        [this](Entry const& entry) { return *entry.ofAddress < m_most; });
    if (next == m_toBegin.end())
      return next;
    stalled = longestWaited([&](Entry const& entry)
                            { return entry.begun && *entry.ofAddress > *next->ofAddress; });
  }
  if (stalled == nullptr)
    return m_toBegin.end();
  end(*stalled, CROWD);
  return next;
}

// The end of m_entries when it is nobody's.
Handshakes::Entries::iterator Handshakes::takeTurn()
{
  if (m_toGoOn.empty() || ++m_turns % TURNS == 0)
  {
    auto const next = nextToBegin();
    if (next != m_toBegin.end())
    {
      next->begun = true;
      ++m_begun;
      next->deadline.key() += Clock::now() - next->ready;
      move(next, m_entries);
      return next;
    }
  }
  if (m_toGoOn.empty())
    return m_entries.end();
  auto const next = m_toGoOn.begin();
  move(next, m_entries);
  return next;
}

Handshakes::Step Handshakes::hearOut(Entry const& entry)
{
  constexpr std::size_t AT_A_TIME = 65536;
  auto const got = recv(entry.connection.get(), nullptr, AT_A_TIME, MSG_TRUNC | MSG_DONTWAIT);
  return got > 0 || (got < 0 && (errno == EAGAIN || errno == EINTR)) ? Step::READ : Step::FAILED;
}

Handshakes::Step Handshakes::step(Entry& entry)
{
  if (entry.refused)
    return hearOut(entry);
  if (!entry.channel)
  {
    unsigned char first = 0;
    auto const got = recv(entry.connection.get(), &first, 1, MSG_PEEK | MSG_DONTWAIT);
    if (got < 0 && (errno == EAGAIN || errno == EINTR))
      return Step::READ;
    if (got <= 0)
      return Step::FAILED; // who asks only whether the port is there
    if (first != RECORD_OF_HANDSHAKE)
    {
      if (entry.context->settings().mode == TlsMode::BOTH)
      {
        logPlain(entry.address);
        return Step::FINISHED;
      }
      logEnd(entry.address, "it does not speak TLS, which TLS = only asks for");
      return Step::FAILED;
    }
    if (isGone(entry.connection.get()))
      return Step::FAILED;
    entry.channel =
        std::make_unique<TlsChannel>(entry.context, TlsChannel::SERVER, entry.connection.get());
  }
  return shakeHands(entry);
}

Handshakes::Step Handshakes::shakeHands(Entry& entry)
{
  switch (entry.channel->handshake())
  {
  case TlsChannel::Progress::DONE:
    return Step::FINISHED;
  case TlsChannel::Progress::READ:
    return Step::READ;
  case TlsChannel::Progress::WRITE:
    return Step::WRITE;
  default:
    logEnd(entry.address, entry.channel->reason());
    return shutdown(entry.connection.get(), SHUT_WR) == 0 ? Step::REFUSED : Step::FAILED;
  }
}

void Handshakes::work()
{
  std::unique_lock lock(m_mutex);
  auto const entry = takeTurn();
  if (entry == m_entries.end())
    return;
  if (isTurnOfOne())
    wakeUp(m_wake.get());
  lock.unlock();
  Step next = Step::FAILED;
  std::list<Finished> finished;
  try
  {
    next = step(*entry);
    if (next == Step::FINISHED)
      finished.emplace_back();
  }
  catch (std::exception const& exception)
  {
    next = Step::FAILED;
    logEnd(entry->address, exception.what());
  }
  lock.lock();
  if (next == Step::REFUSED)
    entry->refused = true;
  if (next == Step::FAILED)
  {
    forget(entry);
    return;
  }
  if (next == Step::FINISHED)
  {
    epoll_ctl(m_epoll.get(), EPOLL_CTL_DEL, entry->connection.get(), nullptr);
    finished.front() = {std::move(entry->connection), std::move(entry->channel)};
    m_finished.splice(m_finished.end(), finished);
    forget(entry);
    lock.unlock();
    m_tell();
    return;
  }
  // Who sends a little on end is never waited for.
  if (entry->deadline.key() <= Clock::now())
  {
    end(*entry, LATE);
    return;
  }
  awaitPeer(*entry);
  epoll_event event{};
  event.events = (next == Step::WRITE ? EPOLLOUT : EPOLLIN) | EPOLLONESHOT;
  event.data.u64 = entry->number;
  epoll_ctl(m_epoll.get(), EPOLL_CTL_MOD, entry->connection.get(), &event);
}

} // namespace Quillon::Tessarine::Ozf
