#include "ozf/orb/CallRights.h"

#include "ozf/base/SystemError.h"
#include "ozf/orb/ConnectionTable.h"
#include "ozf/orb/Corba.h"
#include "tests/support/ConfiguredHost.h"
#include "tests/unit/ozf_orb/ServingProcess.h"

#include <gmock/gmock.h>

using namespace Quillon::Tessarine::Ozf;
using testing::HasSubstr;
using testing::IsEmpty;

namespace
{

CallNeed const* needInTest(std::string_view operation)
{
  static constexpr CallNeed READ{.rights = MAY_READ};
  static constexpr CallNeed LOOK{.rights = MAY_READ, .some = MAY_WRITE};
  static constexpr CallNeed WRITE{.rights = MAY_WRITE};
  static constexpr CallNeed CONTROL{.rights = MAY_CONTROL};
  static constexpr CallNeed EITHER{.rights = MAY_READ | MAY_CONTROL};
  static constexpr CallNeed OF_MASTER{.rights = MAY_CONTROL, .ofMaster = true};
  static constexpr CallNeed OF_ASKED{.rights = MAY_READ, .ofAsked = true};
  static std::map<std::string_view, CallNeed const*> const needs{
      {"read", &READ},     {"look", &LOOK},         {"write", &WRITE},      {"control", &CONTROL},
      {"either", &EITHER}, {"refresh", &OF_MASTER}, {"ask back", &OF_ASKED}};
  auto const found = needs.find(operation);
  return found == needs.end() ? nullptr : found->second;
}

// Judged as one call of a connection that makes no other, unless it is kept.
class CallRightsTest : public ConfiguredHost
{
protected:
  CallRightsTest() { setCallNeeds(needInTest); }
  ~CallRightsTest() override
  {
    setCallNeeds(nullptr);
    setUpWith("");
  }

  void setUpWith(std::string const& lines)
  {
    configure("ORB_BIND = 192.0.2.1\n" + lines);
    std::string error;
    ASSERT_TRUE(setUpCallRights(error)) << error;
  }

  static Peer peer(std::string const& address, std::vector<std::string> const& names = {})
  {
    return {.address = address, .connection = 1, .reached = "192.0.2.1", .names = names};
  }

  bool may(Peer const& caller, char const* operation, int descriptor = -1)
  {
    std::uint64_t kept = 0;
    return may(caller, operation, descriptor, kept);
  }
  bool may(Peer const& caller, char const* operation, int descriptor, std::uint64_t& kept)
  {
    try
    {
      requireRight(caller, descriptor, operation, kept);
      return true;
    }
    catch (CORBA::NO_PERMISSION const& exception)
    {
      EXPECT_EQ(exception.completed(), CORBA::COMPLETED_NO);
      return false;
    }
  }

  static std::string whyNotAs(Peer const& caller, std::string const& host)
  {
    std::string reason;
    return mayWriteAs(caller, host, reason) ? std::string() : reason;
  }

  Peer const m_web1 = peer("192.0.2.7", {"web1.example.net"});
  Peer const m_plain = peer("192.0.2.7");
};

} // namespace

TEST_F(CallRightsTest, withoutATableNothingIsJudged)
{
  setUpWith("ALLOW_READ = none\n");
  EXPECT_FALSE(may(m_plain, "read"));
  setCallNeeds(nullptr);
  EXPECT_TRUE(may(m_plain, "read"));
}

TEST_F(CallRightsTest, withoutListsControlAloneIsKeptToThisHostAndTheMaster)
{
  setUpWith("SERVER = backup1\nHOST_ADDRESS.backup1 = 192.0.2.10, 2001:db8::10\n");
  for (char const* operation : {"read", "write", "either"})
    EXPECT_TRUE(may(m_plain, operation)) << operation;
  EXPECT_FALSE(may(m_plain, "control"));
  EXPECT_TRUE(may(peer("127.0.0.1"), "control"));
  EXPECT_TRUE(may(peer("192.0.2.1"), "control"));
  EXPECT_TRUE(may(peer("192.0.2.10"), "control"));
  EXPECT_TRUE(may(peer("2001:db8::10"), "control")) << "all addresses are the master's";
  EXPECT_TRUE(may(peer("192.0.2.99", {"backup1"}), "control"));
}

