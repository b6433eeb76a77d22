// What an operator sees of a database directory with tqdiscoctl.

#include "tests/support/LiveService.h"
#include "tests/support/Records.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

namespace
{

using namespace tqtest;
using testing::HasSubstr;
using testing::MatchesRegex;

// The processes' database is made here, without a service.
class TqdiscoctlDbTest : public testing::Test
{
protected:
  TqdiscoctlDbTest() { std::filesystem::create_directories(m_database); }

  Outcome run(std::vector<std::string> const& arguments)
  {
    return runProgram(TQ_BIN_DIR "/tqdiscoctl", arguments, {{"TESSARINE_ROOT", m_root.path()}});
  }

  void store(std::string const& subject, std::string const& authority, std::string const& payload,
             records::AuthorityType type = records::AT_TQUCLIENT, unsigned priority = 3)
  {
    ASSERT_EQ(records::store(m_database, authority, subject, priority, payload, type),
              records::DS_SUCCESS);
  }

  TempDir m_root;
  std::string m_database = m_root / "db/discovery";
};

} // namespace

TEST_F(TqdiscoctlDbTest, listShowsATableSortedBySubject)
{
  store("beta", "host", "<a/>");
  store("alpha", "filesystem", std::string(2048, 'x'));
  Outcome const outcome = run({"db", "list"});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
  EXPECT_EQ(outcome.errors, "");
  EXPECT_THAT(outcome.output,
              MatchesRegex("SUBJECT +AUTHORITY +TYPE +PRIORITY +AGE +EXPIRES IN +SIZE *\n"
                           "alpha +filesystem +client +3 +[0-9]+s +[0-9]+[hm] [0-9]+[ms] +[^\n]*\n"
                           "beta +host +client +3 +[^\n]*\n"));
}

TEST_F(TqdiscoctlDbTest, listAsJsonTellsEverythingOfARecord)
{
  store("a subject with \"quotes\" & spaces", "host", "<payload/>", records::AT_EXTSRC, 9);
  Outcome const outcome = run({"db", "list", "--json"});
  ASSERT_EQ(outcome.exitCode, 0) << outcome.errors;
  auto const all = nlohmann::json::parse(outcome.output);
  ASSERT_EQ(all.size(), 1U);
  auto const& record = all[0];
  EXPECT_EQ(record["subject"], "a subject with \"quotes\" & spaces");
  EXPECT_EQ(record["authority"], "host");
  EXPECT_EQ(record["type"], 3);
  EXPECT_EQ(record["typeName"], "external");
  EXPECT_EQ(record["collectionType"], static_cast<int>(records::CT_REAL_TIME));
  EXPECT_EQ(record["storage"], static_cast<int>(records::CS_CENTRALREPOSITORY));
  EXPECT_EQ(record["priority"], 9);
  EXPECT_EQ(record["payloadBytes"], 10);
  EXPECT_EQ(record["expired"], false);
  EXPECT_TRUE(record["discoveryTime"].is_string());
  EXPECT_TRUE(record["expiresTime"].is_string());
  EXPECT_TRUE(
      std::filesystem::exists(m_database + "/" + record["metadataFile"].get<std::string>()));
  EXPECT_EQ(readText(m_database + "/" + record["payloadFile"].get<std::string>()), "<payload/>");
}

TEST_F(TqdiscoctlDbTest, expiredRecordsAreShownAndNotDeleted)
{
  std::string const file = m_database + "/2 hostA hostB.xml";
  writeText(file, records::document(records::PAST));
  writeText(m_database + "/2 hostA hostB.dat", "<x/>");
  Outcome const outcome = run({"db", "list", "--json"});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
  EXPECT_EQ(nlohmann::json::parse(outcome.output)[0]["expired"], true);
  EXPECT_THAT(run({"db", "list"}).output, HasSubstr("expired"));
  EXPECT_EQ(run({"db", "verify"}).exitCode, 0);
  EXPECT_TRUE(std::filesystem::exists(file));
}

TEST_F(TqdiscoctlDbTest, anEmptyDatabaseExitsWith3)
{
  Outcome const table = run({"db", "list"});
  EXPECT_EQ(table.exitCode, 3);
  EXPECT_EQ(table.output, "");
  EXPECT_THAT(table.errors, HasSubstr("is empty"));
  Outcome const json = run({"db", "list", "--json"});
  EXPECT_EQ(json.exitCode, 3);
  EXPECT_EQ(nlohmann::json::parse(json.output), nlohmann::json::array());
  EXPECT_EQ(run({"db", "verify"}).exitCode, 0);
}

