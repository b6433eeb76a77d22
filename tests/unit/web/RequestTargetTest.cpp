// What a request asks for, and where a list goes on.

#include "web/RequestTarget.h"
#include "web/Cursor.h"

#include <gmock/gmock.h>

using namespace Web;
using testing::ElementsAre;
using testing::HasSubstr;

namespace
{

std::optional<RequestTarget> targetOf(std::string_view text)
{
  Mistake mistake;
  return RequestTarget::fromText(text, mistake);
}

} // namespace

TEST(RequestTargetTest, APathIsTakenApartBeforeItIsDecoded)
{
  EXPECT_THAT(targetOf("/")->path(), ElementsAre(""));
  EXPECT_THAT(targetOf("/api/v1/hosts/a%2Fb%20c")->path(),
              ElementsAre("api", "v1", "hosts", "a/b c"));
  EXPECT_THAT(targetOf("/a+b/")->path(), ElementsAre("a+b", ""));
  EXPECT_THAT(targetOf("/..%2f../%2e%2e")->path(), ElementsAre("../..", ".."));
}

TEST(RequestTargetTest, ParametersAreNamesAndValues)
{
  auto const target = targetOf("/x?where=Size+%3E+1%2B1&limit=5&empty&e2=");
  ASSERT_TRUE(target);
  EXPECT_EQ(*target->find("where"), "Size > 1+1");
  EXPECT_EQ(*target->find("limit"), "5");
  EXPECT_EQ(*target->find("empty"), "");
  EXPECT_EQ(*target->find("e2"), "");
  EXPECT_EQ(target->find("other"), nullptr);
  EXPECT_EQ(*target->unknownBeside({"where", "limit", "empty"}), "e2");
  EXPECT_EQ(target->unknownBeside({"where", "limit", "empty", "e2"}), nullptr);
  EXPECT_TRUE(targetOf("/x?")->find("") == nullptr);
}

TEST(RequestTargetTest, WhatIsNoTargetIsRefused)
{
  for (char const* text : {"",
                           "x",
                           "*",
                           "http://elsewhere/",
                           "/%",
                           "/%1",
                           "/%zz",
                           "/%4g",
                           "/%4`",
                           "/%2",
                           "/a%00b",
                           "/%ff",
                           "/%c0%af",
                           "/a b",
                           "/a#b",
                           "/\x7f",
                           "/\n",
                           "/x?a=%",
                           "/x?%zz=1",
                           "/x?a=%ed%a0%80",
                           "/x?a=1&b=%f5"})
    EXPECT_FALSE(targetOf(text)) << text;
}

TEST(RequestTargetTest, TooManyPartsAreRefusedAsThat)
{
  Mistake mistake;
  EXPECT_TRUE(targetOf("/" + std::string(15, '/')));
  EXPECT_FALSE(RequestTarget::fromText("/" + std::string(16, '/'), mistake));
  EXPECT_EQ(mistake.detail, "the path has too many parts, of which 16 are accepted");
  std::string many = "/x?p=1";
  for (int i = 1; i < 16; ++i)
    many += "&p" + std::to_string(i) + "=1";
  EXPECT_TRUE(targetOf(many));
  EXPECT_FALSE(RequestTarget::fromText(many + "&q=1", mistake));
  EXPECT_EQ(mistake.detail, "there are too many parameters, of which 16 are accepted");
}

TEST(RequestTargetTest, AParameterThatComesTwiceIsNamed)
{
  Mistake mistake;
  EXPECT_FALSE(RequestTarget::fromText("/x?limit=1&l%69mit=2", mistake));
  EXPECT_EQ(mistake.parameter, "limit");
  EXPECT_THAT(mistake.detail, HasSubstr("twice"));
}

TEST(RequestTargetTest, WhatIsEncodedIsDecodedAgain)
{
  std::string all;
  for (int c = 1; c < 128; ++c)
    all += static_cast<char>(c);
  all += "\u00e4\u202e\U0001F600";
  EXPECT_EQ(decoded(encoded(all), false), all);
  EXPECT_EQ(decoded(encoded(all), true), all);
}

TEST(CursorTest, ACursorNamesTheRecordBehindWhichAListGoesOn)
{
  Cursor const cursor{"backup/1", "we b%7", "", -5, true};
  auto const again = Cursor::fromText(cursor.text());
  ASSERT_TRUE(again);
  EXPECT_EQ(again->master, cursor.master);
  EXPECT_EQ(again->subject, cursor.subject);
  EXPECT_EQ(again->authority, cursor.authority);
  EXPECT_EQ(again->type, cursor.type);
  EXPECT_TRUE(again->onDemand);
}

TEST(CursorTest, WhatIsNoCursorIsRefused)
{
  for (char const* text : {"", "a", "a/b/c/2", "a/b/c/x/s", "a/b/c/2x/s", "a/b/c/2/q", "a/b/c/2/s/",
                           "a/%/c/2/s", "a/b/c/99999999999/s", "a/b/c//s", "a/b/c/2 /s"})
    EXPECT_FALSE(Cursor::fromText(text)) << text;
}
