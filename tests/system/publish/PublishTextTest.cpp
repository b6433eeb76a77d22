// Values on their way to PostgreSQL, and what is kept in memory of them.

#include "ozf/orb/Corba.h"
#include "publish/Database.h"
#include "publish/KnownRecords.h"
#include "publish/SqlText.h"

#include <gtest/gtest.h>

#include <array>
#include <stdexcept>
#include <string>
#include <string_view>

TEST(PublishTextTest, WhatPostgresHasNoPlaceForIsReplacedAndAllElseStays)
{
  using namespace std::string_view_literals;
  EXPECT_EQ(Publish::sqlText("a\0b\xFF\xC3"sv), "a\xEF\xBF\xBD"
                                                "b\xEF\xBF\xBD\xEF\xBF\xBD");
  for (std::string_view const text :
       {"", "plain", "tab\tline\n\x1B", "\xC2\x85\xE2\x80\xAE", "\xF0\x9F\x98\x80\xEF\xBF\xBE"})
    EXPECT_EQ(Publish::sqlText(text), text);
  EXPECT_EQ(Publish::sqlBytes(std::array<unsigned char, 3>{0, 0x7F, 0xFF}), "\\x007fff");
}

TEST(PublishTextTest, RecordsAreFoundByTheirNamesTypeAndKind)
{
  using namespace Publish;
  KnownRecords known;
  for (int i = 0; i < 100; ++i)
    known.add({.key = keyOf("host" + std::to_string(i), "a", 2, false), .discovered = i});
  known.sort();
  EXPECT_EQ(known.find(keyOf("host7", "a", 2, false))->discovered, 7);
  EXPECT_EQ(known.find(keyOf("host7", "a", 2, true)), nullptr);
  EXPECT_EQ(known.find(keyOf("host7", "a", 3, false)), nullptr);
  EXPECT_EQ(known.find(keyOf("host7a", "", 2, false)), nullptr);

  known.beginPass();
  known.find(keyOf("host3", "a", 2, false))->seen = true;
  auto const unseen = known.unseen();
  EXPECT_EQ(unseen.size(), 99U);
  known.apply({{.key = keyOf("host3", "a", 2, false), .discovered = 33},
               {.key = keyOf("new", "a", 2, false), .discovered = 1},
               {.key = keyOf("new", "a", 2, false), .discovered = 1}});
  known.remove(unseen);
  EXPECT_EQ(known.size(), 2U);
  EXPECT_EQ(known.find(keyOf("host3", "a", 2, false))->discovered, 33);
  EXPECT_NE(known.find(keyOf("new", "a", 2, false)), nullptr);
}

TEST(PublishTextTest, WhateverIsThrownBecomesALine)
{
  using Publish::guarded;
  EXPECT_EQ(guarded([] { return std::string("done"); }), "done");
  EXPECT_EQ(guarded([]() -> std::string { throw std::runtime_error("no room\nleft"); }),
            "no room; left");
  EXPECT_EQ(guarded([]() -> std::string { throw CORBA::TRANSIENT(); }).substr(0, 15),
            "a call failed: ");
  EXPECT_EQ(guarded([]() -> std::string { throw 7; }), "something failed that does not tell what");
}
