#include "ozf/xml/QueryNumber.h"

#include <gtest/gtest.h>

#include <utility>

using namespace Quillon::Tessarine::Ozf;

TEST(QueryNumberTest, UnitsMultiply)
{
  std::pair<char const*, long double> const units[] = {
      {"2", 2},
      {"2B", 2},
      {"2K", 2048},
      {"2KiB", 2048},
      {"2KB", 2000},
      {"2M", 2097152},
      {"2MiB", 2097152},
      {"2MB", 2000000},
      {"2G", 2147483648},
      {"2GiB", 2147483648},
      {"2GB", 2000000000},
      {"2T", 2199023255552},
      {"2TiB", 2199023255552},
      {"2TB", 2000000000000},
      {"2P", 2251799813685248},
      {"2PiB", 2251799813685248},
      {"2PB", 2000000000000000},
      {"1.5K", 1536},
      {"2s", 2},
      {"2m", 120},
      {"2h", 7200},
      {"2d", 172800},
      {"2w", 1209600},
      {"80%", 0.8L},
      {"-2h", -7200},
      {"+2h", 7200},
  };
  for (auto const& [text, value] : units)
    EXPECT_EQ(value, parseQueryNumber(text)) << text;
}

TEST(QueryNumberTest, WhatOnlyLooksLikeANumberIsNone)
{
  for (char const* text :
       {"",    "-",   "+",   "K",   "x1",    "1x", "1 K",  " 1",  "1 ",   "1e5", "0x10",
        "inf", "nan", "--1", "+-1", "1.2.3", "1k", "1KIB", "1kb", "-inf", ".5"})
    EXPECT_FALSE(parseQueryNumber(text)) << text;
  EXPECT_FALSE(parseQueryNumber(std::string(6000, '9')));
}
