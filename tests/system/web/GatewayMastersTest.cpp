// One gateway of two masters, of which each may be away, or hang.

#include "tests/system/web/GatewayTesting.h"

#include <list>
#include <optional>
#include <set>

namespace
{

using namespace tqtest;
using nlohmann::json;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

// Two masters that know nothing of one another, each at an address and a port of its own. Both
// know web1.
class GatewayMastersTest : public testing::Test
{
protected:
  GatewayMastersTest()
      : m_gateway(m_east, "WEB_MASTERS = east\nWEB_MASTERS = west\nWEB_LIMIT_REQUEST = 6\n"
                          "HOST_ADDRESS.east = 127.0.0.1\nHOST_ADDRESS.west = 127.0.0.2\n"
                          "HOST_PORT.west = " +
                              std::to_string(m_westPort) + "\n")
  {
    writeText(m_west / "etc/tq.conf",
              "SERVER = west\nCLIENT_NAME = west\nHOST_ADDRESS.west = 127.0.0.2\n"
              "ORB_BIND = 127.0.0.2\nORB_PORT.DiscoveryService = " +
                  std::to_string(m_westPort) + "\n");
  }

  void SetUp() override
  {
    ASSERT_TRUE(m_east.start()) << m_east.log();
    ASSERT_TRUE(m_west.start()) << m_west.log();
    store(m_east, "web1", "<Size>1</Size>");
    store(m_west, "web1", "<Size>2</Size>");
    store(m_west, "web2", "<Size>3</Size>");
    ASSERT_TRUE(m_gateway.start()) << m_gateway.log();
    ASSERT_TRUE(m_gateway.awaitDiscoveries(3)) << m_gateway.get("/api/v1/status").body;
  }
  void TearDown() override { EXPECT_EQ(m_gateway.stop(), 0) << m_gateway.log(); }

  static void store(LiveService const& master, std::string const& subject, std::string const& fact)
  {
    writeText(master / "payload",
              itemsDocument("<DISCOVERED Name=\"" + subject + "\"><ExplorerData Name=\"x\">" +
                            fact + "</ExplorerData></DISCOVERED>"));
    Outcome const outcome = master.tqdiscoctl({"put", subject, "host", master / "payload"});
    ASSERT_EQ(outcome.exitCode, 0) << outcome.errors;
  }

  // "east web1" and so on.
  static std::vector<std::string> namesIn(json const& elements, char const* member)
  {
    std::vector<std::string> names;
    for (auto const& each : elements)
      names.push_back(each["master"].get<std::string>() + ' ' + each[member].get<std::string>());
    return names;
  }

  // Of an answer that has to come at once. Where this machine is slow it is asked for again; one
  // that waits for a master is as late each time.
  HttpAnswer quickly(std::string const& target) const
  {
    std::optional<HttpAnswer> answer;
    EXPECT_TRUE(eventually(
        [&]
        {
          auto const begin = std::chrono::steady_clock::now();
          answer.emplace(m_gateway.get(target));
          return std::chrono::steady_clock::now() - begin < std::chrono::seconds(4);
        }))
        << target;
    return *answer;
  }

  // Lines, and whether their end was one.
  std::pair<std::size_t, bool> lines() const
  {
    HttpAnswer const answer = m_gateway.get("/api/v1/items", "Accept: application/jsonl\r\n");
    EXPECT_EQ(answer.status, 200);
    return {occurrences(answer.body, "\"subject\""), answer.body.ends_with("\r\n0\r\n\r\n")};
  }

  unsigned short const m_westPort = freePort();
  LiveService m_east;
  LiveService m_west;
  Gateway m_gateway;
};

constexpr char OF_EAST[] = "/api/v1/discoveries/web1/host?master=east";
constexpr char OF_WEST[] = "/api/v1/discoveries/web1/host?master=west";

} // namespace

TEST_F(GatewayMastersTest, WhatEachKnowsIsToldWithItsName)
{
  EXPECT_THAT(namesIn(m_gateway.get("/api/v1/hosts").json()["hosts"], "host"),
              ElementsAre("east web1", "west web1", "west web2"));
  json const host = m_gateway.get("/api/v1/hosts/web1").json();
  EXPECT_THAT(namesIn(host["summaries"], "host"), ElementsAre("east web1", "west web1"));
  EXPECT_THAT(namesIn(host["records"], "subject"), ElementsAre("east web1", "west web1"));
  json const first = m_gateway.get("/api/v1/discoveries?limit=1").json();
  EXPECT_THAT(namesIn(first["discoveries"], "subject"), ElementsAre("east web1"));
  json const second =
      m_gateway.get("/api/v1/discoveries?cursor=" + first["next"].get<std::string>()).json();
  EXPECT_THAT(namesIn(second["discoveries"], "subject"), ElementsAre("west web1", "west web2"));

  EXPECT_EQ(m_gateway.get(OF_EAST).json()["items"][0]["facts"]["Size"], 1);
  EXPECT_EQ(m_gateway.get(OF_WEST).json()["items"][0]["facts"]["Size"], 2);
  EXPECT_EQ(m_gateway.get("/api/v1/discoveries/web1/host").json()["master"], "east");
  EXPECT_EQ(m_gateway.get("/api/v1/discoveries/web2/host").json()["master"], "west");
  EXPECT_EQ(m_gateway.get("/api/v1/discoveries/web2/host?master=east").status, 404);
  EXPECT_THAT(lines(), testing::Pair(3U, true));

  std::string const metrics = m_gateway.get("/metrics").body;
  for (char const* const line :
       {"tqdisco_up{master=\"east\"} 1\n", "tqdisco_up{master=\"west\"} 1\n",
        "tqdisco_discoveries{master=\"east\",authority=\"host\",type=\"external\"} 1\n",
        "tqdisco_discoveries{master=\"west\",authority=\"host\",type=\"external\"} 2\n"})
    EXPECT_THAT(metrics, HasSubstr(line));
  EXPECT_EQ(m_east.stop(), 0) << m_east.log();
  EXPECT_EQ(m_west.stop(), 0) << m_west.log();
}

