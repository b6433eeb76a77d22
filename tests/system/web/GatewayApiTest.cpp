// Every endpoint, against its description and against what tqdiscoctl prints.

#include "tests/system/web/GatewayTesting.h"

#include <filesystem>

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
    std::filesystem::create_directory(m_service / "page");
    writeText(m_service / "page/index.html", "<p>the page</p>");
    m_gateway.setPage(m_service / "page");
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

// What can be asked for lies beside what was found, as of another type.
TEST_F(GatewayApiTest, WhatWasFoundGoesBeforeWhatCanBeAskedFor)
{
  writeText(m_service / "found", itemsDocument("<DISCOVERED Name=\"web1\"><ExplorerData Name=\"x\">"
                                               "<Size>3</Size></ExplorerData></DISCOVERED>"));
  EXPECT_EQ(run({"put", "web1", "host", m_service / "found", "--type", "client"}).exitCode, 0);
  ASSERT_TRUE(m_gateway.awaitDiscoveries(4));
  std::string const target = "/api/v1/discoveries/web1/host";
  auto const size = [&](std::string const& query)
  { return m_gateway.get(target + query).json()["items"][0]["facts"]["Size"]; };
  EXPECT_EQ(size("?type=external"), 1048576);
  EXPECT_EQ(size("?type=client"), 3);
  EXPECT_EQ(size(""), 3);
}

TEST_F(GatewayApiTest, AnswersTellBrowsersToRunNothingOfThem)
{
  for (char const* target :
       {"/api/v1/hosts", "/api/v1/discoveries/web1/host", "/nothing", "/api/v1/items"})
    EXPECT_EQ(m_gateway.get(target, "Accept: */*\r\n").header("Content-Security-Policy"),
              "default-src 'none'; frame-ancestors 'none'; sandbox")
        << target;
}

TEST_F(GatewayApiTest, ThePageRunsItsOwnScriptsAlone)
{
  HttpAnswer const page = m_gateway.get("/");
  EXPECT_EQ(page.body, "<p>the page</p>");
  EXPECT_EQ(page.header("Content-Type"), "text/html; charset=utf-8");
  EXPECT_EQ(page.header("Content-Security-Policy"),
            "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data:; "
            "connect-src 'self'; font-src 'self'; base-uri 'none'; form-action 'none'; "
            "frame-ancestors 'none'");
}

TEST_F(GatewayApiTest, WhatIsAnsweredIsForNoOtherPage)
{
  for (char const* target : {"/", "/api/v1/hosts", "/nothing", "/api/v1/items", "/api/v1/events"})
  {
    HttpConnection connection(m_gateway.port());
    connection.send(std::string("GET ") + target + " HTTP/1.1\r\nHost: localhost\r\n\r\n");
    ASSERT_TRUE(connection.await("\r\n\r\n")) << target;
    HttpAnswer const answer(connection.text());
    EXPECT_EQ(answer.header("X-Content-Type-Options"), "nosniff") << target;
    EXPECT_EQ(answer.header("X-Frame-Options"), "DENY") << target;
    EXPECT_EQ(answer.header("Referrer-Policy"), "no-referrer") << target;
    EXPECT_EQ(answer.header("Cross-Origin-Resource-Policy"), "same-origin") << target;
    EXPECT_EQ(answer.header("Cross-Origin-Opener-Policy"), "same-origin") << target;
    EXPECT_EQ(answer.header("Cache-Control"), "no-cache") << target;
    EXPECT_EQ(answer.header("Access-Control-Allow-Origin"), "") << target;
    bool const hasForms = target != std::string("/api/v1/events");
    EXPECT_EQ(answer.header("Vary"), hasForms ? "Accept, Accept-Encoding" : "") << target;
  }
}

// A page of others whose name leads here would have its scripts read what is served.
TEST_F(GatewayApiTest, ARequestForAnotherHostIsRefused)
{
  EXPECT_EQ(refusalsOf(m_gateway, 403, "evil.example"), "");
}
