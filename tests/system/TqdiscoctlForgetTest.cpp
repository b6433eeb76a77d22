// tqdiscoctl db forget: what it removes, what it asks, and whom it waits for.

#include "tests/support/LiveService.h"
#include "tests/support/Records.h"
#include "tests/support/RemoteClient.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <fcntl.h>

namespace
{

using namespace tqtest;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAre;

// The database is made here, without a service.
class TqdiscoctlForgetTest : public testing::Test
{
protected:
  TqdiscoctlForgetTest()
  {
    std::filesystem::create_directories(m_database);
    store("web7", "host", records::AT_TQUCLIENT);
    store("web7", "volume", records::AT_REMOTEPULL);
    store("web70", "host", records::AT_TQUCLIENT);
  }

  void store(std::string const& subject, std::string const& authority, records::AuthorityType type)
  {
    ASSERT_EQ(records::store(m_database, authority, subject, 3, "<x/>", type), records::DS_SUCCESS);
  }

  Process::Environment environment() const { return {{"TESSARINE_ROOT", m_root.path()}}; }

  Outcome forget(std::vector<std::string> words)
  {
    words.insert(words.begin(), {"db", "forget"});
    return runProgram(TQ_BIN_DIR "/tqdiscoctl", words, environment());
  }

  // At a terminal where that line is typed.
  std::string forgetAtTerminal(std::string const& words, std::string const& answer)
  {
    std::string const command = "echo " + answer +
                                " | /usr/bin/script -qec '" TQ_BIN_DIR "/tqdiscoctl db forget " +
                                words + "' /dev/null";
    return runProgram("/bin/sh", {"-c", command}, environment()).output;
  }

  std::vector<std::string> files() const
  {
    std::vector<std::string> names;
    for (auto const& entry : std::filesystem::directory_iterator(m_database))
      if (entry.path().extension() == ".xml" || entry.path().extension() == ".dat")
        names.push_back(entry.path().filename().string());
    return names;
  }

  TempDir m_root;
  std::string m_database = m_root / "db/discovery";
};

constexpr char const* OTHERS[] = {"2 host web70.xml", "2 host web70.dat"};

} // namespace

TEST_F(TqdiscoctlForgetTest, allOfASubjectGoesAndNothingElse)
{
  Outcome const outcome = forget({"WEB7", "--yes"});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
  EXPECT_THAT(outcome.output, HasSubstr("4 volume web7.xml, 4 volume web7.dat"));
  EXPECT_THAT(outcome.output, HasSubstr("Removed 2 discoveries."));
  EXPECT_THAT(outcome.errors, HasSubstr("forgets what was announced within seconds"));
  EXPECT_THAT(files(), UnorderedElementsAre(OTHERS[0], OTHERS[1]));
  Outcome const again = forget({"web7", "--yes"});
  EXPECT_EQ(again.exitCode, 3);
  EXPECT_THAT(again.errors, HasSubstr("nothing of subject \"web7\" in " + m_database));
}

TEST_F(TqdiscoctlForgetTest, authorityAndTypeChoose)
{
  EXPECT_EQ(forget({"web7", "host", "--type", "remotepull", "--yes"}).exitCode, 3);
  EXPECT_EQ(forget({"web7", "--type", "nonsense", "--yes"}).exitCode, 2);
  EXPECT_EQ(files().size(), 6U);
  EXPECT_EQ(forget({"web7", "host", "--yes"}).exitCode, 0);
  EXPECT_THAT(files(),
              UnorderedElementsAre(OTHERS[0], OTHERS[1], "4 volume web7.xml", "4 volume web7.dat"));
  EXPECT_EQ(forget({"web7", "--type", "remotepull", "--yes"}).exitCode, 0);
  EXPECT_THAT(files(), UnorderedElementsAre(OTHERS[0], OTHERS[1]));
}

