// A gateway beside a master without explorers.

#pragma once

#include "tests/support/CommandTest.h"
#include "tests/support/Gateway.h"

#include <gmock/gmock.h>

namespace tqtest
{

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
