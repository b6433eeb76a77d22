// What the audit log holds, and what becomes of it when it cannot be written.

#include "ozf/log/AuditLog.h"

#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <sstream>
#include <sys/stat.h>

using namespace Quillon::Tessarine::Ozf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;

namespace
{

AuditRecord auditRecord(std::string const& result, bool refused = false)
{
  AuditRecord record;
  record.peer = "192.0.2.7";
  record.names = {"web1.example.net", "web1"};
  record.operation = "putCollection";
  record.subject = "web1";
  record.authority = "filesystem";
  record.result = result;
  record.refused = refused;
  return record;
}

std::vector<nlohmann::json> recordsIn(std::string const& path)
{
  std::vector<nlohmann::json> records;
  std::istringstream lines(readText(path));
  for (std::string line; std::getline(lines, line);)
    records.push_back(nlohmann::json::parse(line));
  return records;
}

std::vector<std::string> resultsIn(std::string const& path)
{
  std::vector<std::string> results;
  for (auto const& record : recordsIn(path))
    results.push_back(record["result"]);
  return results;
}

struct AuditLogTest : testing::Test
{
  ~AuditLogTest() override
  {
    AuditLog::setFile("");
    AuditLog::setClock({});
  }

  TempDir temp;
  std::string const path = temp / "audit.log";
  std::chrono::steady_clock::time_point now = std::chrono::steady_clock::now();
};

} // namespace

TEST_F(AuditLogTest, ARecordIsALineOfJson)
{
  AuditLog::setFile(path);
  EXPECT_TRUE(AuditLog::isOn());
  AuditLog::write(auditRecord("stored"));
  AuditRecord own;
  own.operation = "terminate";
  own.result = "stopping";
  AuditLog::write(own);

  auto const records = recordsIn(path);
  ASSERT_EQ(records.size(), 2u);
  EXPECT_THAT(records[0]["time"].get<std::string>(),
              MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{6}Z"));
  EXPECT_EQ(records[0]["peer"], "192.0.2.7");
  EXPECT_EQ(records[0]["name"], nlohmann::json::parse(R"(["web1.example.net","web1"])"));
  EXPECT_EQ(records[0]["operation"], "putCollection");
  EXPECT_EQ(records[0]["subject"], "web1");
  EXPECT_EQ(records[0]["authority"], "filesystem");
  EXPECT_EQ(records[0]["result"], "stored");
  EXPECT_TRUE(records[1]["peer"].is_null());
  EXPECT_TRUE(records[1]["name"].empty());
}

TEST_F(AuditLogTest, WithoutAFileThereAreNoRecords)
{
  AuditLog::setFile(path);
  AuditLog::setFile("");
  EXPECT_FALSE(AuditLog::isOn());
  AuditLog::write(auditRecord("stored"));
  EXPECT_EQ(readText(path), "");
  EXPECT_EQ(AuditLog::lost(), 0u);
}

TEST_F(AuditLogTest, RefusedConnectionsAreCountedWithAndWithoutAFile)
{
  AuditLog::refuseConnection("192.0.2.1", "there are too many");
  EXPECT_EQ(AuditLog::refusedConnections(), 1u);
  AuditLog::setFile(path);
  for (std::uint64_t i = 0; i < AuditLog::REFUSALS_A_MINUTE + 5; ++i)
    AuditLog::refuseConnection("192.0.2.1", "there are too many");
  EXPECT_EQ(AuditLog::refusedConnections(), AuditLog::REFUSALS_A_MINUTE + 6);
}

TEST_F(AuditLogTest, NothingThatIsInARecordBreaksItsLine)
{
  AuditLog::setFile(path);
  AuditRecord record = auditRecord("a \"quoted\" \\ path");
  record.subject = "line\nend\r\x1B[2J\x7F\x01\t";
  record.authority = "\u202Egnp\u2066\u200F \u009B \U0001FFFF \u00E4";
  record.names = {"stray \xFF byte", std::string("nul\0byte", 8)};
  record.operation = std::string(10000, 'x');
  AuditLog::write(record);

  std::string const text = readText(path);
  EXPECT_EQ(text.find('\n'), text.size() - 1);
  for (char const c : text.substr(0, text.size() - 1))
    ASSERT_TRUE(static_cast<unsigned char>(c) >= 0x20 && c != 0x7F) << text;
  for (char const* const mark : {"\u202E", "\u2066", "\u200F", "\u009B", "\U0001FFFF"})
    EXPECT_EQ(text.find(mark), std::string::npos) << text;
  auto const read = nlohmann::json::parse(text);
  EXPECT_EQ(read["subject"], record.subject);
  EXPECT_EQ(read["authority"], record.authority);
  EXPECT_EQ(read["result"], record.result);
  EXPECT_EQ(read["name"][0], "stray \\xFF byte");
  EXPECT_EQ(read["name"][1], record.names[1]);
  EXPECT_EQ(read["operation"], std::string(4096, 'x') + "...");
}

TEST_F(AuditLogTest, AFileThatIsMovedAwayGoesOnAnewWhenItIsSetAgain)
{
  AuditLog::setFile(path);
  AuditLog::write(auditRecord("one"));
  std::filesystem::rename(path, temp / "audit.old");
  AuditLog::write(auditRecord("two"));
  AuditLog::setFile(path);
  AuditLog::write(auditRecord("three"));
  EXPECT_THAT(resultsIn(temp / "audit.old"), ElementsAre("one", "two"));
  EXPECT_THAT(resultsIn(path), ElementsAre("three"));
}

TEST_F(AuditLogTest, AFileThatCannotBeWrittenIsALineAndRecordsAreCounted)
{
  LogCapture log;
  AuditLog::setClock([this] { return now; });
  std::filesystem::create_directory(path);
  AuditLog::setFile(path);
  EXPECT_EQ(log.count(1, "AuditLog::setFile",
                      "Unable to open the audit file " + path + ": Is a directory (21)"),
            1)
      << log.text();
  EXPECT_TRUE(AuditLog::isOn());
  for (int i = 0; i < 5; ++i)
    AuditLog::write(auditRecord("stored"));
  EXPECT_EQ(AuditLog::lost(), 5u);
  std::string const line = "Unable to write the audit file " + path + ": Is a directory (21); ";
  EXPECT_EQ(log.count(1, "AuditLog::write", line + "1 records are missing so far"), 1)
      << log.text();
  EXPECT_EQ(log.lines().size(), 2u) << log.text();
  now += std::chrono::minutes(1);
  AuditLog::write(auditRecord("stored"));
  EXPECT_EQ(log.count(1, "AuditLog::write", line + "6 records are missing so far"), 1)
      << log.text();

  std::filesystem::remove(path);
  AuditLog::write(auditRecord("stored again"));
  EXPECT_EQ(log.count(1, "AuditLog::write",
                      "The audit file " + path + " is written again, 6 records are missing"),
            1)
      << log.text();
  EXPECT_THAT(resultsIn(path), ElementsAre("6 records are missing here", "stored again"));
  EXPECT_EQ(AuditLog::lost(), 6u);
}

TEST_F(AuditLogTest, AFullDiskCostsTheRecordAlone)
{
  LogCapture log;
  AuditLog::setFile("/dev/full");
  AuditLog::write(auditRecord("stored"));
  EXPECT_EQ(AuditLog::lost(), 1u);
  EXPECT_THAT(log.text(), HasSubstr("Unable to write the audit file /dev/full: No space left"));
}

TEST_F(AuditLogTest, AFullFileRotates)
{
  AuditLog::setFile(path);
  AuditRecord record = auditRecord("stored");
  record.names.assign(16, std::string(4000, 'n'));
  for (int i = 0; i < 200; ++i)
    AuditLog::write(record);
  std::string const lines = readText(temp / "audit.1.log") + readText(path);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 200);
  EXPECT_LE(std::filesystem::file_size(temp / "audit.1.log"), 10u * 1024 * 1024);
}

