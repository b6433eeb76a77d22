// The servant of the tests, and what they share.

#pragma once

#include "ozf/config/Configuration.h"
#include "ozf/log/Assertion.h"
#include "ozf/orb/Orb.h"
#include "tests/support/FreePort.h"
#include "tests/support/TempDir.h"

#include <OrbTestC.h>
#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <gtest/gtest.h>
#include <mutex>
#include <netinet/in.h>
#include <new>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using tqtest::freePort;

// Opened by the test, waited for in a servant.
class Gate
{
public:
  void open()
  {
    std::lock_guard guard(m_mutex);
    m_open = true;
    m_changed.notify_all();
  }
  // Tells whether somebody waits, then waits.
  void pass()
  {
    std::unique_lock lock(m_mutex);
    ++m_arrived;
    m_changed.notify_all();
    m_changed.wait(lock, [this] { return m_open; });
  }
  bool awaitArrival()
  {
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::seconds(60), [this] { return m_arrived > 0; });
  }

private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_open = false;
  int m_arrived = 0;
};

class ProbeServant : public POA_OrbTest::Probe
{
public:
  // How many there are.
  static inline std::atomic<int> alive{0};
  static inline std::atomic<int> pauses{0}; // begun

  ProbeServant() { ++alive; }

  char* echo(char const* text) override { return CORBA::string_dup((prefix + text).c_str()); }

  void fail(char const* how) override
  {
    std::string const kind = how;
    if (kind == "assertion")
      OZF_ASSERT(false, "NULL != m_probe", "ProbeServant", "ProbeServant::fail");
    if (kind == "runtime")
      throw std::runtime_error("probe failed");
    if (kind == "other")
      throw 5;
    if (kind == "memory")
      throw std::bad_alloc();
    if (kind == "corba")
      throw CORBA::NO_PERMISSION(0, CORBA::COMPLETED_YES);
  }

  void waitForGate() override { gate->pass(); }

  CORBA::Boolean destroyItself() override
  {
    destroy();
    return true;
  }

  void pause(CORBA::ULong milliseconds) override
  {
    ++pauses;
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
  }

  CORBA::ULong size(OrbTest::Bytes const& data) override { return data.length(); }

  std::string prefix;
  Gate* gate = nullptr;
  std::function<void()> destroy;

protected:
  ~ProbeServant() override { --alive; }
};

// A product root with a configuration of the test's own.
class ProductRoot
{
public:
  explicit ProductRoot(std::string const& configuration)
  {
    std::filesystem::create_directories(m_directory / "etc");
    writeText(m_directory / "etc/tq.conf", configuration);
    setenv("TESSARINE_ROOT", m_directory.path().c_str(), 1);
    // Other tests of the same process may have left their own.
    Quillon::Tessarine::Ozf::reloadConfiguration();
  }

  // For a process that has begun with it to read.
  void rewrite(std::string const& configuration) const
  {
    writeText(m_directory / "etc/tq.conf", configuration);
  }

private:
  TempDir m_directory;
};

// A socket bound to a free port of an address, listening when asked.
class BoundSocket
{
public:
  explicit BoundSocket(char const* address, bool listening)
      : m_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
  {
    sockaddr_in name{};
    name.sin_family = AF_INET;
    inet_pton(AF_INET, address, &name.sin_addr);
    socklen_t length = sizeof name;
    auto* const generic = reinterpret_cast<sockaddr*>(&name);
    if (bind(m_fd, generic, length) != 0 || (listening && listen(m_fd, 5) != 0) ||
        getsockname(m_fd, generic, &length) != 0)
      ADD_FAILURE() << "no socket on " << address;
    m_port = ntohs(name.sin_port);
  }
  ~BoundSocket() { close(m_fd); }
  BoundSocket(BoundSocket const&) = delete;
  BoundSocket& operator=(BoundSocket const&) = delete;
  unsigned short port() const { return m_port; }

  // A connection to it, or -1 when none comes in that time.
  int accept(std::chrono::milliseconds time) const
  {
    pollfd wait{m_fd, POLLIN, 0};
    return poll(&wait, 1, static_cast<int>(time.count())) == 1 ? ::accept(m_fd, nullptr, nullptr)
                                                               : -1;
  }

private:
  int m_fd;
  unsigned short m_port = 0;
};

inline bool eventually(std::function<bool()> const& condition)
{
  auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!condition())
  {
    if (std::chrono::steady_clock::now() > deadline)
      return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}
