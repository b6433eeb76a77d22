// In whose name a peer may write, and whose an iterator and a writer are.

#include "tests/support/Certificates.h"
#include "tests/support/NoHost.h"
#include "tests/system/roles/RolesTesting.h"

#include <future>
#include <map>

namespace
{

using namespace tqtest;
using testing::HasSubstr;
using testing::Not;
namespace wire = client::Remote;

constexpr char WEB1[] = "127.0.0.21";
constexpr char WEB2[] = "127.0.0.22";
constexpr char RELAY[] = "127.0.0.23";

class RolesWriterTest : public RolesTest
{
protected:
  // What becomes of a discovery, and of an announcement, in the name of that host.
  std::string storeFrom(std::string const& address, std::string const& sourceHost) const
  {
    return callFrom(address,
                    [&](client::Client& peer)
                    {
                      auto record = client::makeRecord("of " + sourceHost, "written");
                      record.sourceHost = sourceHost.c_str();
                      EXPECT_EQ(peer.store(record, "<x/>"), client::DS_SUCCESS);
                    });
  }
  std::string announceFrom(std::string const& address, std::string const& sourceHost) const
  {
    return callFrom(address,
                    [&](client::Client& peer)
                    {
                      peer->registerExplorer(sourceHost.c_str(), "DiscoveryService", "subject",
                                             "authority", client::AT_TQUCLIENT, 1);
                    });
  }

  static std::string addresses()
  {
    return std::string("HOST_ADDRESS.web1 = ") + WEB1 + "\nHOST_ADDRESS.web2 = " + WEB2 + "\n";
  }
};

// The service and its peers have certificates; only those that count here are given
// in the configuration of the test's own calls.
class RolesTlsTest : public RolesTest
{
protected:
  RolesTlsTest()
  {
    m_authority.writeTo(m_files / "ca.pem");
    for (char const* name : {LiveService::NAME, "web1", "web2", "admin.example.net"})
      m_authority.issue(m_files.path(), name, wishFor(name));
    // Another certificate of the same host.
    m_authority.issue(m_files.path(), "web1-renewed", wishFor("web1"));
  }

  std::string lines(std::string const& lists) const
  {
    return tlsLines("only", m_files.path(), LiveService::NAME) + lists;
  }

  // The calls of this process are that host's from now on, and come from there.
  std::unique_ptr<client::Client> peer(std::string const& name, std::string const& address)
  {
    m_peerRoot = std::make_unique<TempDir>();
    std::filesystem::create_directories(*m_peerRoot / "etc");
    std::string const service = LiveService::NAME;
    writeText(*m_peerRoot / "etc/tq.conf",
              "SERVER = " + service + "\nHOST_ADDRESS." + service +
                  " = 127.0.0.1\nORB_PORT.DiscoveryService = " + std::to_string(m_service.port()) +
                  "\n" + tlsLines("only", m_files.path(), name));
    m_from.reset();
    m_from = std::make_unique<CallingFrom>(address);
    auto made = std::make_unique<client::Client>(m_peerRoot->path(), service);
    EXPECT_TRUE(made->connected()) << name << '\n' << m_service.log();
    return made;
  }

  TempDir m_files;
  CertificateAuthority m_authority;
  std::unique_ptr<TempDir> m_peerRoot;
  std::unique_ptr<CallingFrom> m_from;
};

std::string referenceOf(CORBA::Object_ptr object)
{
  int none = 0;
  CORBA::ORB_var const orb = CORBA::ORB_init(none, nullptr, "omniORB4");
  return CORBA::String_var(orb->object_to_string(object)).in();
}

template <class Interface>
typename Interface::_var_type behind(std::string const& reference)
{
  int none = 0;
  CORBA::ORB_var const orb = CORBA::ORB_init(none, nullptr, "omniORB4");
  CORBA::Object_var const object = orb->string_to_object(reference.c_str());
  return Interface::_unchecked_narrow(object);
}

} // namespace

TEST_F(RolesWriterTest, withoutListsEverybodyWritesInAnyName)
{
  start(addresses());
  EXPECT_EQ(storeFrom(WEB1, "web2"), "done");
  EXPECT_EQ(storeFrom(WEB1, ""), "done");
  EXPECT_EQ(announceFrom(WEB1, "web2"), "done");
  stop();
}

