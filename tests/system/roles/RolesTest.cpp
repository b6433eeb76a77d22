// Who may read, write and control a service.

#include "tests/support/IdlOperations.h"
#include "tests/system/roles/RolesTesting.h"

#include <future>
#include <map>

namespace
{

using namespace tqtest;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
namespace wire = client::Remote;

using Call = std::function<void(client::Client&)>;

// For the service, whose resolver answers by it.
Process::Environment const KNOWS_BIG_MASTER{{"LD_PRELOAD", TQ_FIXTURE_DIR "/libcall_from.so"},
                                            {"ASAN_OPTIONS", "verify_asan_link_order=0"},
                                            {"TQ_HOSTS", "bigmaster=127.0.0.7,127.0.0.8"}};

void restart(client::Client& peer) { peer->restartLocalPushTimer(); }
void restartAll(client::Client& peer) { peer->restartAllPushTimers(); }
void terminate(client::Client& peer) { peer->terminate(); }
void list(client::Client& peer) { peer.subjects(); }
void store(client::Client& peer)
{
  ASSERT_EQ(peer.store("stored", "written", "<stored/>"), client::DS_SUCCESS);
}

// Each operation by its name on the wire. Those of iterators and writers are called
// on the service's own object, which has none of them: what is refused is refused
// before that is found out.
std::map<std::string, Call> const& everyCall()
{
  static auto const asRecords = [](client::Client& peer)
  {
    return wire::DiscoveryIterator_var(
        wire::DiscoveryIterator::_unchecked_narrow(peer.operator->()));
  };
  static auto const asWriter = [](client::Client& peer)
  { return wire::RemoteWriter_var(wire::RemoteWriter::_unchecked_narrow(peer.operator->())); };
  static std::map<std::string, Call> const calls{
      {"queryDiscoveries", list},
      {"getCollectionData", [](client::Client& peer) { peer.read("no such", "authority"); }},
      {"getNextPage", [](client::Client& peer)
       { wire::DiscoverySeq_var const page = asRecords(peer)->getNextPage(); }},
      {"_get_pageSize", [](client::Client& peer) { asRecords(peer)->pageSize(); }},
      {"_set_pageSize", [](client::Client& peer) { asRecords(peer)->pageSize(1); }},
      {"release", [](client::Client& peer) { asRecords(peer)->release(); }},
      {"putCollection",
       [](client::Client& peer)
       {
         wire::RemoteWriter_var writer;
         peer->putCollection(client::makeRecord("", ""), writer.out());
       }},
      {"put", [](client::Client& peer) { asWriter(peer)->put(client::makeChunk("x")); }},
      {"close", [](client::Client& peer) { asWriter(peer)->close(); }},
      {"registerExplorer", [](client::Client& peer)
       { peer->registerExplorer("", "", "", "", client::AT_TQUCLIENT, 1); }},
      {"terminate", terminate},
      {"restartLocalPushTimer", restart},
      {"restartAllPushTimers", restartAll},
  };
  return calls;
}

} // namespace

TEST_F(RolesTest, withoutListsControlIsForThisHostAndTheMasterAlone)
{
  start("");
  EXPECT_EQ(callFrom(STRANGER, store), "done");
  EXPECT_EQ(callFrom(STRANGER, list), "done");
  for (Call const& control : {Call(terminate), Call(restart), Call(restartAll)})
    EXPECT_EQ(callFrom(STRANGER, control), REFUSED);
  EXPECT_THAT(m_service.log(),
              AllOf(HasSubstr("requireRight: Refused a call of 127.0.0.9: terminate is for local, "
                              "master, without ALLOW_CONTROL (CallRights:"),
                    HasSubstr("Refused a call of 127.0.0.9: restartLocalPushTimer is for local, "),
                    HasSubstr("Refused a call of 127.0.0.9: restartAllPushTimers is for local, "),
                    Not(HasSubstr("Refused a call of 127.0.0.1"))));
  EXPECT_EQ(callFrom(THIS_HOST, restart), "done");
  EXPECT_EQ(callFrom(THIS_HOST, restartAll), "done");
  EXPECT_EQ(callFrom(THIS_HOST, terminate), "done");
  EXPECT_TRUE(m_service.process().wait());
}