TEST_F(TqdiscoctlDbTest, listLeavesDamagedFilesOutAndExitsWith4)
{
  store("sound", "host", "<a/>");
  writeText(m_database + "/2 host torn.xml", "<DiscoveryData><Disco");
  Outcome const outcome = run({"db", "list"});
  EXPECT_EQ(outcome.exitCode, 4);
  EXPECT_THAT(outcome.output, HasSubstr("sound"));
  EXPECT_THAT(outcome.errors, HasSubstr("\"2 host torn.xml\" cannot be parsed"));
}

TEST_F(TqdiscoctlDbTest, showIndentsXmlAndRawGivesTheBytes)
{
  std::string const payload = "<a><b c=\"1\">text</b><d/></a>";
  store("alpha", "host", payload);
  Outcome const indented = run({"db", "show", "alpha", "host"});
  EXPECT_EQ(indented.exitCode, 0) << indented.errors;
  EXPECT_THAT(indented.output, HasSubstr("\n  <b c=\"1\">text</b>\n"));
  Outcome const raw = run({"db", "show", "alpha", "host", "--raw"});
  EXPECT_EQ(raw.exitCode, 0);
  EXPECT_EQ(raw.output, payload);
  // Names are compared as the service compares them.
  EXPECT_EQ(run({"db", "show", "ALPHA", "Host", "--raw"}).output, payload);
}

TEST_F(TqdiscoctlDbTest, showRawGivesBytesThatAreNoText)
{
  std::string bytes;
  for (int i = 0; i < 5000; ++i)
    bytes += static_cast<char>(i * 7);
  store("alpha", "host", bytes);
  EXPECT_EQ(run({"db", "show", "alpha", "host", "--raw"}).output, bytes);
  Outcome const shown = run({"db", "show", "alpha", "host"});
  EXPECT_EQ(shown.output, bytes);
  EXPECT_THAT(shown.errors, HasSubstr("no XML"));
}

TEST_F(TqdiscoctlDbTest, showAsJsonTellsTheRecordAndThePayload)
{
  store("alpha", "host", "<a note=\"\xc3\xa4\">\n</a>", records::AT_EXTSRC, 9);
  Outcome const outcome = run({"db", "show", "alpha", "host", "--json"});
  ASSERT_EQ(outcome.exitCode, 0) << outcome.errors;
  auto shown = nlohmann::json::parse(outcome.output);
  EXPECT_EQ(shown["payload"], "<a note=\"\xc3\xa4\">\n</a>");
  shown.erase("payload");
  EXPECT_EQ(shown, nlohmann::json::parse(run({"db", "list", "--json"}).output)[0]);

  store("beta", "host", "\xff<");
  EXPECT_EQ(nlohmann::json::parse(run({"db", "show", "beta", "host", "--json"}).output)["payload"],
            "\xef\xbf\xbd<");
  EXPECT_EQ(run({"db", "show", "alpha", "host", "--json", "--raw"}).exitCode, 2);
}

TEST_F(TqdiscoctlDbTest, showAsksForTheTypeWhenThereAreSeveral)
{
  store("alpha", "host", "<client/>", records::AT_TQUCLIENT);
  store("alpha", "host", "<external/>", records::AT_EXTSRC);
  Outcome const unclear = run({"db", "show", "alpha", "host"});
  EXPECT_EQ(unclear.exitCode, 2);
  EXPECT_THAT(unclear.errors, HasSubstr("choose one with --type: client external"));
  EXPECT_EQ(run({"db", "show", "alpha", "host", "--raw", "--type", "external"}).output,
            "<external/>");
  EXPECT_EQ(run({"db", "show", "alpha", "host", "--raw", "-t", "2"}).output, "<client/>");
  Outcome const nonsense = run({"db", "show", "alpha", "host", "--type", "nonsense"});
  EXPECT_EQ(nonsense.exitCode, 2);
  EXPECT_THAT(nonsense.errors, HasSubstr("nonsense"));
}

TEST_F(TqdiscoctlDbTest, showOfWhatIsNotStoredExitsWith3)
{
  store("alpha", "host", "<a/>");
  Outcome const outcome = run({"db", "show", "alpha", "nobody"});
  EXPECT_EQ(outcome.exitCode, 3);
  EXPECT_EQ(outcome.output, "");
  EXPECT_THAT(outcome.errors, HasSubstr("\"nobody\""));
  EXPECT_EQ(run({"db", "show", "alpha", "host", "--type", "server"}).exitCode, 3);
}