TEST_F(RolesWriterTest, aWriterWritesInItsOwnName)
{
  start(addresses() + "ALLOW_WRITE = 127.0.0.0/8\n");
  for (bool const announces : {false, true})
  {
    auto const write = [&](std::string const& address, std::string const& sourceHost)
    { return announces ? announceFrom(address, sourceHost) : storeFrom(address, sourceHost); };
    EXPECT_EQ(write(WEB1, "web1"), "done") << m_service.log();
    EXPECT_EQ(write(WEB1, "WEB1."), "done");
    EXPECT_EQ(write(WEB1, WEB1), "done") << "an address is its own";
    EXPECT_EQ(write(WEB1, "web2"), REFUSED);
    EXPECT_EQ(write(WEB1, LiveService::NAME), REFUSED);
    EXPECT_EQ(write(WEB1, NO_HOST), REFUSED);
    EXPECT_EQ(write(THIS_HOST, LiveService::NAME), "done");
    EXPECT_EQ(write(THIS_HOST, "web1"), REFUSED);
  }
  EXPECT_EQ(storeFrom(WEB1, ""), REFUSED);
  EXPECT_THAT(
      m_service.log(),
      testing::AllOf(
          HasSubstr("DiscoveryService_i::putCollection: Refused a call of 127.0.0.21: it "
                    "writes in the name of \"web2\", which is neither its own nor for none, "
                    "without ALLOW_WRITE_AS ("),
          HasSubstr("DiscoveryService_i::registerExplorer: Refused a call of 127.0.0.21: it "
                    "writes in the name of \"web2\""),
          Not(HasSubstr("Registered explorer: web2"))));
  stop();
}

TEST_F(RolesWriterTest, aRelayWritesForOthersAndNeedsNoOtherList)
{
  start(addresses() + "ALLOW_WRITE = 127.0.0.21\nALLOW_WRITE_AS = 127.0.0.23\n");
  EXPECT_EQ(storeFrom(RELAY, "web1"), "done") << m_service.log();
  EXPECT_EQ(announceFrom(RELAY, "web2"), "done");
  EXPECT_EQ(storeFrom(WEB1, "web1"), "done");
  EXPECT_EQ(storeFrom(WEB1, "web2"), REFUSED);
  EXPECT_EQ(storeFrom(WEB2, "web2"), REFUSED) << "it may not write at all";
  reload(addresses() + "ALLOW_WRITE_AS = 127.0.0.23\n", "Took the lists of who may call");
  EXPECT_EQ(storeFrom(WEB2, "web2"), "done");
  EXPECT_EQ(storeFrom(WEB2, "web1"), REFUSED);
  stop();
}

// Each name that a peer writes in is one to look up.
TEST_F(RolesWriterTest, namesThatTakeLongToLookUpHoldSoManyCallsOfAPeerAndOthersAreServed)
{
  constexpr int MOST = 60;
  std::string const slow = m_service / "slow";
  std::string hosts;
  for (int i = 0; i < MOST + 4; ++i)
    hosts += "host" + std::to_string(i) + ".slow=" + WEB1 + ' ';
  start(addresses() + "ALLOW_WRITE = 127.0.0.0/8\n",
        {{"LD_PRELOAD", TQ_FIXTURE_DIR "/libcall_from.so"},
         {"ASAN_OPTIONS", "verify_asan_link_order=0"},
         {"TQ_HOSTS", hosts},
         {"TQ_SLOW", slow}});
  writeText(slow, "");
  std::vector<std::future<std::string>> outcomes;
  {
    CallingFrom const from(WEB1);
    client::Client peer(m_service.root(), LiveService::NAME);
    ASSERT_TRUE(peer.connected());
    for (int i = 0; i < MOST + 4; ++i)
      outcomes.push_back(std::async(std::launch::async,
                                    [&peer, host = "host" + std::to_string(i) + ".slow"]
                                    {
                                      return outcomeOf(
                                          [&]
                                          {
                                            peer->registerExplorer(host.c_str(), "DiscoveryService",
                                                                   host.c_str(), "authority",
                                                                   client::AT_TQUCLIENT, 1);
                                          });
                                    }));
    EXPECT_TRUE(m_service.process().awaitError(
        "DiscoveryService_i::registerExplorer: Refused a call of 127.0.0.21: its host cannot be "
        "looked up now: "))
        << m_service.log();
    Outcome const other = tqdiscoctlFrom(THIS_HOST, {"put", "other", "rack", "Row=7"});
    EXPECT_EQ(other.exitCode, 0) << other.errors << m_service.log();
    std::filesystem::remove(slow);
    std::map<std::string, int> count;
    for (auto& outcome : outcomes)
      ++count[outcome.get()];
    EXPECT_GE(count["TRANSIENT"], 1);
    EXPECT_EQ(count["done"] + count["TRANSIENT"], MOST + 4) << testing::PrintToString(count);
  }
  stop();
}

