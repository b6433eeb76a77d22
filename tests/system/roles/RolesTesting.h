// A service, and peers that call it from loopback addresses of their own.

#pragma once

#include "tests/support/LiveService.h"
#include "tests/support/RemoteClient.h"

#include <gmock/gmock.h>

#include <functional>

namespace tqtest
{

inline constexpr char THIS_HOST[] = "127.0.0.1";
inline constexpr char STRANGER[] = "127.0.0.9";

// From where the calls of this process come while it lives.
class CallingFrom
{
public:
  explicit CallingFrom(std::string const& address) { setenv("TQ_CALL_FROM", address.c_str(), 1); }
  ~CallingFrom() { unsetenv("TQ_CALL_FROM"); }
  CallingFrom(CallingFrom const&) = delete;
  CallingFrom& operator=(CallingFrom const&) = delete;
};

// What becomes of a call: "done", or the name of its exception.
inline std::string outcomeOf(std::function<void()> const& call)
{
  try
  {
    call();
    return "done";
  }
  catch (CORBA::SystemException const& exception)
  {
    return exception._name();
  }
}

class RolesTest : public testing::Test
{
protected:
  static constexpr char REFUSED[] = "NO_PERMISSION";

  void start(std::string const& lines, Process::Environment environment = {})
  {
    m_service.configure(lines);
    ASSERT_TRUE(m_service.start(environment)) << m_service.log();
  }

  // A configuration that is read at a reload.
  void reload(std::string const& lines, std::string const& sign)
  {
    m_service.configure(lines);
    ASSERT_EQ(kill(m_service.process().pid(), SIGHUP), 0);
    ASSERT_TRUE(m_service.process().awaitError(sign)) << m_service.log();
  }

  // Calls the service from there; what becomes of it.
  std::string callFrom(std::string const& address,
                       std::function<void(client::Client&)> const& call) const
  {
    CallingFrom const from(address);
    client::Client peer(m_service.root(), LiveService::NAME);
    return peer.connected() ? outcomeOf([&] { call(peer); }) : "not connected";
  }

  Outcome tqdiscoctlFrom(std::string const& address, std::vector<std::string> const& words) const
  {
    return runProgram(TQ_BIN_DIR "/tqdiscoctl", words,
                      {{"TESSARINE_ROOT", m_service.root()},
                       {"TQ_CALL_FROM", address},
                       {"LD_PRELOAD", TQ_FIXTURE_DIR "/libcall_from.so"},
                       {"ASAN_OPTIONS", "verify_asan_link_order=0"}}); // as it comes first
  }

  void stop() { EXPECT_EQ(m_service.stop(), 0) << m_service.log(); }

  LiveService m_service;
};

} // namespace tqtest
