#include "bench/Herd.h"

#include "bench/Bench.h"
#include "bench/Service.h"
#include "bench/TlsCall.h"

#include "ozf/base/SystemError.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <iostream>
#include <memory>
#include <optional>
#include <queue>
#include <random>
#include <thread>
#include <utility>
#include <vector>

namespace tqbench
{
namespace
{

using Clock = std::chrono::steady_clock;
using Quillon::Tessarine::Ozf::UniqueFd;

constexpr in_addr_t FIRST_OF_HERD = INADDR_LOOPBACK + 0x10000;
constexpr std::size_t PORTION = 16;
constexpr unsigned LONGEST_PAUSE = 1000; // milliseconds, before it is tried again
constexpr std::chrono::minutes DEADLINE(5);
constexpr char NO_CERTIFICATE[] = "a certificate of the herd cannot be read";

std::string nameOf(std::size_t host) { return "herd" + std::to_string(host); }

template <class Object>
std::shared_ptr<Object> readPem(std::string const& path,
                                Object* (*read)(std::FILE*, Object**, pem_password_cb*, void*),
                                void (*free)(Object*))
{
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> const file(std::fopen(path.c_str(), "r"),
                                                             std::fclose);
  require(file != nullptr, NO_CERTIFICATE);
  std::shared_ptr<Object> object(read(file.get(), nullptr, nullptr, nullptr), free);
  require(object != nullptr, NO_CERTIFICATE);
  return object;
}

struct Host
{
  in_addr_t address;
  std::shared_ptr<X509> certificate;
  std::shared_ptr<EVP_PKEY> key;
  UniqueFd connection{};
  std::optional<TlsCall> call{};
  bool asked = false;
};

// The hosts of one thread.
class Share
{
public:
  Share(std::string const& files, std::size_t first, std::size_t end)
      : m_context(tlsContextOf(files, ""))
  {
    for (std::size_t i = first; i < end; ++i)
      m_hosts.push_back(
          {static_cast<in_addr_t>(FIRST_OF_HERD + i),
           readPem(files + '/' + nameOf(i) + ".pem", PEM_read_X509, X509_free),
           readPem(files + '/' + nameOf(i) + ".key", PEM_read_PrivateKey, EVP_PKEY_free)});
  }

  // How often a host tried again; throws when the deadline passes.
  std::size_t gather(unsigned short port, std::size_t underWay)
  {
    m_service = loopbackAt(port);
    m_epoll.reset(::epoll_create1(EPOLL_CLOEXEC));
    m_answered = 0;
    m_again = 0;
    m_begun = 0;
    auto const end = Clock::now() + DEADLINE;
    while (m_answered < m_hosts.size())
    {
      require(Clock::now() < end, "the herd has not been answered");
      for (; !m_resting.empty() && m_resting.top().first <= Clock::now(); m_resting.pop())
        open(m_resting.top().second);
      // Who connects speaks at once, as each would on a machine of its own.
      std::size_t const most = std::min({m_answered + underWay, m_begun + PORTION, m_hosts.size()});
      while (m_begun < most)
        open(m_begun++);
      constexpr int WAIT_MILLISECONDS = 5;
      std::array<epoll_event, 64> events{};
      int const count =
          ::epoll_wait(m_epoll.get(), events.data(), events.size(), WAIT_MILLISECONDS);
      for (int i = 0; i < count; ++i)
        goOn(events[static_cast<std::size_t>(i)].data.u64);
    }
    return m_again;
  }