TEST_F(RolesTest, aRefusalLeavesTheConnectionAsItWasAndIsCounted)
{
  std::string const audit = m_service / "log/audit.log";
  start("AUDIT_FILE = " + audit + "\n");
  EXPECT_EQ(callFrom(STRANGER,
                     [](client::Client& peer)
                     {
                       store(peer);
                       for (int i = 0; i < 100; ++i)
                         EXPECT_EQ(outcomeOf([&] { peer->terminate(); }), REFUSED);
                       EXPECT_EQ(peer.read("stored", "written"), "<stored/>");
                     }),
            "done");
  stop();
  EXPECT_EQ(occurrences(m_service.log(), "Refused a call of 127.0.0.9: terminate"), 2U)
      << m_service.log();
  EXPECT_THAT(m_service.log(),
              testing::ContainsRegex("Repeated 99 times in .*: Refused a call of"));
  EXPECT_EQ(occurrences(readText(audit), "\"peer\":\"127.0.0.9\",\"name\":[],\"operation\":"
                                         "\"terminate\",\"subject\":\"\",\"authority\":\"\","
                                         "\"result\":\"refused: terminate is for "),
            100U)
      << readText(audit);
}

TEST_F(RolesTest, theCommandTellsOfTheRefusalInWords)
{
  start("");
  for (auto const& words : {std::vector<std::string>{"stop"}, {"push"}, {"push", "--all"}})
  {
    Outcome const outcome = tqdiscoctlFrom(STRANGER, words);
    EXPECT_EQ(outcome.exitCode, 6) << outcome.errors;
    EXPECT_THAT(outcome.errors, AllOf(HasSubstr("the service refuses it to who calls from here"),
                                      HasSubstr("ALLOW_CONTROL of its configuration")));
  }
  EXPECT_EQ(tqdiscoctlFrom(STRANGER, {"query"}).exitCode, 3);
  EXPECT_EQ(tqdiscoctlFrom(THIS_HOST, {"push"}).exitCode, 0);
  Outcome const stopped = tqdiscoctlFrom(THIS_HOST, {"stop"});
  EXPECT_EQ(stopped.exitCode, 0) << stopped.errors;
}

TEST_F(RolesTest, theCommandTellsWhoMayNotEvenRead)
{
  start("ALLOW_READ = none\nALLOW_WRITE = none\nALLOW_CONTROL = none\n");
  for (auto const& words : {std::vector<std::string>{"query"},
                            {"status"},
                            {"stop"},
                            {"put", "--unchecked", "s", "a", TQ_SOURCE_DIR "/README.md"}})
  {
    Outcome const outcome = tqdiscoctlFrom(THIS_HOST, words);
    EXPECT_EQ(outcome.exitCode, 6) << outcome.errors;
    EXPECT_THAT(outcome.errors, HasSubstr("refused by the service at tqtestmaster"));
  }
  stop();
}

TEST_F(RolesTest, theCommandTellsWhoMayNotReadAndWhoMayNotWrite)
{
  start("ALLOW_READ = none\n");
  Outcome outcome = tqdiscoctlFrom(THIS_HOST, {"query"});
  EXPECT_EQ(outcome.exitCode, 6) << outcome.errors;
  EXPECT_THAT(outcome.errors, HasSubstr("the service gives no list: it does not allow this"));
  reload("ALLOW_WRITE = none\n", "Took the lists of who may call");
  outcome = tqdiscoctlFrom(THIS_HOST, {"put", "--unchecked", "s", "a", TQ_SOURCE_DIR "/README.md"});
  EXPECT_EQ(outcome.exitCode, 6) << outcome.errors;
  EXPECT_THAT(outcome.errors, HasSubstr("not stored: it does not allow this"));
  stop();
}

TEST_F(RolesTest, controlMayBeForEverybodyAsItWas)
{
  start("ALLOW_CONTROL = any\n");
  EXPECT_EQ(callFrom(STRANGER, restartAll), "done");
  EXPECT_EQ(callFrom(STRANGER, terminate), "done");
  EXPECT_TRUE(m_service.process().wait());
}

TEST_F(RolesTest, theMasterMayStopAServiceWithoutLists)
{
  start("SERVER = bigmaster\n", KNOWS_BIG_MASTER);
  EXPECT_EQ(callFrom(STRANGER, terminate), REFUSED);
  EXPECT_EQ(callFrom("127.0.0.7", terminate), "done") << m_service.log();
  EXPECT_TRUE(m_service.process().wait());
}

TEST_F(RolesTest, theMasterMayControlFromAllOfItsAddresses)
{
  start("SERVER = bigmaster\n", KNOWS_BIG_MASTER);
  for (char const* address : {"127.0.0.7", "127.0.0.8"})
    EXPECT_EQ(callFrom(address, restart), "done") << m_service.log();
  EXPECT_EQ(callFrom(STRANGER, restart), REFUSED);
  // Its refresh, and what it reads of hosts, are for it whatever is configured.
  reload("SERVER = bigmaster\nALLOW_READ = none\nALLOW_WRITE = none\nALLOW_CONTROL = none\n",
         "Took the lists of who may call");
  EXPECT_EQ(callFrom("127.0.0.8", restart), "done") << m_service.log();
  EXPECT_EQ(callFrom("127.0.0.8", everyCall().at("getCollectionData")), "done");
  EXPECT_EQ(callFrom("127.0.0.8", terminate), REFUSED);
  EXPECT_EQ(callFrom("127.0.0.8", everyCall().at("putCollection")), REFUSED);
  stop();
}