TEST_F(AuditLogTest, AFloodOfRefusalsIsCountedByItsPeer)
{
  AuditLog::setClock([this] { return now; });
  AuditLog::setFile(path);
  for (int i = 0; i < 250; ++i)
    AuditLog::write(auditRecord("no right to write", true));
  AuditRecord other = auditRecord("no right to write", true);
  other.peer = "192.0.2.8";
  AuditLog::write(other);
  AuditLog::write(auditRecord("stored"));
  auto records = recordsIn(path);
  ASSERT_EQ(records.size(), 102u);
  EXPECT_EQ(records[99]["result"], "refused: no right to write");
  EXPECT_EQ(records[100]["peer"], "192.0.2.8");
  EXPECT_EQ(records[101]["result"], "stored");

  now += std::chrono::minutes(1);
  AuditLog::reportLeftOut();
  AuditLog::write(auditRecord("no right to write", true));
  records = recordsIn(path);
  ASSERT_EQ(records.size(), 104u);
  EXPECT_EQ(records[102]["operation"], "audit");
  EXPECT_EQ(records[102]["peer"], "192.0.2.7");
  EXPECT_EQ(records[102]["result"], "150 more refusals in 60 seconds");
  EXPECT_EQ(records[103]["result"], "refused: no right to write");
}

TEST_F(AuditLogTest, AFloodOfRefusalsFromManyAddressesIsCountedForAllOfThem)
{
  AuditLog::setClock([this] { return now; });
  AuditLog::setFile(path);
  AuditRecord record = auditRecord("no right to write", true);
  for (int peer = 0; peer < 3000; ++peer)
  {
    record.peer = "2001:db8:" + std::to_string(peer) + "::1";
    AuditLog::write(record);
  }
  AuditLog::write(auditRecord("stored"));
  auto records = recordsIn(path);
  ASSERT_EQ(records.size(), 1001u);
  EXPECT_EQ(records[1000]["result"], "stored");

  now += std::chrono::minutes(1);
  AuditLog::reportLeftOut();
  AuditLog::write(record);
  records = recordsIn(path);
  ASSERT_EQ(records.size(), 1003u);
  EXPECT_EQ(records[1001]["peer"], "others");
  EXPECT_EQ(records[1001]["result"], "2000 more refusals in 60 seconds");
  EXPECT_EQ(records[1002]["peer"], "2001:db8:2999::1");
}

TEST_F(AuditLogTest, TheFileIsNotForOthers)
{
  mode_t const before = umask(0);
  AuditLog::setFile(path);
  umask(before);
  struct stat status = {};
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0640u);
}
