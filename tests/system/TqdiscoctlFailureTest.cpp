// tqdiscoctl and a service that stands still, says nothing or dies: it never
// hangs, exits with 5 and says what to do next.

#include "tests/support/LiveService.h"
#include "tests/support/StoredRecord.h"
#include "tests/support/UnwellService.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <functional>

namespace
{

using namespace tqtest;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using Words = std::vector<std::string>;

constexpr char NEXT_STEP[] = "--master HOST[:PORT]";

class TqdiscoctlFailureTest : public testing::Test
{
protected:
  // What the service finds in its database when it starts.
  void fillDatabase(int records, std::size_t bytes)
  {
    setenv("TESSARINE_ROOT", m_service.root().c_str(), 1);
    stored::getDiscoveryDBDatabase()->init("");
    for (int i = 0; i < records; ++i)
      ASSERT_EQ(stored::write("subject" + std::to_string(i), 1, bytes), stored::DS_SUCCESS);
  }

  Process::Environment environment() const { return {{"TESSARINE_ROOT", m_service.root()}}; }

  // Kills the service once it is in the middle of what the command wants of it.
  Outcome killedWhile(Words const& words)
  {
    pid_t const service = m_service.process().pid();
    long const before = waitsOf(service);
    return killedWhen([=] { return waitsOf(service) > before + WAITS_IN_THE_MIDDLE; }, words);
  }

  Outcome killedWhen(std::function<bool()> const& inTheMiddle, Words const& words)
  {
    Process command(TQ_BIN_DIR "/tqdiscoctl", words, environment());
    EXPECT_TRUE(eventually(inTheMiddle, std::chrono::seconds(60)));
    m_service.process().sendSignal(SIGKILL);
    EXPECT_TRUE(m_service.process().wait());
    EXPECT_TRUE(command.wait()) << "it hangs";
    return {command.exitCode(), command.output(), command.errors()};
  }

  static void expectNotReachable(Outcome const& outcome)
  {
    EXPECT_EQ(outcome.exitCode, 5) << outcome.errors;
    EXPECT_THAT(outcome.output, IsEmpty());
    EXPECT_THAT(outcome.errors, AllOf(HasSubstr("systemctl status tqdisco"), HasSubstr(NEXT_STEP)));
  }

  LiveService m_service;
};

TEST_F(TqdiscoctlFailureTest, aServiceThatStandsStillIsGivenUpAfterTheTimeOut)
{
  ASSERT_TRUE(m_service.start()) << m_service.log();
  m_service.process().freeze();
  for (Words const& words : {Words{"query"}, Words{"status"}, Words{"push"}, Words{"watch"}})
  {
    Words all{"--timeout", "1"};
    all.insert(all.end(), words.begin(), words.end());
    auto const begin = std::chrono::steady_clock::now();
    Outcome const outcome = m_service.tqdiscoctl(all);
    expectNotReachable(outcome);
    EXPECT_THAT(outcome.errors, HasSubstr("does not answer in time"));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(30)) << words[0];
  }
  m_service.process().sendSignal(SIGCONT);
  EXPECT_EQ(m_service.tqdiscoctl({"query"}).exitCode, 3) << "it is as before";
  EXPECT_EQ(m_service.stop(), 0) << m_service.log();
}

// With the protocol's own pages of eight bytes the payload takes minutes.
class TqdiscoctlKilledTest : public TqdiscoctlFailureTest
{
protected:
  void SetUp() override
  {
    fillDatabase(2, std::size_t(32) << 20);
    m_service.configure("COLLECTION_PAGE_SIZE = 8\n");
    ASSERT_TRUE(m_service.start()) << m_service.log();
  }
};

TEST_F(TqdiscoctlKilledTest, whileOneCollectionIsShown)
{
  Outcome const outcome = killedWhile({"show", "subject0", stored::AUTHORITY});
  expectNotReachable(outcome);
  EXPECT_THAT(outcome.errors, HasSubstr("does not answer any more"));
}

