// A gateway beside a master without explorers.

#pragma once

#include "tests/support/CommandTest.h"
#include "tests/support/Gateway.h"

#include <gmock/gmock.h>

namespace tqtest
{

// Asks for all that is described with that refusal, of that host; what is not as it should be.
inline std::string refusalsOf(Gateway const& gateway, int status, std::string const& host = "")
{
  Words words{TQ_SOURCE_DIR "/tests/system/web/check_api.py",
              "http://127.0.0.1:" + std::to_string(gateway.port()), "--refused",
              std::to_string(status)};
  if (!host.empty())
    words.push_back(host);
  Outcome const outcome = runProgram("/usr/bin/python3", words);
  return outcome.exitCode == 0 ? "" : outcome.output + outcome.errors;
}

class GatewayTest : public CommandTest
{
protected:
  explicit GatewayTest(std::string const& entries = "") : m_gateway(m_service, entries) {}

  void SetUp() override
  {
    CommandTest::SetUp();
    ASSERT_TRUE(m_gateway.start()) << m_gateway.log();
    ASSERT_TRUE(m_gateway.awaitState("up")) << m_gateway.log();
  }
  void TearDown() override
  {
    EXPECT_EQ(m_gateway.stop(), 0) << m_gateway.log();
    CommandTest::TearDown();
  }

  // With one item, of that fact.
  void storeFact(std::string const& subject, std::string const& authority,
                 std::string const& fact) const
  {
    store(subject, authority,
          itemsDocument("<DISCOVERED Name=\"" + subject + "\"><ExplorerData Name=\"x\">" + fact +
                        "</ExplorerData></DISCOVERED>"));
  }

  Gateway m_gateway;
};

} // namespace tqtest