// It may be the master, or not: nobody is refused for what cannot be told.
TEST_F(RolesTest, whileTheMasterCannotBeLookedUpACallOfControlIsToComeAgain)
{
  std::string const slow = m_service / "slow";
  start("SERVER = far.slow\n", {{"LD_PRELOAD", TQ_FIXTURE_DIR "/libcall_from.so"},
                                {"ASAN_OPTIONS", "verify_asan_link_order=0"},
                                {"TQ_HOSTS", "far.slow=127.0.0.7"},
                                {"TQ_SLOW", slow}});
  writeText(slow, "");
  CallingFrom const from(STRANGER);
  client::Client peer(m_service.root(), LiveService::NAME);
  ASSERT_TRUE(peer.connected());
  auto const call = [&] { return outcomeOf([&] { restart(peer); }); };
  // One of them asks the resolver, the other waits for its answer, but not for long.
  auto first = std::async(std::launch::async, call);
  auto second = std::async(std::launch::async, call);
  EXPECT_TRUE(m_service.process().awaitError("requireRight: Refused a call of 127.0.0.9: its host "
                                             "cannot be looked up now: "))
      << m_service.log();
  std::filesystem::remove(slow);
  std::vector<std::string> const outcomes{first.get(), second.get()};
  EXPECT_THAT(outcomes, testing::UnorderedElementsAre("TRANSIENT", REFUSED));
  stop();
}

TEST_F(RolesTest, eachOperationIsForThoseOfItsListAlone)
{
  start("ALLOW_READ = 127.0.0.11\nALLOW_WRITE = 127.0.0.12, 127.0.0.22\n"
        "ALLOW_CONTROL = 127.0.0.13\n");
  std::map<std::string, std::string> const listOf{
      {"terminate", "CONTROL"},           {"restartLocalPushTimer", "CONTROL"},
      {"putCollection", "WRITE"},         {"put", "WRITE"},
      {"registerExplorer", "WRITE"},      {"close", "WRITE"},
      {"restartAllPushTimers", "CONTROL"}};
  std::map<std::string, std::string> const callers{
      {"READ", "127.0.0.11"}, {"WRITE", "127.0.0.12"}, {"CONTROL", "127.0.0.13"}};
  for (auto const& operation : operationsOfIdl(TQ_SOURCE_DIR "/idl/DiscoveryService.idl"))
  {
    ASSERT_TRUE(everyCall().contains(operation)) << operation << " is not called";
    auto const list = listOf.contains(operation) ? listOf.at(operation) : "READ";
    for (auto const& [role, address] : callers)
    {
      if (operation == "terminate" && role == list)
        continue; // the others are still to be called
      std::string const outcome = callFrom(address, everyCall().at(operation));
      // Iterators keep to who opened them: there is none here to be found.
      bool const isOfIterators =
          list == "READ" && !operation.ends_with("Discoveries") && operation != "getCollectionData";
      if (role == list || (role == "WRITE" && isOfIterators))
        EXPECT_THAT(outcome, testing::AnyOf("done", "BAD_OPERATION")) << operation;
      else
        EXPECT_EQ(outcome, REFUSED) << operation << " by who may " << role;
    }
  }
  EXPECT_EQ(callFrom(STRANGER, list), "not connected") << "nor may it ask what it is";
  EXPECT_EQ(callFrom(THIS_HOST, list), "not connected") << "it is in no list";
  EXPECT_THAT(m_service.log(),
              AllOf(HasSubstr("Refused a call of 127.0.0.12: queryDiscoveries is for ALLOW_READ = "
                              "127.0.0.11 ("),
                    HasSubstr("Refused a call of 127.0.0.13: putCollection is for ALLOW_WRITE = "
                              "127.0.0.12, 127.0.0.22 ("),
                    HasSubstr("Refused a call of 127.0.0.11: restartAllPushTimers is for "
                              "ALLOW_CONTROL = 127.0.0.13 ("),
                    HasSubstr("Refused a call of 127.0.0.9: _is_a is for ALLOW_READ = 127.0.0.11; "
                              "ALLOW_WRITE = 127.0.0.12, 127.0.0.22; ALLOW_CONTROL = 127.0.0.13")));
  EXPECT_EQ(callFrom("127.0.0.13", terminate), "done");
  EXPECT_TRUE(m_service.process().wait());
}