TEST_F(TqdiscoctlDbTest, verifyCountsWhatIsSoundAndNamesWhatIsNot)
{
  store("alpha", "host", "<a/>");
  store("beta", "host", "<b/>");
  Outcome const sound = run({"db", "verify"});
  EXPECT_EQ(sound.exitCode, 0);
  EXPECT_EQ(sound.output, "2 sound, 0 problems\n");

  std::filesystem::remove(m_database + "/2 host alpha.dat");
  writeText(m_database + "/2 host orphan.dat", "x");
  writeText(m_database + "/note.txt", "x");
  writeText(m_database + "/5.updating", "x");
  std::filesystem::copy_file(m_database + "/2 host beta.xml", m_database + "/2 host gamma.xml");
  Outcome const damaged = run({"db", "verify"});
  EXPECT_EQ(damaged.exitCode, 4);
  for (char const* const line :
       {"\"2 host alpha.xml\" has no payload file\n",
        "\"2 host orphan.dat\" is a payload without a metadata file\n",
        "\"note.txt\" is not a file of the database\n",
        "\"2 host gamma.xml\" is not named after what it holds, which would be "
        "\"2 host beta.xml\"\n",
        "\"5.updating\" is being written, or was left behind and goes at the next start\n",
        "1 sound, 4 problems\n"})
    EXPECT_THAT(damaged.output, HasSubstr(line));

  auto const json = nlohmann::json::parse(run({"db", "verify", "--json"}).output);
  EXPECT_EQ(json["discoveries"], 1);
  EXPECT_EQ(json["directory"], m_database);
  EXPECT_EQ(json["temporaryFiles"], nlohmann::json::array({"5.updating"}));
  EXPECT_EQ(json["problems"].size(), 4U);
}

TEST_F(TqdiscoctlDbTest, verifyReadsPayloadsUnlessItIsToBeQuick)
{
  for (char const* const subject : {"cut", "empty", "whole", "zeros"})
    store(subject, "host", "<a><b/></a>");
  writeText(m_database + "/2 host cut.dat", "<a><b/>");
  writeText(m_database + "/2 host empty.dat", "");
  writeText(m_database + "/2 host zeros.dat", std::string(11, '\0'));
  Outcome const outcome = run({"db", "verify"});
  EXPECT_EQ(outcome.exitCode, 4);
  for (char const* const line :
       {"\"2 host cut.xml\" has a payload that is no XML: ",
        "\"2 host empty.xml\" has a payload that is empty\n",
        "\"2 host zeros.xml\" has a payload that is no XML: ", "1 sound, 3 problems\n"})
    EXPECT_THAT(outcome.output, HasSubstr(line));
  Outcome const quick = run({"db", "verify", "--quick"});
  EXPECT_EQ(quick.exitCode, 0);
  EXPECT_EQ(quick.output, "4 sound, 0 problems\n");
}

TEST_F(TqdiscoctlDbTest, aMissingDirectoryExitsWith1AndIsNamed)
{
  std::filesystem::remove_all(m_database);
  for (auto const& command :
       {std::vector<std::string>{"db", "list"}, {"db", "show", "a", "b"}, {"db", "verify"}})
  {
    Outcome const outcome = run(command);
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_THAT(outcome.errors, HasSubstr(m_database));
    EXPECT_THAT(outcome.errors, HasSubstr("No such file or directory"));
  }
}

TEST_F(TqdiscoctlDbTest, anotherDirectoryCanBeNamed)
{
  store("alpha", "host", "<a/>");
  Outcome const outcome =
      runProgram(TQ_BIN_DIR "/tqdiscoctl", {"db", "--directory", m_database, "verify"},
                 {{"TESSARINE_ROOT", m_root / "elsewhere"}});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
  EXPECT_EQ(outcome.output, "1 sound, 0 problems\n");
}