TEST_F(TqdiscoctlForgetTest, withoutATerminalItWantsToBeToldAndADryRunRemovesNothing)
{
  Outcome const refused = forget({"web7"});
  EXPECT_EQ(refused.exitCode, 2);
  EXPECT_THAT(refused.errors, HasSubstr("--yes"));
  EXPECT_EQ(forget({"web7", "--json"}).exitCode, 2);
  Outcome const dry = forget({"web7", "--dry-run"});
  EXPECT_EQ(dry.exitCode, 0) << dry.errors;
  EXPECT_THAT(dry.output, HasSubstr("2 host web7.xml, 2 host web7.dat"));
  EXPECT_THAT(dry.output, Not(HasSubstr("Removed")));
  EXPECT_EQ(files().size(), 6U);
}

TEST_F(TqdiscoctlForgetTest, atATerminalItAsks)
{
  EXPECT_THAT(forgetAtTerminal("web7", "n"), HasSubstr("nothing was removed"));
  EXPECT_EQ(files().size(), 6U);
  EXPECT_THAT(forgetAtTerminal("web7", "y"), HasSubstr("Remove 2 discoveries for good? [y/N]"));
  EXPECT_THAT(files(), UnorderedElementsAre(OTHERS[0], OTHERS[1]));
}

TEST_F(TqdiscoctlForgetTest, asJsonItTellsWhatWent)
{
  Outcome const outcome = forget({"web7", "volume", "--yes", "--json"});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
  auto const told = nlohmann::json::parse(outcome.output);
  EXPECT_EQ(told["dryRun"], false);
  ASSERT_EQ(told["discoveries"].size(), 1U);
  EXPECT_EQ(told["discoveries"][0]["subject"], "web7");
  EXPECT_EQ(told["discoveries"][0]["typeName"], "remotepull");
  EXPECT_EQ(told["discoveries"][0]["removed"], true);
}

TEST_F(TqdiscoctlForgetTest, whatCannotBeReadIsFoundByItsFiles)
{
  std::filesystem::remove(m_database + "/2 host web7.dat");
  writeText(m_database + "/2 host web7.xml", "<DiscoveryData><Disco");
  std::filesystem::remove(m_database + "/4 volume web7.xml");
  Outcome const outcome = forget({"web7", "--yes"});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
  EXPECT_THAT(outcome.output, HasSubstr("(unreadable)"));
  EXPECT_THAT(files(), UnorderedElementsAre(OTHERS[0], OTHERS[1]));
}

TEST_F(TqdiscoctlForgetTest, whatCannotBeRemovedIsTold)
{
  std::filesystem::remove(m_database + "/2 host web7.dat");
  std::filesystem::create_directory(m_database + "/2 host web7.dat");
  Outcome const outcome = forget({"web7", "--yes"});
  EXPECT_EQ(outcome.exitCode, 4);
  EXPECT_THAT(outcome.errors, HasSubstr("\"2 host web7\" cannot be removed"));
  EXPECT_TRUE(std::filesystem::exists(m_database + "/2 host web7.xml")) << "it names the payload";
  EXPECT_EQ(forget({"web7", "--yes"}).exitCode, 1);
}

