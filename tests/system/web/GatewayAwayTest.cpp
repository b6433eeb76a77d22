// A master that stops and comes back, and what those hear who listen.

#include "tests/system/web/GatewayTesting.h"

namespace
{

using namespace tqtest;
using nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

class GatewayAwayTest : public GatewayTest
{
protected:
  void listen(HttpConnection& connection, std::string const& more = "") const
  {
    connection.send("GET /api/v1/events HTTP/1.1\r\nHost: localhost\r\n" + more + "\r\n");
    EXPECT_TRUE(connection.await("event: state\n")) << connection.text();
  }
};

} // namespace

TEST_F(GatewayAwayTest, WhatWasListedIsServedWhileTheMasterIsAway)
{
  storeFact("web2", "host", "<Size>1</Size>");
  ASSERT_TRUE(m_gateway.awaitDiscoveries(1));
  HttpConnection events(m_gateway.port());
  listen(events);
  EXPECT_EQ(m_service.stop(), 0);
  ASSERT_TRUE(m_gateway.awaitState("away"));
  EXPECT_TRUE(events.await("\"state\":\"away\""));
  json const master = m_gateway.get("/api/v1/status").json()["masters"][0];
  EXPECT_TRUE(master["since"].is_string());
  EXPECT_TRUE(master["reason"].is_string());
  EXPECT_TRUE(master["listTime"].is_string());
  EXPECT_EQ(m_gateway.get("/api/v1/hosts").json()["hosts"].size(), 1U);
  EXPECT_EQ(refusalsOf(m_gateway, 502), "");

  ASSERT_TRUE(m_service.start());
  ASSERT_TRUE(m_gateway.awaitState("up"));
  EXPECT_TRUE(events.await("\"state\":\"up\""));
  EXPECT_EQ(m_gateway.get("/api/v1/discoveries/web2/host").status, 200);
}

TEST_F(GatewayAwayTest, ListenersHearWhatComesChangesAndGoes)
{
  HttpConnection events(m_gateway.port());
  listen(events);
  auto const begin = std::chrono::steady_clock::now();
  storeFact("web1", "host", "<Size>1</Size>");
  EXPECT_TRUE(events.await("event: added\n")) << events.text();
  // At once, not when the stream would have given a sign of life.
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
  auto const size = [&]
  { return m_gateway.get("/api/v1/discoveries/web1/host").json()["items"][0]["facts"]["Size"]; };
  EXPECT_EQ(size(), 1);
  // The time of a discovery is told in whole seconds.
  auto const before = std::chrono::steady_clock::now();
  EXPECT_TRUE(eventually(
      [&] { return std::chrono::steady_clock::now() - before > std::chrono::milliseconds(1100); }));
  storeFact("web1", "host", "<Size>2</Size>");
  EXPECT_TRUE(events.await("event: changed\n")) << events.text();
  EXPECT_EQ(size(), 2) << "what was kept of it before is of no use any more";
  store("web2", "short", "<DiscoveredItems/>", {"--expires-in", "1s"});
  EXPECT_TRUE(events.await("event: gone\n")) << events.text();

  // Who comes back hears what was missed, and nothing twice.
  std::string const text = events.text();
  auto const id = text.find("id: ") + 4;
  std::string const first = text.substr(id, text.find('\n', id) - id);
  HttpConnection back(m_gateway.port());
  listen(back, "Last-Event-ID: " + first + "\r\n");
  EXPECT_TRUE(back.await("event: gone\n")) << back.text();
  EXPECT_THAT(back.text(),
              AllOf(HasSubstr("event: changed\n"), Not(HasSubstr("id: " + first + "\n")),
                    Not(HasSubstr("event: reset"))));
  HttpConnection stranger(m_gateway.port());
  listen(stranger, "Last-Event-ID: another-7\r\n");
  EXPECT_TRUE(stranger.await("event: reset\n")) << stranger.text();
}

TEST(GatewayStartTest, NothingIsServedAsIfItWereAllBeforeTheFirstList)
{
  LiveService service;
  Gateway gateway(service);
  ASSERT_TRUE(gateway.start()) << gateway.log();
  ASSERT_TRUE(gateway.awaitState("away"));
  EXPECT_EQ(refusalsOf(gateway, 503), "");
  EXPECT_NE(gateway.get("/api/v1/hosts").header("Retry-After"), "");
  EXPECT_EQ(gateway.stop(), 0);
}