TEST_F(RolesWriterTest, theCommandWritesInTheNameOfItsHost)
{
  start(addresses() + "ALLOW_WRITE = any\n");
  std::string const file = m_service / "payload.xml";
  writeText(file, "<DiscoveredItems/>\n");
  Outcome outcome = tqdiscoctlFrom(THIS_HOST, {"put", "subject", "authority", file});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
  // Of a host with the name of another.
  outcome = tqdiscoctlFrom(WEB1, {"put", "subject", "authority", file});
  EXPECT_EQ(outcome.exitCode, 6) << outcome.errors;
  stop();
}

TEST_F(RolesTlsTest, listsHoldNamesOfCertificates)
{
  start(lines("ALLOW_READ = web*\nALLOW_WRITE = web1\nALLOW_CONTROL = *.example.net\n"));
  auto const outcomes = [this](std::string const& name)
  {
    auto const calling = peer(name, STRANGER);
    auto record = client::makeRecord("s", "a");
    record.sourceHost = name.c_str();
    std::vector<std::string> results{
        outcomeOf([&] { calling->subjects(); }),
        outcomeOf([&] { EXPECT_EQ(calling->store(record, "<x/>"), client::DS_SUCCESS); }),
        outcomeOf([&] { (*calling)->restartLocalPushTimer(); })};
    return results;
  };
  EXPECT_THAT(outcomes("web1"), testing::ElementsAre("done", "done", REFUSED));
  EXPECT_THAT(outcomes("web2"), testing::ElementsAre("done", REFUSED, REFUSED));
  EXPECT_THAT(outcomes("admin.example.net"), testing::ElementsAre(REFUSED, REFUSED, "done"));
  EXPECT_THAT(m_service.log(),
              HasSubstr("Refused a call of 127.0.0.9 (admin.example.net): queryDiscoveries is for "
                        "ALLOW_READ = web* ("));
  stop();
}

TEST_F(RolesTlsTest, aCertificateProvesInWhoseNameItsHostWrites)
{
  // The address is web2's: who has proven who it is, is nobody else for that.
  start(lines("ALLOW_WRITE = *\nHOST_ADDRESS.web2 = 127.0.0.22\n"));
  auto const calling = peer("web1", WEB2);
  auto record = client::makeRecord("s", "a");
  record.sourceHost = "web1";
  EXPECT_EQ(outcomeOf([&] { EXPECT_EQ(calling->store(record, "<x/>"), client::DS_SUCCESS); }),
            "done")
      << m_service.log();
  record.sourceHost = "web2";
  EXPECT_EQ(outcomeOf([&] { calling->store(record, "<x/>"); }), REFUSED);
  stop();
}

TEST_F(RolesTlsTest, aHostWritesForAnotherOneOnlyWhereItsCertificateIsThatOfARelay)
{
  start(lines("ALLOW_WRITE = web*\nALLOW_WRITE_AS = admin.*\n"));
  auto const outcomes = [this](std::string const& name)
  {
    auto const calling = peer(name, STRANGER);
    auto record = client::makeRecord("s", "a");
    record.sourceHost = "web2";
    return std::vector<std::string>{
        outcomeOf([&] { EXPECT_EQ(calling->store(record, "<x/>"), client::DS_SUCCESS); }),
        outcomeOf(
            [&]
            {
              (*calling)->registerExplorer("web2", "DiscoveryService", "s", "volume",
                                           client::AT_TQUCLIENT, 1);
            })};
  };
  EXPECT_THAT(outcomes("web1"), testing::ElementsAre(REFUSED, REFUSED));
  for (char const* const operation : {"putCollection", "registerExplorer"})
    EXPECT_THAT(m_service.log(),
                HasSubstr("DiscoveryService_i::" + std::string(operation) +
                          ": Refused a call of 127.0.0.9 (web1): it writes in the name of "
                          "\"web2\", which is neither its own nor for ALLOW_WRITE_AS = admin.* ("));
  EXPECT_THAT(outcomes("web2"), testing::ElementsAre("done", "done"));
  EXPECT_THAT(outcomes("admin.example.net"), testing::ElementsAre("done", "done"));
  stop();
}

