#include "discovery/CallOwner.h"

#include "ozf/orb/ConnectionTable.h"
#include "ozf/orb/Corba.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <optional>

using namespace Quillon::Tessarine::Ozf;
using DiscoverySvc::CallOwner;

namespace
{

constexpr char HERE[] = "192.0.2.1";
constexpr char ALSO_HERE[] = "192.0.2.2";

class CallOwnerTest : public testing::Test
{
protected:
  static Peer peer(char const* address, char const* reached,
                   std::vector<std::string> const& names = {})
  {
    return {.address = address, .connection = 1, .reached = reached, .names = names};
  }

  // What is opened from now on is that peer's; null: this process's.
  void openedBy(Peer const* opener)
  {
    PeerOfCall const call(opener);
    m_owner.emplace();
  }

  bool serves(Peer const& caller)
  {
    PeerOfCall const call(&caller);
    try
    {
      m_owner->require("Servant::close");
      return true;
    }
    catch (CORBA::NO_PERMISSION const&)
    {
      return false;
    }
  }

  LogCapture const m_log{1};
  std::optional<CallOwner> m_owner;
};

} // namespace

TEST_F(CallOwnerTest, withoutACertificateItIsTheAddress)
{
  Peer const opener = peer("192.0.2.7", HERE);
  openedBy(&opener);
  EXPECT_FALSE(serves(peer("192.0.2.8", HERE))) << "by the same way, though it comes first";
  EXPECT_TRUE(serves(opener));
  EXPECT_TRUE(serves(peer("192.0.2.7", ALSO_HERE, {"web1"})));
  EXPECT_TRUE(m_log.has(1, "Servant::close",
                        "Refused a call of 192.0.2.8: the object belongs to 192.0.2.7"))
      << m_log.text();
}

TEST_F(CallOwnerTest, anotherAddressOfTheOwnerIsToComeFirstAndByAnotherWay)
{
  Peer const opener = peer("192.0.2.7", HERE);
  Peer const other = peer("198.51.100.7", ALSO_HERE);
  openedBy(&opener);
  EXPECT_TRUE(serves(other));
  EXPECT_TRUE(serves(opener));
  EXPECT_TRUE(serves(other));
  EXPECT_FALSE(serves(peer("198.51.100.8", ALSO_HERE))) << "there is one such address";

  openedBy(&opener);
  EXPECT_TRUE(serves(opener));
  EXPECT_FALSE(serves(other)) << "somebody has used it already";
}

TEST_F(CallOwnerTest, withACertificateItIsAllItsNamesWhereverItCallsFrom)
{
  Peer const opener = peer("192.0.2.7", HERE, {"web1", "web1.example.net"});
  openedBy(&opener);
  EXPECT_FALSE(serves(peer("192.0.2.7", HERE)));
  EXPECT_FALSE(serves(peer("198.51.100.7", ALSO_HERE, {"web2"})));
  EXPECT_FALSE(serves(peer("192.0.2.7", HERE, {"web1"})));
  EXPECT_TRUE(serves(peer("198.51.100.7", ALSO_HERE, {"web1", "web1.example.net"})));
}

TEST_F(CallOwnerTest, whatThisProcessOpenedIsItsOwn)
{
  openedBy(nullptr);
  EXPECT_FALSE(serves(peer("127.0.0.1", "127.0.0.1")));
  EXPECT_FALSE(serves(peer("127.0.0.1", "127.0.0.2")));
  EXPECT_NO_THROW(m_owner->require("Servant::close")) << "it calls itself";
}
