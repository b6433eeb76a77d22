// Every endpoint, against its description and against what tqdiscoctl prints.

#include "tests/system/web/GatewayTesting.h"

namespace
{

using namespace tqtest;
using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

class GatewayApiTest : public GatewayTest
{
protected:
  void SetUp() override
  {
    GatewayTest::SetUp();
    storeFact("web1", "host", "<Size>1048576</Size>");
    storeFact("web2", "host", "<Size>5</Size><Kind>small</Kind>");
    storeFact("web2", "a/b ä%2F", "<Size>7</Size>");
    ASSERT_TRUE(m_gateway.awaitDiscoveries(3));
  }
};

} // namespace

TEST_F(GatewayApiTest, EachAnswerIsAsItsDescriptionAndAsTheCommandPrintsIt)
{
  Outcome const outcome =
      runProgram("/usr/bin/python3",
                 {TQ_SOURCE_DIR "/tests/system/web/check_api.py",
                  "http://127.0.0.1:" + std::to_string(m_gateway.port()), TQ_BIN_DIR "/tqdiscoctl"},
                 {{"TESSARINE_ROOT", m_service.root()}});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.output << outcome.errors;
  EXPECT_THAT(outcome.output, HasSubstr(" answers were as they should be"));
}

TEST_F(GatewayApiTest, PagesGoOnWhereTheyEnded)
{
  std::vector<std::string> seen;
  std::string cursor;
  for (int pages = 0; pages < 5; ++pages)
  {
    json const page = m_gateway.get("/api/v1/discoveries?limit=1" + cursor).json();
    for (auto const& record : page["discoveries"])
      seen.push_back(record["subject"].get<std::string>() + ' ' +
                     record["authority"].get<std::string>());
    if (page["next"].is_null())
      break;
    std::string next;
    for (char const c : page["next"].get<std::string>())
      next += c == '%' ? "%25" : std::string(1, c);
    cursor = "&cursor=" + next;
    // What comes or goes meanwhile moves nothing.
    if (pages == 0)
    {
      storeFact("aaa", "host", "");
      EXPECT_TRUE(m_gateway.awaitDiscoveries(4));
    }
  }
  EXPECT_THAT(seen, ElementsAre("web1 host", "web2 a/b ä%2F", "web2 host"));
}

TEST_F(GatewayApiTest, AnAnswerThatHasNotChangedIsNotSentAgain)
{
  HttpAnswer const first = m_gateway.get("/api/v1/hosts");
  std::string const tag = first.header("ETag");
  EXPECT_THAT(tag, StartsWith("W/\""));
  HttpAnswer const same = m_gateway.get("/api/v1/hosts", "If-None-Match: " + tag + "\r\n");
  EXPECT_EQ(same.status, 304);
  EXPECT_EQ(same.body, "");
  storeFact("web3", "host", "");
  EXPECT_TRUE(eventually(
      [&]
      { return m_gateway.get("/api/v1/hosts", "If-None-Match: " + tag + "\r\n").status == 200; }));
}

TEST_F(GatewayApiTest, AnswersTellBrowsersToRunNothingOfThem)
{
  for (char const* target :
       {"/api/v1/hosts", "/api/v1/discoveries/web1/host", "/nothing", "/api/v1/items"})
  {
    HttpAnswer const answer = m_gateway.get(target, "Accept: */*\r\n");
    EXPECT_THAT(answer.header("Content-Security-Policy"), HasSubstr("default-src 'none'"))
        << target;
    EXPECT_THAT(answer.header("Content-Security-Policy"), HasSubstr("sandbox")) << target;
    EXPECT_EQ(answer.header("X-Content-Type-Options"), "nosniff") << target;
    EXPECT_EQ(answer.header("Access-Control-Allow-Origin"), "") << target;
  }
}

// A page of others whose name leads here would have its scripts read what is served.
TEST_F(GatewayApiTest, ARequestForAnotherHostIsRefused)
{
  EXPECT_EQ(refusalsOf(m_gateway, 403, "evil.example"), "");
}
