// Clients that mean no good, and many at once.

#include "tests/system/web/GatewayTesting.h"

#include <atomic>
#include <list>
#include <map>
#include <thread>

namespace
{

using namespace tqtest;
using testing::AnyOf;
using testing::HasSubstr;
using testing::StartsWith;

class GatewayHostileTest : public GatewayTest
{
protected:
  void SetUp() override
  {
    GatewayTest::SetUp();
    storeFact("web1", "host", "<Size>1</Size>");
    ASSERT_TRUE(m_gateway.awaitDiscoveries(1));
  }

  // What comes back for these bytes, to the end of the connection.
  std::string exchange(std::string const& bytes) const
  {
    HttpConnection connection(m_gateway.port());
    connection.send(bytes);
    return connection.readToEnd();
  }

  // So many clients at the same time, each with a few requests; how many answers were right.
  int answersToMany(int clients, char const* from) const
  {
    constexpr int REQUESTS = 3;
    std::atomic<int> right{0};
    std::list<std::thread> threads;
    for (int i = 0; i < clients; ++i)
      threads.emplace_back(
          [&, i]
          {
            char const* const targets[] = {"/api/v1/hosts", "/api/v1/discoveries/web1/host",
                                           "/api/v1/items"};
            for (int j = 0; j < REQUESTS; ++j)
            {
              HttpConnection connection(m_gateway.port(), from);
              connection.send("GET " + std::string(targets[(i + j) % REQUESTS]) +
                              " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n");
              HttpAnswer const answer(connection.readToEnd());
              right += answer.status == 200 && answer.body.find("web1") != std::string::npos;
            }
          });
    for (std::thread& thread : threads)
      thread.join();
    return right;
  }
};

} // namespace