TEST_F(GatewayMastersTest, OneThatIsAwayTakesNothingFromTheOther)
{
  EXPECT_EQ(m_east.stop(), 0) << m_east.log();
  ASSERT_TRUE(m_gateway.awaitState("away", "east"));
  EXPECT_TRUE(m_gateway.awaitState("up", "west"));
  EXPECT_THAT(namesIn(quickly("/api/v1/hosts").json()["hosts"], "host"),
              ElementsAre("east web1", "west web1", "west web2"));
  EXPECT_EQ(quickly(OF_EAST).status, 502);
  EXPECT_EQ(quickly(OF_WEST).status, 200);
  std::string const metrics = quickly("/metrics").body;
  EXPECT_THAT(metrics, HasSubstr("tqdisco_up{master=\"east\"} 0\n"));
  EXPECT_THAT(metrics, HasSubstr("tqdisco_up{master=\"west\"} 1\n"));

  // What is missing is told: by the end of lines, in an array, and in a header.
  EXPECT_THAT(lines(), testing::Pair(2U, false));
  HttpAnswer const items = m_gateway.get("/api/v1/items", "Connection: close\r\n");
  EXPECT_THAT(items.body, AllOf(HasSubstr("\"complete\": false"), HasSubstr("\"complete\": true")));
  EXPECT_TRUE(items.body.ends_with("\r\n0\r\n\r\n"));
  HttpAnswer const filters = m_gateway.get("/api/v1/filters/host");
  EXPECT_EQ(filters.status, 200);
  EXPECT_EQ(filters.header("Tqdisco-Complete"), "false");

  ASSERT_TRUE(m_east.start());
  ASSERT_TRUE(m_gateway.awaitState("up", "east"));
  EXPECT_EQ(m_gateway.get(OF_EAST).status, 200);
  EXPECT_THAT(lines(), testing::Pair(3U, true));
  EXPECT_EQ(m_gateway.get("/api/v1/filters/host").header("Tqdisco-Complete"), "true");
  EXPECT_EQ(m_east.stop(), 0) << m_east.log();
  EXPECT_EQ(m_west.stop(), 0) << m_west.log();
}

TEST_F(GatewayMastersTest, OneThatHangsTakesNothingFromTheOther)
{
  m_east.process().freeze();
  // Those who ask the other have their answers while all of these still wait, unless this machine
  // is so slow meanwhile that the time for a request is over: then all is asked anew.
  EXPECT_TRUE(eventually(
      [&]
      {
        constexpr std::size_t WAITING = 20; // more than the threads that read for one address
        std::list<HttpConnection> waiting;
        for (std::size_t i = 0; i < WAITING; ++i)
          waiting.emplace_back(m_gateway.port())
              .send("GET " + std::string(OF_EAST) +
                    " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n");
        bool right = true;
        for (char const* const target : {OF_WEST, "/api/v1/hosts", "/metrics"})
          right = m_gateway.get(target).status == 200 && right;
        right = right && std::none_of(waiting.begin(), waiting.end(),
                                      [](HttpConnection const& each)
                                      { return each.comes(std::chrono::milliseconds(0)); });
        // Those that were begun did not come in time, and for the rest there was none left.
        std::multiset<int> statuses;
        for (HttpConnection& each : waiting)
          statuses.insert(HttpAnswer(each.readToEnd()).status);
        EXPECT_GE(statuses.count(504), 1U);
        EXPECT_EQ(statuses.count(504) + statuses.count(503), WAITING)
            << testing::PrintToString(statuses);
        return right;
      }));
  ASSERT_TRUE(m_gateway.awaitState("away", "east"));
  EXPECT_EQ(quickly(OF_WEST).status, 200);

  m_east.process().sendSignal(SIGCONT);
  ASSERT_TRUE(m_gateway.awaitState("up", "east"));
  EXPECT_EQ(m_gateway.get(OF_EAST).status, 200);
  EXPECT_EQ(m_east.stop(), 0) << m_east.log();
  EXPECT_EQ(m_west.stop(), 0) << m_west.log();
}