  void letGo()
  {
    for (Host& host : m_hosts)
      host.connection.reset();
  }

private:
  void open(std::size_t place)
  {
    Host& host = m_hosts[place];
    host.asked = false;
    host.connection.reset(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_in const own = loopbackAt(0, host.address);
    int const on = 1;
    ::setsockopt(host.connection.get(), IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &on, sizeof on);
    epoll_event event{};
    event.events = EPOLLOUT;
    event.data.u64 = place;
    require(::bind(host.connection.get(), reinterpret_cast<sockaddr const*>(&own), sizeof own) == 0,
            "a host of the herd has no address");
    bool const begun =
        ::connect(host.connection.get(), reinterpret_cast<sockaddr const*>(&m_service),
                  sizeof m_service) == 0 ||
        errno == EINPROGRESS;
    if (!begun || ::epoll_ctl(m_epoll.get(), EPOLL_CTL_ADD, host.connection.get(), &event) != 0)
      rest(place);
  }

  void rest(std::size_t place)
  {
    m_hosts[place].call.reset();
    m_hosts[place].connection.reset();
    ++m_again;
    m_resting.emplace(Clock::now() + std::chrono::milliseconds(m_random() % LONGEST_PAUSE), place);
  }

  void goOn(std::size_t place)
  {
    Host& host = m_hosts[place];
    if (!host.call)
    {
      int error = 0;
      socklen_t size = sizeof error;
      ::getsockopt(host.connection.get(), SOL_SOCKET, SO_ERROR, &error, &size);
      if (error != 0)
        return rest(place);
      host.call.emplace(m_context.get(), host.connection.get());
      require(SSL_use_certificate(host.call->session(), host.certificate.get()) == 1 &&
                  SSL_use_PrivateKey(host.call->session(), host.key.get()) == 1,
              "a host of the herd cannot show its certificate");
    }
    if (host.asked)
      return hear(place);
    auto const progress = host.call->shakeHands();
    if (progress == TlsCall::FAILED)
      return rest(place);
    if (progress == TlsCall::DONE)
    {
      if (SSL_write(host.call->session(), QUESTION, sizeof QUESTION - 1) <= 0)
        return rest(place);
      host.asked = true;
    }
    listenFor(progress == TlsCall::WRITE ? EPOLLOUT : EPOLLIN, place);
  }

  void hear(std::size_t place)
  {
    Host& host = m_hosts[place];
    char answer[64];
    int const count = SSL_read(host.call->session(), answer, sizeof answer);
    if (count > 0)
    {
      ++m_answered;
      ::epoll_ctl(m_epoll.get(), EPOLL_CTL_DEL, host.connection.get(), nullptr);
      host.call.reset(); // the connection stays
    }
    else if (SSL_get_error(host.call->session(), count) != SSL_ERROR_WANT_READ)
      rest(place);
  }

  void listenFor(std::uint32_t events, std::size_t place)
  {
    epoll_event event{};
    event.events = events;
    event.data.u64 = place;
    ::epoll_ctl(m_epoll.get(), EPOLL_CTL_MOD, m_hosts[place].connection.get(), &event);
  }

  using Rest = std::pair<Clock::time_point, std::size_t>;

  std::shared_ptr<SSL_CTX> const m_context;
  std::vector<Host> m_hosts;
  sockaddr_in m_service{};
  UniqueFd m_epoll;
  std::priority_queue<Rest, std::vector<Rest>, std::greater<>> m_resting;
  std::mt19937 m_random{1};
  std::size_t m_begun = 0;
  std::size_t m_answered = 0;
  std::size_t m_again = 0;
};

class AllShares
{
public:
  AllShares(std::string const& files, std::size_t hosts)
  {
    unsigned const threads = processors();
    for (unsigned i = 0; i < threads; ++i)
      m_shares.push_back(
          std::make_unique<Share>(files, hosts * i / threads, hosts * (i + 1) / threads));
  }

  Herd::Gathered gather(unsigned short port, std::size_t underWay)
  {
    Herd::Gathered gathered;
    std::atomic<std::size_t> again{0};
    std::atomic<bool> failed{false};
    for (auto const& share : m_shares)
      share->letGo();
    gathered.seconds = timed(
        [&]
        {
          std::vector<std::jthread> threads;
          for (auto const& share : m_shares)
            threads.emplace_back(
                [&]
                {
                  try
                  {
                    again += share->gather(port, underWay);
                  }
                  catch (std::exception const& exception)
                  {
                    std::cerr << exception.what() << '\n';
                    failed = true;
                  }
                });
        });
    require(!failed, "the herd failed");
    gathered.again = again;
    return gathered;
  }

private:
  std::vector<std::unique_ptr<Share>> m_shares;
};

struct Command
{
  std::size_t underWay;
  unsigned short port;
};

// Gathers as each command through the pipe says, until its other end is closed.
void serveHerd(std::string const& files, std::size_t hosts, int commands, int results)
{
  std::signal(SIGPIPE, SIG_IGN);
  AllShares all(files, hosts);
  Command command{};
  while (::read(commands, &command, sizeof command) == sizeof command)
  {
    Herd::Gathered const gathered = all.gather(command.port, command.underWay);
    require(::write(results, &gathered, sizeof gathered) == sizeof gathered,
            "nobody waits for the herd");
  }
}

} // namespace

Herd::Herd(tqtest::CertificateAuthority& authority, std::string const& files, std::size_t hosts)
{
  for (std::size_t i = 0; i < hosts; ++i)
    authority.issue(files, nameOf(i), tqtest::wishFor(nameOf(i)));
  int commands[2];
  int results[2];
  require(::pipe2(commands, O_CLOEXEC) == 0 && ::pipe2(results, O_CLOEXEC) == 0, "no pipe");
  m_pid = ::fork();
  require(m_pid >= 0, "no process");
  if (m_pid == 0)
  {
    ::close(commands[1]);
    ::close(results[0]);
    int status = 1;
    try
    {
      serveHerd(files, hosts, commands[0], results[1]);
      status = 0;
    }
    catch (std::exception const& exception)
    {
      std::cerr << exception.what() << '\n';
    }
    ::_exit(status);
  }
  ::close(commands[0]);
  ::close(results[1]);
  m_commands = commands[1];
  m_results = results[0];
}

Herd::~Herd()
{
  ::close(m_commands);
  ::close(m_results);
  ::waitpid(m_pid, nullptr, 0);
}

Herd::Gathered Herd::gather(unsigned short port, std::size_t underWay)
{
  Gathered gathered;
  Command const command{underWay, port};
  require(::write(m_commands, &command, sizeof command) == sizeof command &&
              ::read(m_results, &gathered, sizeof gathered) == sizeof gathered,
          "the herd has ended");
  return gathered;
}

} // namespace tqbench
