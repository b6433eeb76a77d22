#include "ozf/tls/Handshakes.h"

#include "ozf/base/WakeUp.h"
#include "ozf/log/AuditLog.h"
#include "ozf/log/FrameworkLogger.h"
#include "ozf/tls/RareLines.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <system_error>
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
      m_wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
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
  made.push_back({0, std::move(connection), std::move(address), std::move(context),
                  Clock::now() + m_limits.time});
  std::lock_guard const guard(m_mutex);
  Entry& entry = made.front();
  makeRoom(entry.address);
  entry.number = ++m_last;
  m_byNumber.emplace(entry.number, made.begin());
  try
  {
    ++m_ofAddress[entry.address];
  }
  catch (std::bad_alloc const&)
  {
    m_byNumber.erase(entry.number);
    throw;
  }
  m_entries.splice(m_entries.end(), made);
  epoll_event event{};
  event.events = EPOLLIN | EPOLLONESHOT;
  event.data.u64 = entry.number;
  if (epoll_ctl(m_epoll.get(), EPOLL_CTL_ADD, entry.connection.get(), &event) == 0)
  {
    // All threads may be waiting without a time.
    if (m_entries.size() == 1)
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

Handshakes::Entries::iterator Handshakes::forget(Entries::iterator entry)
{
  m_byNumber.erase(entry->number);
  auto const count = m_ofAddress.find(entry->address);
  if (--count->second == 0)
    m_ofAddress.erase(count);
  return m_entries.erase(entry);
}

void Handshakes::end(Entries::iterator entry, char const* why)
{
  if (!entry->refused)
    logEnd(entry->address, why);
  if (entry->working)
    entry->ended = true;
  else
    forget(entry);
}

void Handshakes::makeRoom(std::string const& address)
{
  auto const own = m_ofAddress.find(address);
  std::string const* crowded = nullptr;
  if (own != m_ofAddress.end() && own->second >= m_limits.ofAddress)
    crowded = &address;
  else if (m_entries.size() >= m_limits.all)
    crowded = &std::max_element(m_ofAddress.begin(), m_ofAddress.end(),
                                [](auto const& a, auto const& b) { return a.second < b.second; })
                   ->first;
  if (crowded == nullptr)
    return;
  auto const oldest =
      std::find_if(m_entries.begin(), m_entries.end(),
                   [&](Entry const& entry) { return !entry.ended && entry.address == *crowded; });
  if (oldest != m_entries.end())
    end(oldest, "too many others have not proven who they are either");
}

int Handshakes::waitTime()
{
  std::lock_guard const guard(m_mutex);
  if (m_entries.empty())
    return -1;
  auto const left =
      std::chrono::ceil<std::chrono::milliseconds>(m_entries.front().deadline - Clock::now());
  return static_cast<int>(std::max<std::int64_t>(left.count(), 0));
}

void Handshakes::expire()
{
  std::lock_guard const guard(m_mutex);
  auto const now = Clock::now();
  for (auto entry = m_entries.begin(); entry != m_entries.end() && entry->deadline <= now;)
  {
    auto const next = std::next(entry);
    if (entry->refused && !entry->working)
      forget(entry);
    else if (!entry->ended && !entry->working)
      end(entry, "it did not go on with the handshake");
    entry = next;
  }
}

void Handshakes::loop()
{
  for (;;)
  {
    epoll_event event{};
    int const count = epoll_wait(m_epoll.get(), &event, 1, waitTime());
    if (count == 1 && event.data.u64 == STOP)
      return;
    std::uint64_t woken = 0;
    if (count == 1 && event.data.u64 != WAKE)
      work(event.data.u64);
    else if (count == 1 && read(m_wake.get(), &woken, sizeof woken) < 0)
      continue; // another thread has taken it
    expire();
  }
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

void Handshakes::work(Number number)
{
  std::unique_lock lock(m_mutex);
  auto const found = m_byNumber.find(number);
  if (found == m_byNumber.end())
    return;
  auto const entry = found->second;
  entry->working = true;
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
  entry->working = false;
  if (next == Step::REFUSED)
    entry->refused = true;
  if (entry->ended || next == Step::FAILED)
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
  epoll_event event{};
  event.events = (next == Step::WRITE ? EPOLLOUT : EPOLLIN) | EPOLLONESHOT;
  event.data.u64 = number;
  epoll_ctl(m_epoll.get(), EPOLL_CTL_MOD, entry->connection.get(), &event);
}

} // namespace Quillon::Tessarine::Ozf
