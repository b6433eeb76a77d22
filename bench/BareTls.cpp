#include "bench/BareTls.h"

#include "bench/Bench.h"
#include "bench/Service.h"
#include "bench/TlsCall.h"

#include "ozf/base/SystemError.h"
#include "ozf/tls/Handshakes.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <iostream>
#include <thread>
#include <vector>

namespace tqbench
{
namespace
{

using Quillon::Tessarine::Ozf::Handshakes;
using Quillon::Tessarine::Ozf::UniqueFd;
using Session = std::unique_ptr<SSL, decltype(&SSL_free)>;

void serveOne(SSL_CTX* context, int socket)
{
  UniqueFd const connection(::accept4(socket, nullptr, nullptr, SOCK_CLOEXEC));
  Session const session(SSL_new(context), SSL_free);
  char question[64];
  if (SSL_set_fd(session.get(), connection.get()) == 1 && SSL_accept(session.get()) == 1 &&
      SSL_read(session.get(), question, sizeof question) > 0)
    SSL_write(session.get(), "x", 1);
}

// Serves until the other end of the pipe is closed, from when the name of the files
// has come through it.
void serve(int socket, int pipe)
{
  std::signal(SIGPIPE, SIG_IGN);
  char files[4096];
  ssize_t const size = ::read(pipe, files, sizeof files);
  if (size <= 0)
    return;
  auto const context = tlsContextOf(std::string(files, static_cast<std::size_t>(size)), "host");
  for (unsigned i = 0; i < std::min(processors(), Handshakes::MOST_THREADS); ++i)
    std::thread(
        [=]
        {
          for (;;)
            serveOne(context.get(), socket);
        })
        .detach();
  while (::read(pipe, files, sizeof files) > 0)
    ;
}

} // namespace

BareTls::BareTls()
{
  int ends[2];
  sockaddr_in address = loopbackAt(0);
  socklen_t size = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  m_socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  require(::bind(m_socket, generic, size) == 0 && ::listen(m_socket, SOMAXCONN) == 0 &&
              ::getsockname(m_socket, generic, &size) == 0 && ::pipe2(ends, O_CLOEXEC) == 0,
          "no place for the bare server");
  m_port = ntohs(address.sin_port);
  m_pid = ::fork();
  require(m_pid >= 0, "no process");
  if (m_pid == 0)
  {
    ::close(ends[1]);
    try
    {
      serve(m_socket, ends[0]);
    }
    catch (std::exception const& exception)
    {
      std::cerr << exception.what() << '\n';
    }
    ::_exit(0);
  }
  ::close(ends[0]);
  ::close(m_socket);
  m_life = ends[1];
}

BareTls::~BareTls()
{
  ::close(m_life);
  ::waitpid(m_pid, nullptr, 0);
}

void BareTls::begin(std::string const& files)
{
  require(::write(m_life, files.data(), files.size()) == static_cast<ssize_t>(files.size()),
          "the bare server has ended");
}

tqtest::CertificateAuthority makeCertificates(std::string const& directory,
                                              std::vector<std::string> const& hosts)
{
  std::filesystem::create_directory(directory);
  tqtest::CertificateAuthority authority;
  authority.writeTo(directory + "/ca.pem");
  tqtest::Wish wish;
  wish.names.clear();
  for (auto const& host : hosts)
    wish.names += (wish.names.empty() ? "DNS:" : ",DNS:") + host;
  authority.issue(directory, "host", wish);
  return authority;
}

TlsCallers::TlsCallers(std::string const& files) : m_context(tlsContextOf(files, "host")) {}

void TlsCallers::call(unsigned short port, bool ask) const
{
  UniqueFd const connection(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in const address = loopbackAt(port);
  Session const session(SSL_new(m_context.get()), SSL_free);
  require(::connect(connection.get(), reinterpret_cast<sockaddr const*>(&address),
                    sizeof address) == 0 &&
              SSL_set_fd(session.get(), connection.get()) == 1 && SSL_connect(session.get()) == 1,
          "a handshake failed");
  char answer[64];
  if (ask)
    require(SSL_write(session.get(), QUESTION, sizeof QUESTION - 1) > 0 &&
                SSL_read(session.get(), answer, sizeof answer) > 0,
            "a handshake was not followed by an answer");
}

double TlsCallers::shakeHands(unsigned short port, std::size_t count) const
{
  return timed(
      [&]
      {
        {
          std::vector<std::jthread> threads;
          for (unsigned i = 0; i < processors(); ++i)
            threads.emplace_back(
                [&, share = count / processors()]
                {
                  for (std::size_t made = 0; made < share; ++made)
                    call(port, false);
                });
        }
        call(port, true);
      });
}

} // namespace tqbench