TEST_F(CallRightsTest, eachOperationIsForThoseOfItsList)
{
  setUpWith("ALLOW_READ = *.example.net\nALLOW_WRITE = 192.0.2.8\nALLOW_CONTROL = admin\n");
  EXPECT_TRUE(may(m_web1, "read"));
  EXPECT_TRUE(may(m_web1, "either"));
  EXPECT_FALSE(may(m_web1, "write"));
  EXPECT_FALSE(may(m_web1, "control"));
  EXPECT_TRUE(may(peer("192.0.2.8"), "write"));
  EXPECT_FALSE(may(peer("192.0.2.8"), "either"));
  EXPECT_TRUE(may(peer("192.0.2.9", {"admin"}), "control"));
  EXPECT_TRUE(may(peer("192.0.2.9", {"admin"}), "either"));
  EXPECT_FALSE(may(peer("127.0.0.1"), "read")) << "who is local is in no list";
}

TEST_F(CallRightsTest, aRefusalNamesPeerOperationAndRule)
{
  setUpWith("ALLOW_READ = none\nALLOW_WRITE = none\n");
  LogCapture const log(1);
  EXPECT_FALSE(may(m_web1, "read"));
  EXPECT_TRUE(log.has(1, "requireRight",
                      "Refused a call of 192.0.2.7 (web1.example.net): read is for ALLOW_READ = "
                      "none"))
      << log.text();
  EXPECT_FALSE(may(m_plain, "either"));
  EXPECT_TRUE(log.has(1, "requireRight",
                      "Refused a call of 192.0.2.7: either is for ALLOW_READ = none; local, "
                      "master, without ALLOW_CONTROL"))
      << log.text();
}

TEST_F(CallRightsTest, whatIsInNoTableIsForThoseWhoMayControl)
{
  setUpWith("ALLOW_CONTROL = admin\n");
  LogCapture const log(1);
  EXPECT_FALSE(may(m_web1, "invented\n"));
  EXPECT_TRUE(log.has(1, "requireRight",
                      "Refused a call of 192.0.2.7 (web1.example.net): an operation that there is "
                      "not is for ALLOW_CONTROL = admin"))
      << log.text();
  EXPECT_TRUE(may(peer("192.0.2.9", {"admin"}), "invented"));
}

TEST_F(CallRightsTest, theMasterAndWhoIsAskedMayWhatTheTableSays)
{
  setUpWith("SERVER = backup1\nALLOW_READ = none\nALLOW_CONTROL = none\n"
            "HOST_ADDRESS.web2 = 192.0.2.8, 2001:db8::8\n");
  Peer const master = peer("192.0.2.99", {"backup1"});
  EXPECT_TRUE(may(master, "refresh"));
  EXPECT_FALSE(may(master, "control"));
  EXPECT_FALSE(may(m_web1, "refresh"));
  EXPECT_FALSE(may(m_web1, "ask back"));
  {
    AskedHost const first("web1.example.net");
    AskedHost const again("web1.example.net");
    {
      AskedHost const other("web2");
      EXPECT_TRUE(may(peer("2001:db8::8"), "ask back"));
      EXPECT_TRUE(may(peer("192.0.2.8"), "ask back"));
    }
    EXPECT_TRUE(may(m_web1, "ask back"));
    EXPECT_FALSE(may(m_web1, "read"));
    EXPECT_FALSE(may(peer("192.0.2.8"), "ask back"));
  }
  EXPECT_FALSE(may(m_web1, "ask back"));
}

// What a host may as the master it may not where it is the master itself: whoever runs
// a program on it would have every master's rights.
TEST_F(CallRightsTest, aMasterIsNotItsOwnMaster)
{
  setUpWith("SERVER = here\nHOST_ADDRESS.here = 192.0.2.1, 127.0.0.1\nALLOW_CONTROL = none\n");
  EXPECT_FALSE(may(peer("192.0.2.1"), "refresh"));
  EXPECT_FALSE(may(peer("127.0.0.1"), "refresh"));
  EXPECT_FALSE(may(peer("127.0.0.1", {"here"}), "refresh"));
  EXPECT_TRUE(may(peer("192.0.2.99", {"here"}), "refresh")) << "its certificate, from elsewhere";
}

