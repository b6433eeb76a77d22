// Stands between hosts that believe that they talk to one another, and changes at
// random what they say, in both directions.

#pragma once

#include "tests/support/GiopMutation.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace tqtorture
{

// Each host that is called through it has an address of 127.0.0.0/8; the proxy takes
// its calls at that address with BEYOND added to the second number. The fixture
// CallFrom.cpp leads a program's calls there. The proxy calls on from the address
// that it was called from.
class MutatingProxy
{
public:
  static constexpr unsigned BEYOND = 64;

  enum Traffic
  {
    PLAIN,    // messages between ORBs, changed by what they mean
    ENCRYPTED // records of TLS, changed as the bytes that they are
  };

  struct Options
  {
    Traffic traffic = PLAIN;
    std::uint32_t seed = 0;
    // Of a connection that is meddled with one in so many messages is changed.
    std::uint32_t oneIn = 6;
    // Of a connection on which nothing goes on after a change.
    std::chrono::milliseconds patience{3000};
  };

  struct Counts
  {
    long connections = 0;
    long messages = 0;
    long changed = 0;
  };

  // Throws std::runtime_error when it cannot listen.
  MutatingProxy(std::vector<std::string> const& hosts, unsigned short port, Options const& options);
  ~MutatingProxy();
  MutatingProxy(MutatingProxy const&) = delete;
  MutatingProxy& operator=(MutatingProxy const&) = delete;

  // At first nothing is changed; nor from relent on, also on the connections that there
  // are then.
  void meddle() { m_meddling = true; }
  void relent() { m_meddling = false; }

  Counts counts() const { return {m_connections, m_messages, m_changed}; }

private:
  class Relay;

  void listenFor(std::string const& host, unsigned short port);
  void accept(int listener, std::string const& host, unsigned short port);

  Options const m_options;
  std::atomic<bool> m_ending{false};
  std::atomic<bool> m_meddling{false};
  std::atomic<long> m_connections{0};
  std::atomic<long> m_messages{0};
  std::atomic<long> m_changed{0};
  std::vector<int> m_listeners;
  std::vector<std::thread> m_acceptors;
  std::atomic<int> m_relays{0}; // threads of connections
};

} // namespace tqtorture