TEST_F(TqdiscoctlForgetTest, whoHoldsTheLockIsWaitedFor)
{
  std::string const metadata = m_database + "/4 volume web7.xml";
  int const fd = open(metadata.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  struct flock lock = {};
  lock.l_type = F_RDLCK;
  lock.l_whence = SEEK_SET;
  lock.l_len = 1;
  ASSERT_EQ(fcntl(fd, F_SETLK, &lock), 0);
  Process process(TQ_BIN_DIR "/tqdiscoctl", {"db", "forget", "web7", "--yes"}, environment());
  // The other pair comes first.
  EXPECT_TRUE(
      eventually([this] { return !std::filesystem::exists(m_database + "/2 host web7.xml"); }));
  EXPECT_TRUE(std::filesystem::exists(metadata));
  EXPECT_TRUE(std::filesystem::exists(m_database + "/4 volume web7.dat"));
  close(fd);
  ASSERT_TRUE(process.wait());
  EXPECT_EQ(process.exitCode(), 0) << process.errors();
  EXPECT_THAT(files(), UnorderedElementsAre(OTHERS[0], OTHERS[1]));
}

TEST(TqdiscoctlForgetServiceTest, anAnnouncementIsForgottenWhileTheServiceRuns)
{
  LiveService service;
  ASSERT_TRUE(service.start()) << service.log();
  auto const announcements = [&]
  {
    return nlohmann::json::parse(
               service.tqdiscoctl({"query", "--type", "remotepull", "--json"}).output)
        .size();
  };
  {
    client::Client client(service.root(), LiveService::NAME);
    ASSERT_TRUE(client.connected());
    client->registerExplorer("127.0.0.1", "DiscoveryService", "gone", "volume",
                             client::AT_TQUCLIENT, 5);
  }
  EXPECT_EQ(announcements(), 1U);
  Outcome const outcome = service.tqdiscoctl({"db", "forget", "gone", "volume", "--yes"});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
  EXPECT_EQ(announcements(), 0U);
  EXPECT_EQ(service.stop(), 0) << service.log();
  ASSERT_TRUE(service.start()) << service.log();
  EXPECT_THAT(nlohmann::json::parse(service.tqdiscoctl({"query", "--json"}).output), IsEmpty());
  EXPECT_EQ(service.stop(), 0) << service.log();
}

// A host that was taken away, and of which an announcement is left that never
// expires.
TEST(TqdiscoctlForgetServiceTest, aHostThatWasTakenAwayMakesTheStatusFailUntilItIsForgotten)
{
  LiveService service;
  ASSERT_TRUE(service.start()) << service.log();
  {
    client::Client client(service.root(), LiveService::NAME);
    ASSERT_TRUE(client.connected());
    client->registerExplorer("127.0.0.9", "DiscoveryService", "gone", "volume",
                             client::AT_TQUCLIENT, 5);
  }
  // Where no service tells of itself, none is missed.
  EXPECT_EQ(service.tqdiscoctl({"put", "here", "service", "A=1", "--type", "client"}).exitCode, 0);
  EXPECT_EQ(service.tqdiscoctl({"put", "gone", "disks", "A=1", "--type", "client"}).exitCode, 0);
  Outcome const silent = service.tqdiscoctl({"status"});
  EXPECT_EQ(silent.exitCode, 4) << silent.output;
  EXPECT_THAT(silent.errors, HasSubstr("1 host is silent"));
  EXPECT_THAT(silent.errors, HasSubstr("\"tqdiscoctl db forget HOST\" on the master"));
  EXPECT_EQ(service.tqdiscoctl({"db", "forget", "gone", "disks", "--yes"}).exitCode, 0);
  EXPECT_EQ(service.tqdiscoctl({"status"}).exitCode, 4) << "the announcement is still there";
  EXPECT_EQ(service.tqdiscoctl({"db", "forget", "gone", "--yes"}).exitCode, 0);
  Outcome const outcome = service.tqdiscoctl({"status"});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.output << outcome.errors;
  EXPECT_EQ(service.stop(), 0) << service.log();
}

TEST(TqdiscoctlForgetServiceTest, whatWasPutIsRemovedWhileTheServiceRuns)
{
  LiveService service;
  ASSERT_TRUE(service.start()) << service.log();
  for (char const* const authority : {"rack", "owner"})
    EXPECT_EQ(service.tqdiscoctl({"put", "web7", authority, "A=1"}).exitCode, 0);
  Outcome const outcome = service.tqdiscoctl({"db", "forget", "web7", "rack", "--yes"});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
  EXPECT_EQ(service.tqdiscoctl({"show", "web7", "rack"}).exitCode, 3);
  EXPECT_EQ(service.tqdiscoctl({"show", "web7", "owner"}).exitCode, 0);
  EXPECT_EQ(service.stop(), 0) << service.log();
}

TEST(TqdiscoctlForgetServiceTest, helpSaysWhatIsRemovedWhereAndWhatOnlyExpires)
{
  auto const help = [](LiveService::Words words)
  {
    words.push_back("--help");
    std::string text = runProgram(TQ_BIN_DIR "/tqdiscoctl", words).output;
    std::string joined; // as one line
    std::istringstream parts(text);
    for (std::string word; parts >> word;)
      joined += (joined.empty() ? "" : " ") + word;
    return joined;
  };
  EXPECT_THAT(help({"db", "forget"}),
              HasSubstr("It takes access to the master's files: through the service nothing is "
                        "removed, it only expires."));
  EXPECT_THAT(help({"put"}),
              HasSubstr("it expires, or \"tqdiscoctl db forget\" removes it there."));
}