TEST_F(RolesTlsTest, theCommandTellsWhoShowsTheCertificateOfAnotherHost)
{
  start(lines("ALLOW_READ = web*\nALLOW_WRITE = web*\n"));
  auto const put = [this](std::string const& certificate)
  {
    peer(certificate, STRANGER); // its configuration
    std::string const file = *m_peerRoot / "etc/tq.conf";
    writeText(file, readText(file) + "CLIENT_NAME = web2\n");
    return runProgram(TQ_BIN_DIR "/tqdiscoctl", {"put", "rack7", "rack", "Row=7"},
                      {{"TESSARINE_ROOT", m_peerRoot->path()},
                       {"TQ_CALL_FROM", STRANGER},
                       {"LD_PRELOAD", TQ_FIXTURE_DIR "/libcall_from.so"},
                       {"ASAN_OPTIONS", "verify_asan_link_order=0"}}); // as it comes first
  };
  Outcome outcome = put("web1");
  EXPECT_EQ(outcome.exitCode, 6) << outcome.errors;
  EXPECT_THAT(outcome.errors, HasSubstr("it does not allow this to who calls from here"));
  outcome = put("web2");
  EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
  stop();
}

TEST_F(RolesTlsTest, theMasterIsKnownByItsCertificateWhereverItCallsFrom)
{
  start(lines("SERVER = web2\nHOST_ADDRESS.web2 = 127.0.0.22\n"));
  EXPECT_EQ(outcomeOf([&] { (*peer("web2", STRANGER))->restartLocalPushTimer(); }), "done")
      << m_service.log();
  EXPECT_EQ(outcomeOf([&] { (*peer("web1", STRANGER))->restartLocalPushTimer(); }), REFUSED);
  stop();
}

TEST_F(RolesTlsTest, whatAHostOpenedIsItsOwnFromAnyOfItsAddressesAndNoOthers)
{
  start(lines(""));
  std::string records;
  std::string writer;
  {
    auto const owner = peer("web1", WEB1);
    ASSERT_EQ(owner->store("stored", "written", "<stored/>"), client::DS_SUCCESS);
    wire::DiscoveryIterator_var const opened =
        (*owner)->queryDiscoveries(client::DQ_DISCOVERY_DATA, client::AT_ANYANDALL, "*", "*");
    EXPECT_EQ(opened->pageSize(), 8);
    records = referenceOf(opened);
    wire::RemoteWriter_var begun;
    ASSERT_EQ(
        (*owner)->putCollection(client::makeRecord("half", "written"), begun.out()).discStatus,
        client::DS_SUCCESS);
    ASSERT_TRUE(begun->put(client::makeChunk("<ha")));
    writer = referenceOf(begun);
  }
  {
    // From the very address of the owner.
    auto const other = peer("web2", WEB1);
    EXPECT_EQ(outcomeOf([&] { behind<wire::DiscoveryIterator>(records)->getNextPage(); }), REFUSED);
    EXPECT_EQ(outcomeOf([&] { behind<wire::DiscoveryIterator>(records)->release(); }), REFUSED);
    EXPECT_EQ(outcomeOf([&] { behind<wire::RemoteWriter>(writer)->close(); }), REFUSED);
    EXPECT_THAT(m_service.log(), HasSubstr("RemoteWriter_i::close: Refused a call of 127.0.0.21 "
                                           "(web2): the object belongs to 127.0.0.21 (web1)"));
  }
  auto const again = peer("web1-renewed", STRANGER);
  wire::DiscoverySeq_var const page = behind<wire::DiscoveryIterator>(records)->getNextPage();
  EXPECT_EQ(page->length(), 1U);
  behind<wire::DiscoveryIterator>(records)->release();
  auto const continued = behind<wire::RemoteWriter>(writer);
  EXPECT_TRUE(continued->put(client::makeChunk("lf/>")));
  EXPECT_EQ(continued->close().discStatus, client::DS_SUCCESS);
  EXPECT_EQ(again->read("half", "written"), "<half/>");
  stop();
}
