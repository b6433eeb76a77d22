// What a gateway answers who asks for more than it has: time, threads, memory.

#include "tests/system/web/GatewayTesting.h"

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#include "tests/support/MemoryPlan.h"
#endif

#include <list>
#include <map>
#include <random>

namespace
{

using namespace tqtest;
using testing::HasSubstr;

constexpr char ONE[] = "/api/v1/discoveries/web1/host";

std::string requestFor(std::string const& target)
{
  return "GET " + target + " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n";
}

class GatewayLimitsTest : public GatewayTest
{
protected:
  explicit GatewayLimitsTest(std::string const& entries = "WEB_LIMIT_READS = 1\n"
                                                          "WEB_LIMIT_PEER_CONNECTIONS = 900\n")
      : GatewayTest(entries)
  {
  }

  void SetUp() override
  {
    GatewayTest::SetUp();
    storeFact("web1", "host", "<Size>1</Size>");
    ASSERT_TRUE(m_gateway.awaitDiscoveries(1));
  }
};

class GatewayTimeTest : public GatewayLimitsTest
{
protected:
  GatewayTimeTest() : GatewayLimitsTest("WEB_LIMIT_REQUEST = 2\n") {}
};

} // namespace

TEST_F(GatewayTimeTest, WhatDoesNotComeInTimeIsToldSo)
{
  m_service.process().freeze();
  HttpAnswer const answer = m_gateway.get(ONE);
  EXPECT_EQ(answer.status, 504) << answer.body;
  EXPECT_EQ(answer.json()["title"], "Gateway Timeout");
  EXPECT_EQ(m_gateway.get("/api/v1/filters/host").status, 504);
  m_service.process().sendSignal(SIGCONT);
}

TEST_F(GatewayLimitsTest, WhereTooManyWaitTheNextIsToldToComeAgain)
{
  m_service.process().freeze();
  std::list<HttpConnection> waiting;
  constexpr int MORE_THAN_WAIT = 300;
  for (int i = 0; i < MORE_THAN_WAIT; ++i)
    waiting.emplace_back(m_gateway.port()).send(requestFor(ONE));
  HttpAnswer const refused = m_gateway.get(ONE);
  EXPECT_EQ(refused.status, 503) << refused.body;
  EXPECT_THAT(refused.body, HasSubstr("too much is asked for"));
  EXPECT_NE(refused.header("Retry-After"), "");
  EXPECT_EQ(m_gateway.get("/api/v1/items").status, 503) << "streams wait as well";
  m_service.process().sendSignal(SIGCONT);
  std::map<int, int> statuses;
  for (HttpConnection& each : waiting)
    ++statuses[HttpAnswer(each.readToEnd()).status];
  EXPECT_EQ(statuses[200] + statuses[503] + statuses[504], MORE_THAN_WAIT);
  EXPECT_EQ(m_gateway.get(ONE).status, 200);
}

namespace
{

class GatewaySlowReadersTest : public GatewayTest
{
protected:
  GatewaySlowReadersTest()
      : GatewayTest("COLLECTION_WRITE_SIZE = 1048576\nCOLLECTION_PAGE_SIZE = 1048576\n"
                    "WEB_LIMIT_READS = 1\n")
  {
  }

  // So many discoveries of about 6 MiB.
  void storeLarge(int count) const
  {
    constexpr int ITEMS = 2'000;
    std::mt19937_64 random(1);
    std::string many;
    for (int i = 0; i < ITEMS; ++i)
    {
      many += "<DISCOVERED Name=\"" + std::to_string(i) + "\"><ExplorerData Name=\"x\"><Text>";
      for (int word = 0; word < 150; ++word)
        many += std::to_string(random()) + ' '; // which hardly becomes smaller
      many += "</Text></ExplorerData></DISCOVERED>";
    }
    std::string const document = itemsDocument(many);
    for (int i = 0; i < count; ++i)
      store("large" + std::to_string(i), "host", document);
    ASSERT_TRUE(m_gateway.awaitDiscoveries(static_cast<std::size_t>(count)));
  }

  static std::string targetOf(int number)
  {
    return "/api/v1/discoveries/large" + std::to_string(number) + "/host";
  }
};

} // namespace

