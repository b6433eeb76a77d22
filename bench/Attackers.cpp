#include "bench/Attackers.h"

#include "bench/Bench.h"
#include "bench/Service.h"
#include "bench/TlsCall.h"

#include "ozf/base/SystemError.h"

#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <deque>
#include <optional>
#include <utility>
#include <vector>

namespace tqbench
{
namespace
{

using Clock = std::chrono::steady_clock;
using Quillon::Tessarine::Ozf::UniqueFd;

// The honest client calls from 127.0.0.1.
constexpr in_addr_t FIRST_ADDRESS = INADDR_LOOPBACK + 0x700;
constexpr std::size_t ADDRESSES = 4;
constexpr int LEAST_BUFFER = 1; // the system makes it as small as it can
constexpr int WAIT_MILLISECONDS = 5;
constexpr std::chrono::seconds UNDER_WAY(1);

class Loop
{
public:
  Loop(Attack const& attack, unsigned short port, std::size_t connections)
      : m_attack(attack),
        m_service(loopbackAt(port)),
        m_sockets(connections),
        m_calls(connections),
        m_epoll(::epoll_create1(EPOLL_CLOEXEC))
  {
    for (std::size_t place = 0; place < connections; ++place)
      open(place);
  }

  // Without end; writes a byte to the pipe once the attack is under way.
  [[noreturn]] void run(int pipe)
  {
    for (;;)
    {
      openAnew();
      if (pipe >= 0 && Clock::now() >= m_start + UNDER_WAY)
      {
        require(::write(pipe, "x", 1) == 1, "who is to measure has ended");
        ::close(std::exchange(pipe, -1));
      }
      std::array<epoll_event, 256> events{};
      int const count =
          ::epoll_wait(m_epoll.get(), events.data(), events.size(), WAIT_MILLISECONDS);
      for (int i = 0; i < count; ++i)
        handle(events[static_cast<std::size_t>(i)]);
    }
  }

private:
  void openAnew()
  {
    auto const due = static_cast<std::size_t>(
        std::chrono::duration<double>(Clock::now() - m_start).count() * m_attack.anew);
    // What could not be opened in its time is not made up for.
    m_opened = std::max(m_opened, due - std::min(due, static_cast<std::size_t>(m_attack.anew)));
    for (; m_opened < due && !m_ended.empty(); ++m_opened)
    {
      std::size_t const place = m_ended.front();
      m_ended.pop_front();
      open(place);
    }
  }

  void open(std::size_t place)
  {
    UniqueFd& socket = m_sockets[place];
    socket.reset(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_in const own = loopbackAt(0, FIRST_ADDRESS + place % ADDRESSES);
    int const on = 1;
    ::setsockopt(socket.get(), IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &on, sizeof on);
    if (m_attack.manner == Attack::SEND_ALWAYS)
      ::setsockopt(socket.get(), SOL_SOCKET, SO_RCVBUF, &LEAST_BUFFER, sizeof LEAST_BUFFER);
    epoll_event event{};
    event.events = EPOLLOUT;
    event.data.u64 = place;
    if (::bind(socket.get(), reinterpret_cast<sockaddr const*>(&own), sizeof own) != 0 ||
        (::connect(socket.get(), reinterpret_cast<sockaddr const*>(&m_service), sizeof m_service) !=
             0 &&
         errno != EINPROGRESS) ||
        ::epoll_ctl(m_epoll.get(), EPOLL_CTL_ADD, socket.get(), &event) != 0)
      end(place);
  }

  void end(std::size_t place)
  {
    m_calls[place].reset();
    m_sockets[place].reset();
    m_ended.push_back(place);
  }

  // False when the connection has ended.
  bool send(int socket)
  {
    if (m_attack.messages.empty())
      return true;
    do
    {
      std::string const& message = m_attack.messages[m_sent++ % m_attack.messages.size()];
      auto const sent = ::send(socket, message.data(), message.size(), MSG_NOSIGNAL);
      if (sent < static_cast<ssize_t>(message.size()))
        return sent >= 0 || errno == EAGAIN;
    } while (m_attack.manner == Attack::SEND_ALWAYS);
    return true;
  }

  // False when the handshake has failed, or the service has ended it.
  bool prove(epoll_event const& happened, int socket)
  {
    std::size_t const place = happened.data.u64;
    auto& call = m_calls[place];
    if (!call)
      call.emplace(m_attack.proofs[place % m_attack.proofs.size()].get(), socket);
    char answer[4096];
    auto const progress = call->shakeHands();
    if (progress == TlsCall::FAILED ||
        (progress == TlsCall::DONE && ::recv(socket, answer, sizeof answer, 0) == 0))
      return false;
    listenFor(progress == TlsCall::WRITE ? EPOLLOUT : EPOLLIN, happened, socket);
    return true;
  }

  void listenFor(std::uint32_t events, epoll_event next, int socket)
  {
    next.events = events;
    ::epoll_ctl(m_epoll.get(), EPOLL_CTL_MOD, socket, &next);
  }

  bool goesOn(epoll_event const& happened)
  {
    int const socket = m_sockets[happened.data.u64].get();
    if ((happened.events & (EPOLLERR | EPOLLHUP)) != 0)
      return false;
    if (!m_attack.proofs.empty())
      return prove(happened, socket);
    if ((happened.events & EPOLLOUT) != 0)
    {
      if (!send(socket) || m_attack.manner == Attack::LEAVE)
        return false;
      listenFor(m_attack.manner == Attack::SEND_ALWAYS ? EPOLLOUT | EPOLLET : EPOLLIN, happened,
                socket);
      return true;
    }
    char answer[4096];
    if (::recv(socket, answer, sizeof answer, 0) <= 0)
      return false;
    return m_attack.manner != Attack::ASK_AGAIN || send(socket);
  }

  void handle(epoll_event const& happened)
  {
    if (m_sockets[happened.data.u64].valid() && !goesOn(happened))
      end(happened.data.u64);
  }

  Attack const& m_attack;
  sockaddr_in const m_service;
  std::vector<UniqueFd> m_sockets;
  std::vector<std::optional<TlsCall>> m_calls; // over them, with proofs
  std::deque<std::size_t> m_ended;             // places in m_sockets
  UniqueFd const m_epoll;
  Clock::time_point const m_start = Clock::now();
  std::size_t m_opened = 0; // anew
  std::size_t m_sent = 0;   // messages
};

} // namespace

Attackers::Attackers(Attack const& attack, unsigned short port, std::size_t connections)
    : m_process([&](int pipe) { Loop(attack, port, connections).run(pipe); },
                "the attack has not begun")
{
}

} // namespace tqbench
