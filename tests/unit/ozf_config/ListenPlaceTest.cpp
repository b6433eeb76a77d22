#include "ozf/config/ListenPlace.h"

#include <gtest/gtest.h>
#include <sys/un.h>

using namespace Quillon::Tessarine::Ozf;

TEST(ListenPlace, isAnAddressWithAPort)
{
  auto const place = ListenPlace::fromText("192.0.2.1:27580");
  ASSERT_TRUE(place);
  EXPECT_EQ(place->address, "192.0.2.1");
  EXPECT_EQ(place->port, 27580);
  EXPECT_EQ(place->path, "");
  EXPECT_EQ(ListenPlace::fromText("127.0.0.1:1")->port, 1);
  EXPECT_EQ(ListenPlace::fromText("127.0.0.1:65535")->port, 65535);
}

TEST(ListenPlace, hasAddressesWithColonsInBrackets)
{
  auto const place = ListenPlace::fromText("[2001:db8::7]:80");
  ASSERT_TRUE(place);
  EXPECT_EQ(place->address, "2001:db8::7");
  EXPECT_EQ(place->port, 80);
  for (char const* const text : {"2001:db8::7:80", "[192.0.2.1]:80", "[::1]", "[::1:80", "::1]:80",
                                 "[[::1]]:80", "[]:80", "[fe80::1%lo]:80"})
    EXPECT_FALSE(ListenPlace::fromText(text)) << text;
}

TEST(ListenPlace, isNoNameAndNoPortOutOfBounds)
{
  for (char const* const text :
       {"", ":", ":80", "localhost:80", "127.0.0.1", "127.0.0.1:", "127.0.0.1:0", "127.0.0.1:65536",
        "127.0.0.1:-1", "127.0.0.1:+80", "127.0.0.1:80x", "127.0.0.1: 80", "127.1:80",
        "127.0.0.1:99999999999999999999", "relative/path", "./socket"})
    EXPECT_FALSE(ListenPlace::fromText(text)) << text;
}

TEST(ListenPlace, isAPathThatASocketCanHave)
{
  auto const place = ListenPlace::fromText("/run/web:80");
  ASSERT_TRUE(place);
  EXPECT_EQ(place->path, "/run/web:80");
  EXPECT_EQ(place->address, "");
  constexpr std::size_t LONGEST = sizeof(sockaddr_un::sun_path) - 1;
  EXPECT_TRUE(ListenPlace::fromText('/' + std::string(LONGEST - 1, 'x')));
  EXPECT_FALSE(ListenPlace::fromText('/' + std::string(LONGEST, 'x')));
  EXPECT_FALSE(ListenPlace::fromText("/run/"));
  EXPECT_FALSE(ListenPlace::fromText("/"));
}

TEST(ListenPlace, isLocalWhereNobodyElseCanCome)
{
  for (char const* const text :
       {"/run/web", "127.0.0.1:80", "127.255.0.9:80", "[::1]:80", "[::ffff:127.0.0.1]:80"})
    EXPECT_TRUE(ListenPlace::fromText(text)->isLocal()) << text;
  for (char const* const text :
       {"0.0.0.0:80", "[::]:80", "192.0.2.1:80", "[2001:db8::7]:80", "[::ffff:192.0.2.1]:80"})
    EXPECT_FALSE(ListenPlace::fromText(text)->isLocal()) << text;
}
