// What a service that is not the master holds for its readers.

#include "tests/system/limits/LimitsTesting.h"

namespace
{

using namespace tqtest;
using testing::HasSubstr;
namespace wire = client::Remote;

class AnswersLimitTest : public LimitsTest
{
protected:
  // Its name lets it announce itself at once.
  static constexpr char RELAY[] = "4relay";

  // Of about a kilobyte each.
  void fillMaster(int records)
  {
    connect();
    for (int i = 0; i < records; ++i)
      ASSERT_EQ(m_client->store(std::string(900, 's') + std::to_string(i), "written", "<x/>"),
                client::DS_SUCCESS)
          << m_service.log();
    m_client.reset();
  }

  void startRelay()
  {
    std::string const master = LiveService::NAME;
    writeText(m_relay / "etc/tq.conf",
              "SERVER = " + master + "\nCLIENT_NAME = " + RELAY + "\nHOST_ADDRESS." + master +
                  " = 127.0.0.1\nHOST_ADDRESS." + RELAY + " = 127.0.0.2\nORB_BIND = 127.0.0.2\n" +
                  "ORB_PORT.DiscoveryService = " + std::to_string(m_service.port()) +
                  "\nDISCOVERY_PAGE_SIZE = 500\nLIMIT_ANSWERS = 1048576\n"
                  "EXPLORER.filesystem = off\nEXPLORER.host = off\nEXPLORER.volume = off\n"
                  "EXPLORER_INTERVAL.service = 1s\n");
    ASSERT_TRUE(m_relay.start()) << m_relay.log();
    m_client = std::make_unique<client::Client>(m_relay.root(), RELAY);
    ASSERT_TRUE(m_client->connected()) << m_relay.log();
  }

  wire::DiscoveryIterator_ptr list()
  {
    return (*m_client)->queryDiscoveries(client::DQ_DISCOVERY_DATA, client::AT_ANYANDALL, "s*",
                                         "written");
  }

  LiveService m_relay{LiveService::WITH_EXPLORERS};
};

} // namespace

TEST_F(AnswersLimitTest, TheListOfTheReaderIdleLongestGoesAndTheOthersAreServed)
{
  start("");
  fillMaster(600);
  startRelay();
  wire::DiscoveryIterator_var const first = list();
  EXPECT_EQ(first->pageSize(), 8);
  wire::DiscoveryIterator_var const second = list();
  EXPECT_THROW(first->pageSize(), CORBA::OBJECT_NOT_EXIST);
  second->pageSize(1000);
  EXPECT_EQ(wire::DiscoverySeq_var(second->getNextPage())->length(), 600U);
  EXPECT_THAT(m_relay.log(), HasSubstr("More than 2000000 discoveries of other hosts or 1048576 "
                                       "bytes held for readers, dropped the list of the one idle "
                                       "longest for a query of 127.0.7.1"));
  expectOthersAreServed();
  expectInStatus("LIMIT_ANSWERS", 1048576, 1);
  m_client.reset();
  EXPECT_EQ(m_relay.stop(), 0) << m_relay.log();
  expectStops();
}