// Each asks for an answer of its own, and takes next to nothing of it.
TEST_F(GatewaySlowReadersTest, AnswersThatNobodyTakesHaveTheirMemory)
{
  constexpr int READERS = 8;
  storeLarge(READERS);
  std::string const accept = "Accept: application/xml\r\n";
  std::list<HttpConnection> idle;
  int refused = 0;
  for (int i = 0; i < READERS; ++i)
  {
    idle.emplace_back(m_gateway.port(), "127.0.0.1", HttpConnection::TAKES_LITTLE)
        .send("GET " + targetOf(i) + " HTTP/1.1\r\nHost: localhost\r\n" + accept + "\r\n");
    EXPECT_TRUE(idle.back().await("\r\n"));
    refused += idle.back().text().starts_with("HTTP/1.1 503") ? 1 : 0;
  }
  EXPECT_GE(refused, 2) << "one address has 32 MiB";
  EXPECT_LE(refused, 4);
  EXPECT_EQ(m_gateway.get("/api/v1/status").status, 200) << "what is small is always sent";
  idle.clear();
  EXPECT_TRUE(
      eventually([&] { return m_gateway.get(targetOf(READERS - 1), accept).status == 200; }));
}

// The next read waits until this one has ended.
TEST_F(GatewaySlowReadersTest, WhoGoesAwayInTheMiddleMakesNoPayloadBad)
{
  storeLarge(1);
  for (char const* const accept : {"application/json", "application/jsonl"})
    for (char const* const coding : {"identity", "gzip"})
    {
      {
        HttpConnection leaving(m_gateway.port(), "127.0.0.1", HttpConnection::TAKES_LITTLE);
        leaving.send(std::string("GET /api/v1/items HTTP/1.1\r\nHost: localhost\r\nAccept: ") +
                     accept + "\r\nAccept-Encoding: " + coding + "\r\n\r\n");
        EXPECT_TRUE(leaving.await("\r\n\r\n"));
      }
      EXPECT_EQ(m_gateway.get(targetOf(0), "Accept: application/xml\r\n").status, 200);
      EXPECT_EQ(m_gateway.get("/api/v1/filters/host").status, 200);
      EXPECT_THAT(m_gateway.log(), testing::Not(HasSubstr("Failed to parse")))
          << accept << ' ' << coding;
    }
}

namespace
{

class GatewaySizeTest : public GatewayTest
{
protected:
  GatewaySizeTest() : GatewayTest("WEB_LIMIT_PAYLOAD = 65536\n") {}

  void storeItems(std::string const& subject, int count) const
  {
    std::string items;
    for (int i = 0; i < count; ++i)
      items += "<DISCOVERED Name=\"" + std::to_string(i) +
               "\"><ExplorerData Name=\"x\"><A>1</A><B>2</B></ExplorerData></DISCOVERED>";
    store(subject, "host", itemsDocument(items));
  }
};

} // namespace

TEST_F(GatewaySizeTest, WhatIsTooLargeIsToldSo)
{
  std::string const xml = "Accept: application/xml\r\n";
  storeItems("small", 10);
  storeItems("medium", 500); // of which JSON makes more
  storeItems("large", 1'000);
  ASSERT_TRUE(m_gateway.awaitDiscoveries(3));
  EXPECT_EQ(m_gateway.get("/api/v1/discoveries/small/host").status, 200);
  EXPECT_EQ(m_gateway.get("/api/v1/discoveries/medium/host", xml).status, 200);
  HttpAnswer const medium = m_gateway.get("/api/v1/discoveries/medium/host");
  EXPECT_EQ(medium.status, 502);
  EXPECT_THAT(medium.body, HasSubstr("larger than this server makes one"));
  HttpAnswer const large = m_gateway.get("/api/v1/discoveries/large/host", xml);
  EXPECT_EQ(large.status, 502);
  EXPECT_THAT(large.body, HasSubstr("could not be had"));
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

// Each piece of memory that a request takes is refused in turn. Not of one that makes JSON:
// the library for that ends a program that has none left.
TEST(GatewayMemoryTest, WhereThereIsNoMemoryARequestFailsAndNothingElse)
{
  LiveService service;
  SharedPlan plan;
  Gateway gateway(service);
  ASSERT_TRUE(service.start()) << service.log();
  ASSERT_TRUE(gateway.start(plan.environment())) << gateway.log();
  ASSERT_TRUE(gateway.awaitState("up")) << gateway.log();
  constexpr int PIECES = 60;
  std::map<int, int> statuses;
  for (int piece = 1; piece <= PIECES; ++piece)
  {
    plan.refuse(piece, 1);
    ++statuses[gateway.get("/metrics").status];
    plan.grant();
  }
  EXPECT_GT(statuses[500], PIECES / 4);
  EXPECT_EQ(statuses[0] + statuses[200] + statuses[500], PIECES)
      << "some were refused to others, or before there was a request to answer";
  EXPECT_EQ(gateway.get("/metrics").status, 200) << gateway.log();
  EXPECT_EQ(gateway.stop(), 0);
  EXPECT_EQ(service.stop(), 0);
}

#endif