TEST_F(TqdiscoctlKilledTest, whileThePayloadIsPrinted)
{
  expectNotReachable(killedWhile({"show", "subject0", stored::AUTHORITY, "--raw"}));
}

TEST_F(TqdiscoctlKilledTest, whileAllCollectionsAreRead)
{
  Outcome const outcome = killedWhile({"items"});
  expectNotReachable(outcome);
  EXPECT_THAT(outcome.errors, Not(HasSubstr("subject1"))) << "the rest is not tried";
}

TEST_F(TqdiscoctlFailureTest, aServiceKilledWhileAPayloadIsStored)
{
  m_service.configure("COLLECTION_WRITE_SIZE = 1024\n");
  ASSERT_TRUE(m_service.start()) << m_service.log();
  // As much as is taken at all, killed when a part of it has come.
  writeText(m_service / "payload", std::string(std::size_t(255) << 20, 'x'));
  std::string const temporary = m_service.database() + "/0.updating";
  auto const partHasCome = [&]
  {
    std::error_code error;
    auto const size = std::filesystem::file_size(temporary, error);
    return !error && size > (std::size_t(1) << 20);
  };
  Outcome const outcome =
      killedWhen(partHasCome, {"put", "web1", "disks", m_service / "payload", "--unchecked"});
  expectNotReachable(outcome);
  EXPECT_THAT(outcome.errors, HasSubstr("not stored"));
}

// ---- at a terminal ----

std::string atTerminal(std::string const& words, std::string const& root)
{
  std::string const command = "stty cols 80; '" TQ_BIN_DIR "/tqdiscoctl' " + words;
  return runProgram("/usr/bin/script", {"-qec", command, "/dev/null"}, {{"TESSARINE_ROOT", root}})
      .output;
}

TEST_F(TqdiscoctlFailureTest, waitingIsToldAtATerminalAndNowhereElse)
{
  SilentPort const silent;
  std::string const place = "127.0.0.1:" + std::to_string(silent.port());
  std::string const words = "query --timeout 3 --master " + place;
  std::string const seen = atTerminal(words, m_service.root());
  EXPECT_THAT(seen, AllOf(HasSubstr("\r\033[KConnecting to " + place + ": 1s"),
                          HasSubstr("\r\033[Ktqdiscoctl: no discovery service at ")));
  EXPECT_THAT(atTerminal(words + " 2>/dev/null", m_service.root()), IsEmpty());

  Outcome const piped = m_service.tqdiscoctl({"query", "--timeout", "3", "--master", place});
  EXPECT_THAT(piped.errors, AllOf(Not(HasSubstr("Connecting")), Not(HasSubstr("\033"))));
}

TEST_F(TqdiscoctlFailureTest, theProgressOfLongReadingIsToldAndTakenAway)
{
  ASSERT_TRUE(m_service.start()) << m_service.log();
  writeText(m_service / "payload", "<DiscoveredItems><DISCOVERED Name=\"one\"/>" +
                                       std::string(3000, ' ') + "</DiscoveredItems>");
  for (int i = 0; i < 30; ++i)
    ASSERT_EQ(
        m_service.tqdiscoctl({"put", "subject" + std::to_string(i), "disks", m_service / "payload"})
            .exitCode,
        0);
  // A call for every byte.
  m_service.configure("COLLECTION_PAGE_SIZE = 1\n");
  std::string const seen = atTerminal("items", m_service.root());
  EXPECT_THAT(seen, testing::ContainsRegex("\r\033\\[KReading collections: [0-9]+ of 30"));
  std::size_t const last = seen.rfind("\r\033[KReading collections: ");
  ASSERT_NE(last, std::string::npos);
  EXPECT_EQ(seen.find("\r\033[K", last + 1), seen.rfind("\r\033[K")) << "it is taken away once";
  EXPECT_GT(seen.rfind("\r\033[K"), last);
  EXPECT_EQ(m_service.stop(), 0) << m_service.log();
}

} // namespace
