// Answers, what is kept of them, and what clients accept.

#include "web/Answer.h"
#include "web/AnswerCache.h"
#include "web/Access.h"
#include "web/HeaderValues.h"

#include <gmock/gmock.h>

using namespace Web;
using testing::HasSubstr;

TEST(AnswerTest, GzipIsAcceptedWhereItIsSaidSo)
{
  for (char const* header : {"gzip", "deflate, gzip", "GZIP;q=0.5", "gzip;q=1", "gzip;Q=0.001", "*",
                             "br;q=1.0, *;q=0.1"})
    EXPECT_TRUE(acceptsGzip(header)) << header;
  for (char const* header : {"", "br", "gzip;q=0", "gzip;level=1;Q=0", "gzip;q=1.1", "*, gzip;q=0",
                             "gzip;q=x", "gzipped", "*;q=0"})
    EXPECT_FALSE(acceptsGzip(header)) << header;
}

TEST(AnswerTest, TheTypeThatIsPreferredIsChosen)
{
  std::vector<std::string_view> const types{"application/json", "application/xml"};
  EXPECT_EQ(preferredType("", types), 0U);
  EXPECT_EQ(preferredType("*/*", types), 0U);
  EXPECT_EQ(preferredType("application/xml", types), 1U);
  EXPECT_EQ(preferredType("application/json;q=0.5, application/*", types), 1U);
  EXPECT_EQ(preferredType("text/html, application/xml;q=0.9, */*;q=0.8", types), 1U);
  EXPECT_EQ(preferredType("text/html", types), std::string_view::npos);
  EXPECT_EQ(preferredType("application/json;q=0", types), std::string_view::npos);
}

TEST(AnswerTest, ATagIsFoundAmongOthers)
{
  EXPECT_TRUE(hasTag("\"a\", W/\"b\"", "\"b\""));
  EXPECT_TRUE(hasTag("*", "\"b\""));
  EXPECT_FALSE(hasTag("\"ab\"", "\"b\""));
  EXPECT_FALSE(hasTag("", "\"b\""));
}

TEST(AnswerTest, TextWorthItIsZipped)
{
  EXPECT_EQ(answerOf(std::string("short")).zipped, nullptr);
  Answer const answer = answerOf(std::string(10'000, 'x'));
  ASSERT_NE(answer.zipped, nullptr);
  EXPECT_LT(answer.zipped->size(), 1000U);
  EXPECT_TRUE(answer.zipped->starts_with("\x1f\x8b"));
  EXPECT_EQ(answerOf(std::string(10'000, 'x'), "image/png").zipped, nullptr);
}

TEST(AnswerTest, AMistakeIsToldWithItsPlace)
{
  Answer const answer = problem(Mistake{"bad", "where", Mistake::Place{1, 8}});
  EXPECT_EQ(answer.status, 400U);
  EXPECT_EQ(answer.type, "application/problem+json");
  EXPECT_EQ(nlohmann::json::parse(*answer.body),
            nlohmann::json::parse(R"({"type":"about:blank","title":"Bad Request","status":400,
              "detail":"bad","parameter":"where","position":{"line":1,"column":8}})"));
}

TEST(AnswerTest, WhatIsRefusedHasNoTagAndSaysWhatWouldBeTaken)
{
  using Headers = std::vector<std::pair<std::string, std::string>>;
  EXPECT_EQ(problem(404, "x").etag, "");
  EXPECT_EQ(problem(404, "x").headers, Headers());
  EXPECT_EQ(problem(405, "x").headers, (Headers{{"Allow", "GET, HEAD"}}));
  EXPECT_EQ(problem(503, "x").headers, (Headers{{"Retry-After", "2"}}));
}

TEST(AnswerCacheTest, WhatIsKeptAnewTakesThePlaceOfWhatWas)
{
  Answer const answer = answerOf(std::string(1000, 'x'), "image/png");
  Answer const other = answerOf(std::string(1000, 'y'), "image/png");
  AnswerCache cache(3 * (answer.size() + 300));
  cache.keep("a", answer);
  cache.keep("b", answer);
  cache.keep("a", other);
  cache.keep("c", answer);
  ASSERT_TRUE(cache.find("a"));
  EXPECT_EQ(*cache.find("a")->body, *other.body);
  EXPECT_TRUE(cache.find("b"));
  EXPECT_TRUE(cache.find("c"));
}

TEST(AnswerCacheTest, WhatWasUsedLongestAgoGoesFirst)
{
  Answer const answer = answerOf(std::string(1000, 'x'), "image/png");
  AnswerCache cache(3 * (answer.size() + 300));
  cache.keep("a", answer);
  cache.keep("b", answer);
  cache.keep("c", answer);
  EXPECT_TRUE(cache.find("a"));
  cache.keep("d", answer);
  EXPECT_TRUE(cache.find("a"));
  EXPECT_FALSE(cache.find("b"));
  EXPECT_TRUE(cache.find("c"));
  EXPECT_TRUE(cache.find("d"));
  cache.keep("large", answerOf(std::string(100'000, 'x'), "image/png"));
  EXPECT_FALSE(cache.find("large"));
  EXPECT_TRUE(cache.find("d"));
  AnswerCache none(0);
  none.keep("a", answer);
  EXPECT_FALSE(none.find("a"));
}

TEST(AccessTest, ATokenComesInEitherScheme)
{
  Settings settings;
  settings.token = "0123456789abcdef";
  Access const access(settings);
  EXPECT_TRUE(access.hasToken("Bearer 0123456789abcdef"));
  EXPECT_TRUE(access.hasToken("bearer  0123456789abcdef"));
  EXPECT_TRUE(access.hasToken("Basic YW55OjAxMjM0NTY3ODlhYmNkZWY=")); // any:0123...
  for (char const* header :
       {"", "Bearer", "Bearer ", "Bearer 0123456789abcdeF", "Bearer 1123456789abcdef",
        "Bearer 0123456789abcde", "Basic", "Basic !!!!",
        "Basic MDEyMzQ1Njc4OWFiY2RlZg==", "Digest 0123456789abcdef"})
    EXPECT_FALSE(access.hasToken(header)) << header;
}

TEST(AccessTest, OnlyAddressesAndLocalhostAreOwnHosts)
{
  for (char const* host :
       {"localhost", "LOCALHOST:27580", "127.0.0.1", "127.0.0.1:80", "[::1]", "[::1]:27580"})
    EXPECT_TRUE(Access::isOwnHost(host)) << host;
  for (char const* host :
       {"", "evil.example", "localhost.evil.example", "127.0.0.1.evil.example:1", "[::1", "[x]:1"})
    EXPECT_FALSE(Access::isOwnHost(host)) << host;
}