TEST_F(TqdiscoctlDbTest, whatLiesDeepIsNotAllIndentation)
{
  constexpr int DEPTH = 240;
  std::string payload;
  for (int i = 0; i < DEPTH; ++i)
    payload += "<a>";
  while (payload.size() < 100'000)
    payload += "<b/>";
  for (int i = 0; i < DEPTH; ++i)
    payload += "</a>";
  store("beta", "host", payload);
  Outcome const outcome = run({"db", "show", "beta", "host"});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
  EXPECT_LT(outcome.output.size(), 20 * payload.size());
  // Up to the deepest that are indented further than what is around them.
  EXPECT_THAT(outcome.output, HasSubstr("<a>\n  <a>\n    <a>\n"));
  std::string const most(64, ' ');
  EXPECT_THAT(outcome.output, HasSubstr("\n" + most + "<b/>\n" + most + "<b/>\n"));
}

TEST_F(TqdiscoctlDbTest, aNameThatIsNoTextIsShownAsOne)
{
  for (char const* const file : {"/a\x1b[31mred.updating", "/a\x1b[31mred.dat"})
    writeText(m_database + file, "");
  Outcome const verified = run({"db", "verify"});
  EXPECT_EQ(verified.output.find('\x1b'), std::string::npos) << verified.output;
  EXPECT_THAT(verified.output, HasSubstr("\"a%1B[31mred.updating\" is being written"));
  Outcome const missing = run({"db", "verify", "--directory", m_root / "a\x1b[31mred"});
  EXPECT_EQ(missing.errors.find('\x1b'), std::string::npos) << missing.errors;
  EXPECT_THAT(missing.errors, HasSubstr("a%1B[31mred: "));
}

TEST_F(TqdiscoctlDbTest, wrongUsageExitsWith2)
{
  EXPECT_EQ(run({}).exitCode, 2);
  EXPECT_EQ(run({"db"}).exitCode, 2);
  EXPECT_EQ(run({"db", "show"}).exitCode, 2);
  EXPECT_EQ(run({"db", "show", "only-a-subject"}).exitCode, 2);
  Outcome const option = run({"db", "list", "--frobnicate"});
  EXPECT_EQ(option.exitCode, 2);
  EXPECT_THAT(option.errors, HasSubstr("--frobnicate"));
  EXPECT_EQ(run({"frobnicate"}).exitCode, 2);
}

TEST_F(TqdiscoctlDbTest, helpAndVersionExitWith0)
{
  Outcome const help = run({"--help"});
  EXPECT_EQ(help.exitCode, 0);
  EXPECT_THAT(help.output, HasSubstr("db"));
  EXPECT_THAT(help.output, HasSubstr("Exit codes:"));
  Outcome const database = run({"db", "--help"});
  EXPECT_EQ(database.exitCode, 0);
  for (char const* const word : {"list", "show", "verify", "--directory"})
    EXPECT_THAT(database.output, HasSubstr(word));
  Outcome const version = run({"--version"});
  EXPECT_EQ(version.exitCode, 0);
  EXPECT_THAT(version.output, MatchesRegex("tqdiscoctl " TQ_VERSION "\n"));
}

TEST_F(TqdiscoctlDbTest, verifyRefusesWhatTheServiceRefuses)
{
  namespace fs = std::filesystem;
  TempDir elsewhere;
  for (char const* const subject : {"nul", "metalink", "metaname", "datalink", "dataname", "sound"})
    store(subject, "host", "<payload/>");
  auto const fileOf = [this](char const* subject, char const* extension)
  { return m_database + "/2 host " + subject + extension; };
  // A whole document, and then what a power cut may leave of a longer one.
  std::string const document = readText(fileOf("nul", ".xml"));
  writeText(fileOf("nul", ".xml"), document + std::string(10, '\0'));
  for (auto const& [subject, extension] :
       {std::pair("metalink", ".xml"), std::pair("datalink", ".dat")})
  {
    fs::rename(fileOf(subject, extension), elsewhere / subject);
    fs::create_symlink(elsewhere / subject, fileOf(subject, extension));
  }
  fs::create_hard_link(fileOf("metaname", ".xml"), elsewhere / "metaname");
  fs::create_hard_link(fileOf("dataname", ".dat"), elsewhere / "dataname");

  Outcome const verified = run({"db", "verify"});
  EXPECT_EQ(verified.exitCode, 4);
  for (char const* const line :
       {"\"2 host nul.xml\" cannot be parsed: ", "\"2 host metalink.xml\" is a symbolic link",
        "\"2 host metaname.xml\" has 2 names",
        "\"2 host datalink.xml\" has a payload that is a "
        "symbolic link",
        "\"2 host dataname.xml\" has a payload that has 2 names", "1 sound, 5 problems"})
    EXPECT_THAT(verified.output, HasSubstr(line));
  EXPECT_EQ(run({"db", "show", "sound", "host", "--raw"}).output, "<payload/>");
  for (char const* const subject : {"nul", "metalink", "metaname", "datalink", "dataname"})
  {
    Outcome const shown = run({"db", "show", subject, "host", "--raw"});
    EXPECT_EQ(shown.exitCode, 3) << subject;
    EXPECT_EQ(shown.output, "") << subject;
  }
}