TEST_F(RolesTest, whoWritesMayLookForWhatItIsAskedToDoAndForNothingElse)
{
  start("ALLOW_READ = none\nALLOW_WRITE = 127.0.0.12\nALLOW_CONTROL = 127.0.0.13\n"
        "HOST_ADDRESS.writer = 127.0.0.12\n");
  auto const lists = [](char const* authority)
  {
    return [authority](client::Client& peer)
    {
      wire::DiscoveryIterator_var const found =
          peer->queryDiscoveries(client::DQ_DISCOVERY_DATA, client::AT_EXTSRC, "*", authority);
      EXPECT_EQ(wire::DiscoverySeq_var(found->getNextPage())->length(), 1U);
      found->release();
    };
  };
  EXPECT_EQ(callFrom("127.0.0.12",
                     [](client::Client& peer)
                     {
                       auto record = client::makeRecord("all", "refresh");
                       record.authType = client::AT_EXTSRC;
                       record.sourceHost = "writer";
                       ASSERT_EQ(peer.store(record, "<x/>"), client::DS_SUCCESS);
                     }),
            "done");
  EXPECT_EQ(callFrom("127.0.0.12", lists("refresh*")), "done") << m_service.log();
  for (char const* other : {"*", "refresh", "", "refresh**", "Refresh*"})
    EXPECT_EQ(callFrom("127.0.0.12", lists(other)), REFUSED) << other;
  EXPECT_EQ(callFrom("127.0.0.12", [](client::Client& peer) { peer.read("all", "refresh"); }),
            REFUSED);
  EXPECT_EQ(callFrom("127.0.0.13", lists("refresh*")), REFUSED);
  EXPECT_THAT(m_service.log(),
              HasSubstr("DiscoveryService_i::queryDiscoveries: Refused a call of 127.0.0.12: "
                        "queryDiscoveries is for ALLOW_READ = none ("));
  stop();
}

TEST_F(RolesTest, theListsAreTakenAtAReload)
{
  start("ALLOW_READ = local\nALLOW_CONTROL = any\n");
  EXPECT_EQ(callFrom(THIS_HOST, list), "done");
  EXPECT_EQ(callFrom(STRANGER, list), REFUSED);
  CallingFrom const from(STRANGER);
  client::Client peer(m_service.root(), LiveService::NAME);
  ASSERT_EQ(outcomeOf([&] { store(peer); }), "done");
  ASSERT_EQ(outcomeOf([&] { restart(peer); }), "done");
  reload("ALLOW_READ = 127.0.0.9\nALLOW_WRITE = none\n", "Took the lists of who may call");
  EXPECT_EQ(outcomeOf([&] { list(peer); }), "done");
  EXPECT_EQ(outcomeOf([&] { store(peer); }), REFUSED);
  EXPECT_EQ(outcomeOf([&] { restart(peer); }), REFUSED)
      << "what was known of the connection is not";
  std::string const refused =
      "The configuration is refused, what held before holds on: " + (m_service / "etc/tq.conf");
  reload("ALLOW_READ = 10.0.0/8\n", refused + ":6: \"ALLOW_READ\" has \"10.0.0/8\"");
  EXPECT_EQ(outcomeOf([&] { list(peer); }), "done");
  std::filesystem::remove(m_service / "etc/tq.conf");
  ASSERT_EQ(kill(m_service.process().pid(), SIGHUP), 0);
  ASSERT_TRUE(m_service.process().awaitError(refused + ": cannot be read: ")) << m_service.log();
  EXPECT_EQ(outcomeOf([&] { store(peer); }), REFUSED);
  EXPECT_EQ(outcomeOf([&] { terminate(peer); }), REFUSED) << "who is local stays, too";
  stop();
}

TEST_F(RolesTest, aMistakeInAListKeepsTheServiceFromStarting)
{
  m_service.configure("ALLOW_CONTROL = local\nALLOW_WRITE = 10.0.0.0/8, 10.1.0.0/33\n");
  m_service.launch();
  ASSERT_TRUE(m_service.process().wait());
  EXPECT_NE(m_service.process().exitCode(), 0);
  EXPECT_THAT(m_service.log(),
              AllOf(HasSubstr("ALLOW_WRITE of "),
                    HasSubstr(" has \"10.1.0.0/33\"; accepted: any, none, local")));
  Outcome const checked =
      runProgram(TQ_BIN_DIR "/tqdisco", {"--check-config"}, {{"TESSARINE_ROOT", m_service.root()}});
  EXPECT_EQ(checked.exitCode, 2);
  EXPECT_THAT(checked.errors, HasSubstr("\"ALLOW_WRITE\" has \"10.1.0.0/33\"; accepted: any"));
}
