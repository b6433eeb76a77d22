// Peers of the threads that shake hands.

#pragma once

#include "ozf/tls/Handshakes.h"
#include "tests/support/Certificates.h"
#include "tests/support/TempDir.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <string>
#include <utility>

using namespace Quillon::Tessarine::Ozf;

class HandshakesTesting : public testing::Test
{
protected:
  explicit HandshakesTesting(TlsMode mode = TlsMode::ONLY)
  {
    tqtest::CertificateAuthority authority;
    authority.writeTo(m_files / "ca.pem");
    authority.issue(m_files.path(), "host");
    TlsSettings settings;
    settings.mode = mode;
    settings.certificate = m_files / "host.pem";
    settings.key = m_files / "host.key";
    settings.authorities = m_files / "ca.pem";
    std::string error;
    m_context = TlsContext::make(settings, error);
    EXPECT_TRUE(m_context) << error;
  }

  // The end of a peer from that address, who has said something already.
  UniqueFd begin(Handshakes& handshakes, std::string const& address,
                 std::string const& said = {}) const
  {
    auto [here, there] = socketPair();
    if (send(there.get(), said.data(), said.size(), MSG_NOSIGNAL) !=
        static_cast<ssize_t>(said.size()))
      ADD_FAILURE() << errorText(errno);
    handshakes.begin(std::move(here), address, m_context);
    return std::move(there);
  }

  // What a peer that speaks TLS says first.
  std::string hello() const
  {
    auto const [here, there] = socketPair();
    TlsChannel channel(m_context, TlsChannel::CLIENT, there.get());
    EXPECT_EQ(channel.handshake(), TlsChannel::Progress::READ);
    char said[4096];
    auto const size = recv(here.get(), said, sizeof said, MSG_DONTWAIT);
    EXPECT_GT(size, 0);
    return {said, static_cast<std::size_t>(std::max<ssize_t>(size, 0))};
  }

  // Whether it is told something.
  static bool isAnswered(UniqueFd const& peer)
  {
    pollfd wait{peer.get(), POLLIN, 0};
    char byte = 0;
    return poll(&wait, 1, 20000) == 1 && recv(peer.get(), &byte, 1, 0) == 1;
  }

  static bool isGone(UniqueFd const& peer, int milliseconds = 20000)
  {
    pollfd wait{peer.get(), POLLRDHUP, 0};
    return poll(&wait, 1, milliseconds) == 1;
  }

  static std::pair<UniqueFd, UniqueFd> socketPair()
  {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
      ADD_FAILURE() << errorText(errno);
    return {UniqueFd(ends[0]), UniqueFd(ends[1])};
  }

  TempDir m_files;
  std::shared_ptr<TlsContext const> m_context;
};