TEST_F(GatewayHostileTest, HeadersThatAreTooLargeAreRefused)
{
  std::string const large(100'000, 'x');
  EXPECT_THAT(
      exchange("GET /api/v1/status HTTP/1.1\r\nHost: localhost\r\nX: " + large + "\r\n\r\n"),
      AnyOf(StartsWith("HTTP/1.1 431"), StartsWith("HTTP/1.1 413")));
  EXPECT_THAT(exchange("GET /" + large + " HTTP/1.1\r\nHost: localhost\r\n\r\n"),
              AnyOf(StartsWith("HTTP/1.1 414"), StartsWith("HTTP/1.1 431")));
  std::string many = "GET /api/v1/status HTTP/1.1\r\nHost: localhost\r\n";
  for (int i = 0; i < 5'000; ++i)
    many += "X" + std::to_string(i) + ": 1\r\n";
  EXPECT_THAT(exchange(many + "\r\n"), StartsWith("HTTP/1.1 431"));
  EXPECT_EQ(m_gateway.get("/api/v1/status").status, 200);
}

TEST_F(GatewayHostileTest, ParametersThatAreTooManyAreRefused)
{
  for (std::size_t const count : {17U, 300U, 2'000U})
  {
    std::string target = "/api/v1/status?a=1";
    for (std::size_t i = 1; i < count; ++i)
      target += "&p" + std::to_string(i);
    HttpAnswer const answer = m_gateway.get(target);
    EXPECT_EQ(answer.status, 400) << count;
    EXPECT_EQ(answer.header("Content-Type"), "application/problem+json") << count;
    EXPECT_THAT(answer.body, HasSubstr("too many parameters")) << count;
  }
}

// Those of all that a browser has seen on this host, at whatever port.
TEST_F(GatewayHostileTest, CookiesAreNoReasonToFallSilent)
{
  std::string many;
  for (int i = 0; i < 1'000; ++i)
    many += "c" + std::to_string(i) + "=1; ";
  for (std::string const& cookies : {many, "c=" + std::string(8'000, 'x'), std::string()})
    EXPECT_EQ(m_gateway.get("/api/v1/status", "Cookie: " + cookies + "\r\n").status, 200)
        << cookies.size();
}

TEST_F(GatewayHostileTest, WhatComesNearARequestIsToldWhatItLacks)
{
  for (auto const& [request, detail] : std::map<std::string, std::string>{
           {"GET /api/v1/status HTTP/1.1\r\nConnection: close\r\n\r\n",
            "the header Host is missing"},
           {"GET /api/v1/hosts?subject=a b HTTP/1.1\r\nHost: localhost\r\nConnection: "
            "close\r\n\r\n",
            "percent-encoded"}})
  {
    std::string const text = exchange(request);
    HttpAnswer const answer(text);
    EXPECT_EQ(answer.status, 400) << text;
    EXPECT_EQ(answer.header("Content-Type"), "application/problem+json") << text;
    EXPECT_THAT(answer.body, HasSubstr(detail));
    EXPECT_EQ(answer.header("Content-Length"), std::to_string(answer.body.size())) << text;
  }
}

TEST_F(GatewayHostileTest, ABodyIsRefusedAndNoneIsNot)
{
  for (char const* const none : {"0", "00"})
    EXPECT_EQ(
        m_gateway.get("/api/v1/status", std::string("Content-Length: ") + none + "\r\n").status,
        200)
        << none;
  for (char const* const header : {"Content-Length: 1", "Transfer-Encoding: chunked"})
    EXPECT_EQ(m_gateway.get("/api/v1/status", std::string(header) + "\r\n").status, 413) << header;
}

TEST_F(GatewayHostileTest, RequestsThatFollowOneAnotherAreAnsweredInTheirOrder)
{
  std::string const host = " HTTP/1.1\r\nHost: localhost\r\n";
  std::string const text =
      exchange("GET /api/v1/discoveries/web1/host" + host + "\r\nGET /nothing" + host +
               "\r\nHEAD /api/v1/hosts" + host + "\r\nGET /api/v1/items" + host +
               "\r\nGET /api/v1/status" + host + "Connection: close\r\n\r\n");
  EXPECT_EQ(occurrences(text, "HTTP/1.1 200 "), 4U) << text;
  EXPECT_EQ(occurrences(text, "HTTP/1.1 404 "), 1U) << text;
  EXPECT_LT(text.find("\"complete\": true"), text.find("HTTP/1.1 404 "));
  EXPECT_LT(text.find("HTTP/1.1 404 "), text.find("\"masters\":"));
}

TEST_F(GatewayHostileTest, NoPathLeadsOutOfThePage)
{
  for (char const* path :
       {"/../../etc/passwd", "/..%2f..%2fetc/passwd", "/%2e%2e/%2e%2e/etc/passwd", "//etc/passwd",
        "/.", "/..", "/./index.html/..", "/%2Fetc%2Fpasswd", "/../CMakeLists.txt"})
  {
    HttpAnswer const answer = m_gateway.get(path);
    EXPECT_EQ(answer.status, 404) << path;
    EXPECT_THAT(answer.body, testing::Not(HasSubstr("root:"))) << path;
  }
}

TEST_F(GatewayHostileTest, WhatIsNoRequestEndsNothing)
{
  std::string noise;
  for (int i = 0; i < 5'000; ++i)
    noise += static_cast<char>(i * 37 % 251);
  for (std::string const& bytes :
       {std::string("\r\n\r\n\r\n\r\n"), std::string("GET\r\n\r\n"), noise,
        std::string("GET /api/v1/hosts?subject=%00 HTTP/1.1\r\nHost: localhost\r\n"
                    "Connection: close\r\n\r\n"),
        std::string("GET /api/v1/status HTTP/9.9\r\n\r\n"),
        std::string("GET http://evil/ HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n"),
        std::string("POST /api/v1/status HTTP/1.1\r\nHost: localhost\r\n"
                    "Content-Length: 99999999999999999999\r\n\r\n"),
        std::string("POST /api/v1/status HTTP/1.1\r\nHost: localhost\r\n"
                    "Transfer-Encoding: chunked\r\n\r\nffffffffffffffff\r\n")})
  {
    HttpConnection connection(m_gateway.port());
    connection.send(bytes);
    connection.endSending();
    EXPECT_THAT(connection.readToEnd(), testing::Not(StartsWith("HTTP/1.1 2"))) << bytes;
  }
  EXPECT_EQ(m_gateway.get("/api/v1/status").status, 200);
}

TEST_F(GatewayHostileTest, TwoHundredClientsAtOnceAreAllAnswered)
{
  EXPECT_EQ(answersToMany(200, "127.0.0.1"), 600) << m_gateway.log();
}

// From several addresses, so that not only the limit of one holds them off. They send a
// little now and then, as those do who do not want to be taken for idle.
TEST_F(GatewayHostileTest, AThousandSlowClientsKeepNobodyOutAndAreEnded)
{
  std::list<HttpConnection> slow;
  for (int i = 0; i < 1'000; ++i)
    slow.emplace_back(m_gateway.port(), ("127.0.0." + std::to_string(10 + i % 5)).c_str())
        .send("GET /api/v1/hosts HTTP/1.1\r\nX: ");
  EXPECT_EQ(answersToMany(20, "127.0.0.1"), 60) << m_gateway.log();
  EXPECT_TRUE(eventually(
      [&]
      {
        for (HttpConnection& each : slow)
          each.send("x");
        return std::all_of(slow.begin(), slow.end(),
                           [](HttpConnection& each) { return each.isEnded(); });
      }));
  EXPECT_EQ(m_gateway.get("/api/v1/status").status, 200);
}

// The others stay: it is not their slowness that ends those that are too many.
TEST_F(GatewayHostileTest, OneAddressHasItsLimit)
{
  constexpr int MOST = 256;
  constexpr int MORE = 44;
  std::list<HttpConnection> held;
  for (int i = 0; i < MOST + MORE; ++i)
    held.emplace_back(m_gateway.port(), "127.0.0.2");
  auto const ended = [&]
  {
    return std::count_if(held.begin(), held.end(),
                         [](HttpConnection& each) { return each.isEnded(); });
  };
  EXPECT_TRUE(eventually([&] { return ended() >= MORE; }));
  EXPECT_EQ(ended(), MORE);
  EXPECT_EQ(m_gateway.get("/api/v1/status").status, 200);
}

TEST_F(GatewayHostileTest, MemoryStaysBounded)
{
  answersToMany(50, "127.0.0.1");
  long const before = m_gateway.memory();
  // Never the same, so that what is kept grows as far as it may.
  for (int i = 0; i < 3'000; ++i)
  {
    HttpConnection connection(m_gateway.port());
    connection.send("GET /api/v1/hosts?subject=" + std::string(8'000, 'x') + std::to_string(i) +
                    " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n");
    if (i % 2 == 0) // and half of them do not read it
      connection.readToEnd();
  }
#if defined(__SANITIZE_ADDRESS__)
  constexpr long MOST = 512; // it keeps a quarter of a gibibyte of what was freed
#else
  constexpr long MOST = 64;
#endif
  EXPECT_LT(m_gateway.memory() - before, MOST);
}

namespace
{

class GatewayListenersTest : public GatewayTest
{
protected:
  explicit GatewayListenersTest(std::string const& entries = "WEB_LIMIT_EVENTS = 3\n")
      : GatewayTest(entries)
  {
  }

  void listen(int count)
  {
    for (int i = 0; i < count; ++i)
    {
      m_listeners.emplace_back(m_gateway.port())
          .send("GET /api/v1/events HTTP/1.1\r\nHost: localhost\r\n\r\n");
      EXPECT_TRUE(m_listeners.back().await("event: state"));
    }
  }

  std::list<HttpConnection> m_listeners;
};

class GatewayFullTest : public GatewayListenersTest
{
protected:
  GatewayFullTest() : GatewayListenersTest("WEB_LIMIT_CONNECTIONS = 8\n") {}
};

} // namespace

TEST_F(GatewayListenersTest, StreamsOfEventsHaveALimit)
{
  listen(3);
  EXPECT_EQ(m_gateway.get("/api/v1/events").status, 503);
}

// Those that are there stay.
TEST_F(GatewayFullTest, ConnectionsThatAreTooManyWait)
{
  listen(8);
  HttpConnection next(m_gateway.port());
  next.send("GET /api/v1/status HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n");
  EXPECT_FALSE(next.comes(std::chrono::milliseconds(500)));
  m_listeners.pop_front();
  EXPECT_EQ(HttpAnswer(next.readToEnd()).status, 200);
  EXPECT_TRUE(std::none_of(m_listeners.begin(), m_listeners.end(),
                           [](HttpConnection& each) { return each.isEnded(); }));
}