// The process is connected with itself where both ends are its own.
TEST_F(CallRightsTest, aProcessMayCallItselfWhateverTheListsSay)
{
  setUpWith("ALLOW_READ = none\n");
  BoundSocket const listening("127.0.0.1", true);
  UniqueFd const calling(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in const place = loopback(listening.port());
  ASSERT_EQ(connect(calling.get(), reinterpret_cast<sockaddr const*>(&place), sizeof place), 0);
  UniqueFd const called(listening.accept(std::chrono::seconds(20)));
  EXPECT_TRUE(may(peer("127.0.0.1"), "ask back", called.get()));
  EXPECT_FALSE(may(peer("192.0.2.7"), "ask back", called.get())) << "not from this host";
  EXPECT_FALSE(may(peer("127.0.0.1"), "ask back"));
}

TEST_F(CallRightsTest, whatAConnectionMayHoldsUntilTheListsAreReadAnew)
{
  setUpWith("ALLOW_READ = *\nALLOW_WRITE = none\n");
  std::uint64_t kept = 0;
  EXPECT_TRUE(may(m_web1, "read", -1, kept));
  // By what is kept alone: who shows no name is in no list.
  EXPECT_TRUE(may(m_plain, "read", -1, kept));
  EXPECT_FALSE(may(m_web1, "write", -1, kept)) << "of another list";
  setUpWith("ALLOW_READ = none\nALLOW_WRITE = *\n");
  EXPECT_FALSE(may(m_web1, "read", -1, kept));
  EXPECT_TRUE(may(m_web1, "write", -1, kept));
}

// The resolver, or HOST_ADDRESS, may give the master another address at any time.
TEST_F(CallRightsTest, whatAConnectionMayAsTheMasterIsLookedAtEachTime)
{
  std::string const master = "ORB_BIND = 192.0.2.1\nSERVER = backup1\nHOST_ADDRESS.backup1 = ";
  std::string const lists = "\nALLOW_READ = master\nALLOW_CONTROL = master, 192.0.2.7\n";
  setUpWith("SERVER = backup1\nHOST_ADDRESS.backup1 = 192.0.2.10" + lists);
  Peer const first = peer("192.0.2.10");
  std::uint64_t kept = 0;
  EXPECT_TRUE(may(first, "read", -1, kept));
  EXPECT_TRUE(may(first, "control", -1, kept));
  configure(master + "192.0.2.11" + lists);
  EXPECT_FALSE(may(first, "read", -1, kept));
  EXPECT_FALSE(may(first, "control", -1, kept));
  EXPECT_TRUE(may(peer("192.0.2.11"), "read"));
  EXPECT_TRUE(may(m_plain, "either")) << "by another entry";
}

TEST_F(CallRightsTest, whileTheyAreTightenedARightIsThatOfBothLists)
{
  setUpWith("ALLOW_READ = 192.0.2.0/24\nALLOW_WRITE = any\n");
  std::uint64_t kept = 0;
  EXPECT_TRUE(may(m_plain, "write", -1, kept));
  configure("ALLOW_READ = 192.0.2.7, 192.0.3.7\nALLOW_WRITE = web1*\nALLOW_CONTROL = any\n");
  std::string error;
  ASSERT_TRUE(tightenCallRights(error)) << error;
  EXPECT_FALSE(may(m_plain, "write", -1, kept)) << "which the former list gives alone";
  EXPECT_TRUE(may(m_web1, "write"));
  EXPECT_TRUE(may(m_plain, "read"));
  EXPECT_FALSE(may(peer("192.0.2.8"), "read")) << "which the former list gives alone";
  EXPECT_FALSE(may(peer("192.0.3.7"), "read")) << "which the new list gives alone";
  EXPECT_FALSE(may(m_plain, "control"));
  ASSERT_TRUE(setUpCallRights(error)) << error;
  EXPECT_TRUE(may(peer("192.0.3.7"), "read"));
  EXPECT_TRUE(may(m_plain, "control"));
}

TEST_F(CallRightsTest, whileTheyAreTightenedAWriterWritesAsBothAllow)
{
  setUpWith("");
  configure("ORB_BIND = 192.0.2.1\nALLOW_WRITE = any\n");
  std::string error;
  ASSERT_TRUE(tightenCallRights(error)) << error;
  EXPECT_THAT(whyNotAs(m_web1, "web1.example.net"), IsEmpty());
  EXPECT_EQ(whyNotAs(m_web1, "web2"), "none, without ALLOW_WRITE_AS");
  setUpWith("ALLOW_WRITE = any\n");
  configure("ORB_BIND = 192.0.2.1\n");
  ASSERT_TRUE(tightenCallRights(error)) << error;
  EXPECT_EQ(whyNotAs(m_web1, "web2"), "none, without ALLOW_WRITE_AS");
}

TEST_F(CallRightsTest, aListThatIsNotInOrderLeavesTheFormerOnes)
{
  setUpWith("ALLOW_READ = web*\n");
  configure("ALLOW_READ = any\nALLOW_CONTROL = local, 10.0.0.1/8\n");
  std::string error;
  EXPECT_FALSE(setUpCallRights(error));
  EXPECT_THAT(error, HasSubstr("ALLOW_CONTROL of " + file() +
                               " has \"10.0.0.1/8\", an address with bits behind the first 8 of a "
                               "network; accepted: any, none, local"));
  EXPECT_TRUE(may(m_web1, "read"));
  EXPECT_FALSE(may(m_plain, "read"));
}

TEST_F(CallRightsTest, whoMaySomeCallsIsLetThroughAndTheServantIsToldWhatItLacks)
{
  setUpWith("ALLOW_READ = none\nALLOW_WRITE = web*\n");
  PeerOfCall const call(&m_web1);
  EXPECT_TRUE(may(m_web1, "look"));
  EXPECT_EQ(lackOfCall(), "look is for ALLOW_READ = none");
  EXPECT_TRUE(may(m_web1, "write"));
  EXPECT_THAT(lackOfCall(), IsEmpty()) << "it is the next call's";
  EXPECT_TRUE(may(m_web1, "look"));
  PeerOfCall const own(nullptr);
  EXPECT_THAT(lackOfCall(), IsEmpty()) << "the process calls itself";
}

TEST_F(CallRightsTest, withoutAListOfWritersEverybodyWritesInAnyName)
{
  setUpWith("ALLOW_READ = none\n");
  EXPECT_THAT(whyNotAs(m_plain, "web2"), IsEmpty());
  EXPECT_THAT(whyNotAs(m_plain, ""), IsEmpty());
}

TEST_F(CallRightsTest, aWriterWritesAsTheHostsOfItsCertificate)
{
  setUpWith("ALLOW_WRITE = any\nHOST_ADDRESS.web2 = 192.0.2.7\n");
  EXPECT_THAT(whyNotAs(m_web1, "WEB1.example.net."), IsEmpty());
  EXPECT_EQ(whyNotAs(m_web1, "web2"), "none, without ALLOW_WRITE_AS")
      << "its address is not asked for";
  EXPECT_EQ(whyNotAs(m_web1, ""), "none, without ALLOW_WRITE_AS");
}

TEST_F(CallRightsTest, aWriterWithoutACertificateWritesAsTheHostsOfItsAddress)
{
  setUpWith("ALLOW_WRITE = any\nHOST_ADDRESS.web2 = 2001:db8::7, 192.0.2.7\n"
            "HOST_ADDRESS.web3 = 192.0.2.8\n");
  EXPECT_THAT(whyNotAs(m_plain, "web2"), IsEmpty());
  EXPECT_THAT(whyNotAs(peer("2001:db8::7"), "web2"), IsEmpty());
  EXPECT_EQ(whyNotAs(m_plain, "web3"), "none, without ALLOW_WRITE_AS");
}

TEST_F(CallRightsTest, whatRunsOnThisHostWritesAsThisHostAlone)
{
  setUpWith("CLIENT_NAME = here\nALLOW_WRITE = any\n");
  EXPECT_THAT(whyNotAs(peer("127.0.0.1", {"user"}), "here"), IsEmpty());
  EXPECT_EQ(whyNotAs(peer("127.0.0.1", {"user"}), "web2"), "none, without ALLOW_WRITE_AS");
  EXPECT_EQ(whyNotAs(m_web1, "here"), "none, without ALLOW_WRITE_AS");
}

TEST_F(CallRightsTest, aRelayWritesInAnyNameAndNeedsNoOtherList)
{
  setUpWith("ALLOW_WRITE_AS = gateway\n");
  Peer const relay = peer("192.0.2.30", {"gateway"});
  EXPECT_THAT(whyNotAs(relay, "web2"), IsEmpty());
  EXPECT_TRUE(may(relay, "write"));
  EXPECT_EQ(whyNotAs(m_web1, "web2"), "ALLOW_WRITE_AS = gateway");
  EXPECT_TRUE(may(m_web1, "write")) << "there is no list of those";
  setUpWith("ALLOW_WRITE = none\nALLOW_WRITE_AS = gateway\n");
  EXPECT_TRUE(may(relay, "write"));
  EXPECT_FALSE(may(m_web1, "write"));
}

TEST_F(CallRightsTest, aPeerIsShownWithTheFirstNamesOfItsCertificate)
{
  EXPECT_EQ(shownPeer(m_plain), "192.0.2.7");
  EXPECT_EQ(shownPeer(peer("192.0.2.7", {"a", "b\x1b", "c"})), "192.0.2.7 (a, b%1B, c)");
  EXPECT_EQ(shownPeer(peer("192.0.2.7", {"a", "b", "c", "d"})), "192.0.2.7 (a, b, c, ...)");
  EXPECT_EQ(shownPeer(peer("")), "this service");
}

TEST_F(CallRightsTest, aRefusedCallIsTold)
{
  LogCapture const log(1);
  EXPECT_THROW(refuseCall(m_web1, "Servant::close", {"close"}, "the reason"), CORBA::NO_PERMISSION);
  EXPECT_TRUE(
      log.has(1, "Servant::close", "Refused a call of 192.0.2.7 (web1.example.net): the reason"))
      << log.text();
}
