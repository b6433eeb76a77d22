#include "tests/torture/MutatingProxy.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <optional>
#include <stdexcept>

namespace tqtorture
{
namespace
{

namespace giop = tqtest::giop;
using Clock = std::chrono::steady_clock;

constexpr int LOOK_MILLISECONDS = 50;
constexpr std::uint32_t MOST_SPARED = 16;

sockaddr_in endPoint(std::string const& address, unsigned short port)
{
  sockaddr_in name{};
  name.sin_family = AF_INET;
  name.sin_port = htons(port);
  inet_pton(AF_INET, address.c_str(), &name.sin_addr);
  return name;
}

sockaddr const* plain(sockaddr_in const& name) { return reinterpret_cast<sockaddr const*>(&name); }

// The first whole record of TLS; what is none is taken as one.
std::optional<std::string> takeRecord(std::string& bytes)
{
  constexpr std::size_t RECORD_HEADER = 5;
  constexpr std::size_t LARGEST_RECORD = (1 << 14) + 2048;
  if (bytes.size() < RECORD_HEADER)
    return std::nullopt;
  std::size_t size = RECORD_HEADER + static_cast<unsigned char>(bytes[3]) * 256U +
                     static_cast<unsigned char>(bytes[4]);
  if (size > LARGEST_RECORD)
    size = bytes.size();
  if (bytes.size() < size)
    return std::nullopt;
  std::string record = bytes.substr(0, size);
  bytes.erase(0, size);
  return record;
}

// The record is not empty.
giop::Mutator::Messages mutateRecord(std::string record, giop::Mutator& mutator)
{
  auto const size = static_cast<std::uint32_t>(record.size());
  switch (mutator.below(6))
  {
  case 0:
    return {};
  case 1:
    return {record, record};
  case 2:
    return {record.substr(0, mutator.below(size))};
  case 3:
    record[mutator.below(std::min(size, 5U))] = static_cast<char>(mutator.below(256));
    break;
  case 4:
    record.append(1 + mutator.below(40), static_cast<char>(mutator.below(256)));
    break;
  default:
    record[mutator.below(size)] =
        static_cast<char>(record[mutator.below(size)] ^ (1 << mutator.below(8)));
    break;
  }
  return {record};
}

} // namespace

// One connection, in a thread of its own.
class MutatingProxy::Relay
{
public:
  Relay(MutatingProxy& proxy, int caller, int called, std::uint32_t seed)
      : m_proxy(proxy),
        m_ends{caller, called},
        m_mutator(seed),
        m_spared(m_mutator.below(MOST_SPARED))
  {
  }
  ~Relay()
  {
    linger const atOnce{1, 0};
    for (int const end : m_ends)
    {
      if (m_isCut)
        setsockopt(end, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
      close(end);
    }
  }
  Relay(Relay const&) = delete;
  Relay& operator=(Relay const&) = delete;

  void run()
  {
    while (!m_proxy.m_ending && !m_isCut && (m_isOpen[0] || m_isOpen[1]) && !isStuck())
    {
      std::array<pollfd, 2> waits{};
      for (std::size_t i = 0; i < 2; ++i)
        waits[i] = {m_isOpen[i] ? m_ends[i] : -1, POLLIN, 0};
      if (poll(waits.data(), waits.size(), LOOK_MILLISECONDS) <= 0)
        continue;
      for (std::size_t i = 0; i < 2; ++i)
        if (waits[i].revents != 0 && !pass(i))
          return;
    }
  }

private:
  bool isStuck() const
  {
    return m_lastChange && Clock::now() - m_lastBytes > m_proxy.m_options.patience;
  }

  // What one end says, on to the other one. False when that is gone.
  bool pass(std::size_t from)
  {
    std::array<char, 65536> buffer;
    ssize_t const got = recv(m_ends[from], buffer.data(), buffer.size(), 0);
    if (got < 0)
      return errno == EINTR;
    std::string& held = m_held[from];
    if (got == 0)
    {
      m_isOpen[from] = false;
      bool const sent = send(from, held);
      shutdown(m_ends[1 - from], SHUT_WR);
      return sent;
    }
    m_lastBytes = Clock::now();
    held.append(buffer.data(), static_cast<std::size_t>(got));
    bool const isPlain = m_proxy.m_options.traffic == PLAIN;
    while (auto const message = isPlain ? giop::takeMessage(held) : takeRecord(held))
      if (!passMessage(from, *message))
        return false;
    return true;
  }

  bool passMessage(std::size_t from, std::string const& message)
  {
    ++m_proxy.m_messages;
    bool const isSpared = m_spared != 0;
    m_spared -= isSpared;
    if (isSpared || !m_proxy.m_meddling || !m_mutator.once(m_proxy.m_options.oneIn))
      return send(from, message);
    ++m_proxy.m_changed;
    m_lastChange = true;
    auto const changed = m_proxy.m_options.traffic == PLAIN ? m_mutator.mutate(message)
                                                            : mutateRecord(message, m_mutator);
    for (std::string const& each : changed)
      if (!send(from, each))
        return false;
    m_isCut = m_mutator.once(12);
    return true;
  }

  bool send(std::size_t from, std::string const& bytes)
  {
    std::size_t sent = 0;
    auto const end = Clock::now() + m_proxy.m_options.patience;
    while (sent < bytes.size())
    {
      ssize_t const now = ::send(m_ends[1 - from], bytes.data() + sent, bytes.size() - sent,
                                 MSG_NOSIGNAL | MSG_DONTWAIT);
      if (now > 0)
        sent += static_cast<std::size_t>(now);
      else if (errno != EAGAIN && errno != EINTR)
        return false;
      else
      {
        pollfd wait{m_ends[1 - from], POLLOUT, 0};
        poll(&wait, 1, LOOK_MILLISECONDS);
        if (m_proxy.m_ending || Clock::now() > end)
          return false;
      }
    }
    return true;
  }

  MutatingProxy& m_proxy;
  std::array<int, 2> const m_ends;
  std::array<bool, 2> m_isOpen{true, true};
  std::array<std::string, 2> m_held;
  giop::Mutator m_mutator;
  std::uint32_t m_spared; // messages, so that something comes about that can be changed
  bool m_isCut = false;
  bool m_lastChange = false;
  Clock::time_point m_lastBytes = Clock::now();
};

MutatingProxy::MutatingProxy(std::vector<std::string> const& hosts, unsigned short port,
                             Options const& options)
    : m_options(options)
{
  for (std::string const& host : hosts)
    listenFor(host, port);
}

MutatingProxy::~MutatingProxy()
{
  m_ending = true;
  for (std::thread& acceptor : m_acceptors)
    acceptor.join();
  for (int const listener : m_listeners)
    close(listener);
  while (m_relays != 0)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
}

void MutatingProxy::listenFor(std::string const& host, unsigned short port)
{
  sockaddr_in name = endPoint(host, port);
  name.sin_addr.s_addr = htonl(ntohl(name.sin_addr.s_addr) + (BEYOND << 16));
  int const listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  m_listeners.push_back(listener);
  int const reuse = 1;
  setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
  if (bind(listener, plain(name), sizeof name) != 0 || listen(listener, 512) != 0)
    throw std::runtime_error("cannot listen for " + host + ": " + std::strerror(errno));
  m_acceptors.emplace_back([this, listener, host, port] { accept(listener, host, port); });
}

void MutatingProxy::accept(int listener, std::string const& host, unsigned short port)
{
  while (!m_ending)
  {
    pollfd wait{listener, POLLIN, 0};
    if (poll(&wait, 1, LOOK_MILLISECONDS) != 1)
      continue;
    sockaddr_in from{};
    socklen_t size = sizeof from;
    int const caller = accept4(listener, reinterpret_cast<sockaddr*>(&from), &size, SOCK_CLOEXEC);
    if (caller < 0)
      continue;
    int const called = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    from.sin_port = 0;
    sockaddr_in const to = endPoint(host, port);
    if (bind(called, plain(from), sizeof from) != 0 || connect(called, plain(to), sizeof to) != 0)
    {
      close(called);
      close(caller);
      continue;
    }
    ++m_relays;
    auto const number = static_cast<std::uint32_t>(++m_connections);
    std::thread(
        [this, caller, called, number]
        {
          Relay(*this, caller, called, m_options.seed * 1000003U + number).run();
          --m_relays;
        })
        .detach();
  }
}

} // namespace tqtorture
