// The audit log of a service: what peers did, and what they were kept from.

#include "tests/support/LiveService.h"
#include "tests/support/RemoteClient.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <sstream>
#include <sys/stat.h>

namespace
{

using namespace tqtest;
using testing::HasSubstr;
using testing::StartsWith;

class AuditTest : public testing::Test
{
protected:
  void start(std::string const& more = "")
  {
    m_service.configure("AUDIT_FILE = " + m_file + "\n" + more);
    ASSERT_TRUE(m_service.start()) << m_service.log();
  }

  static std::vector<nlohmann::json> recordsOf(std::string const& file)
  {
    std::vector<nlohmann::json> records;
    std::istringstream lines(readText(file));
    for (std::string line; std::getline(lines, line);)
      records.push_back(nlohmann::json::parse(line));
    return records;
  }

  // The result of the record of that operation and subject, "" when there is none.
  std::string resultOf(std::string const& operation, std::string const& subject) const
  {
    for (auto const& record : recordsOf(m_file))
      if (record["operation"] == operation && record["subject"] == subject)
      {
        EXPECT_EQ(record["peer"], "127.0.0.1") << record;
        return record["result"];
      }
    return "";
  }

  bool isOpenInService(std::string const& file)
  {
    std::error_code closedMeanwhile;
    for (auto const& entry : std::filesystem::directory_iterator(
             "/proc/" + std::to_string(m_service.process().pid()) + "/fd"))
      if (std::filesystem::read_symlink(entry, closedMeanwhile) == file)
        return true;
    return false;
  }

  LiveService m_service;
  std::string const m_file = m_service / "log/audit.log";
};

} // namespace

TEST_F(AuditTest, whatPeersStoreAnnounceAndControlIsRecorded)
{
  start();
  {
    client::Client client(m_service.root(), LiveService::NAME);
    ASSERT_TRUE(client.connected());
    ASSERT_EQ(client.store(client::makeRecord("kept", "a", 5), "<x/>"), client::DS_SUCCESS);
    ASSERT_NE(client.store(client::makeRecord("kept", "a", 4), "<y/>"), client::DS_SUCCESS);
    ASSERT_NE(client.store("", "a", "<x/>"), client::DS_SUCCESS);
    std::string const hostile = "two\nlines \x1B[2J \"quoted\"";
    ASSERT_EQ(client.store(hostile, "a", "<x/>"), client::DS_SUCCESS);
    client->registerExplorer("web7", "DiscoveryService", "web7", "volume", client::AT_EXTSRC, 3);
    client->registerExplorer("web8", "DiscoveryService", "web7", "volume", client::AT_EXTSRC, 2);
    client->restartLocalPushTimer();
    client::Remote::RemoteWriter_var left;
    ASSERT_EQ(client->putCollection(client::makeRecord("left", "a"), left.out()).discStatus,
              client::DS_SUCCESS);
  }
  EXPECT_EQ(m_service.tqdiscoctl({"stop"}).exitCode, 0);
  ASSERT_TRUE(m_service.process().wait()) << m_service.log();

  auto const records = recordsOf(m_file);
  ASSERT_EQ(records.size(), 9U) << readText(m_file);
  EXPECT_EQ(records[0]["result"], "stored");
  EXPECT_EQ(records[0]["authority"], "a");
  EXPECT_EQ(records[1]["subject"], "kept");
  EXPECT_EQ(records[1]["result"], "not stored: DS_DATA_EXISTS");
  EXPECT_EQ(resultOf("putCollection", ""),
            "refused: its subject or authority is empty or too long");
  EXPECT_EQ(resultOf("putCollection", "two%0Alines %1B[2J \"quoted\""), "stored");
  EXPECT_EQ(resultOf("registerExplorer", "web7"), "registered, of DiscoveryService on web7");
  EXPECT_THAT(records[5]["result"].get<std::string>(), StartsWith("refused: the entry of "));
  EXPECT_EQ(resultOf("restartLocalPushTimer", ""), "done");
  EXPECT_EQ(resultOf("terminate", ""), "stopping");
  EXPECT_EQ(resultOf("putCollection", "left"), "not stored: the writer was never closed");

  struct stat status = {};
  ASSERT_EQ(stat(m_file.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0640U);
}

TEST_F(AuditTest, whatLimitsKeepOutIsRecorded)
{
  start("LIMIT_PEER_WRITERS = 1\nLIMIT_REGISTRATIONS = 1\nLIMIT_PAYLOAD = 10\n"
        "LIMIT_PEER_ITERATORS = 1\nLIMIT_PEER_DAY_BYTES = 30000\n");
  {
    client::Client client(m_service.root(), LiveService::NAME);
    ASSERT_TRUE(client.connected());
    client->restartAllPushTimers();
    for (char const* const host : {"", "web1", "web2"})
      client->registerExplorer(host, "DiscoveryService", (std::string("of ") + host).c_str(),
                               "volume", client::AT_EXTSRC, 1);
    auto record = client::makeRecord("far", "a");
    record.sourceHost = std::string(100000, 'x').c_str();
    EXPECT_EQ(client.store(record, "<x/>"), client::DS_OPEN_FAILED);

    client::Remote::RemoteWriter_var writer;
    ASSERT_EQ(client->putCollection(client::makeRecord("large", "a"), writer.out()).discStatus,
              client::DS_SUCCESS);
    EXPECT_EQ(client.store("late", "a", "<x/>"), client::DS_OPEN_FAILED);
    EXPECT_FALSE(writer->put(client::makeChunk("eleven byte")));
    writer->close();

    auto const list = [&]
    { return client->queryDiscoveries(client::DQ_DISCOVERY_DATA, client::AT_ANYANDALL, "*", "*"); };
    client::Remote::DiscoveryIterator_var const open = list();
    EXPECT_THROW({ client::Remote::DiscoveryIterator_var const another = list(); },
                 CORBA::NO_RESOURCES);
    open->release();

    for (char const* const subject : {"one", "two"})
      EXPECT_EQ(client.store(subject, "a", "<tens/><x>"), client::DS_SUCCESS);
    EXPECT_THROW(client.store("three", "a", "<x/>"), CORBA::NO_RESOURCES);
  }
  EXPECT_EQ(m_service.stop(), 0) << m_service.log();

  EXPECT_EQ(resultOf("restartAllPushTimers", ""), "done");
  EXPECT_EQ(resultOf("registerExplorer", "of "), "refused: a name is empty or too long");
  EXPECT_EQ(resultOf("registerExplorer", "of web1"), "registered, of DiscoveryService on web1");
  EXPECT_EQ(resultOf("registerExplorer", "of web2"), "refused: too many are registered already");
  EXPECT_EQ(resultOf("putCollection", "far"),
            "refused: the name of its source host or service is too long");
  EXPECT_EQ(resultOf("putCollection", "late"), "refused: too many writers are open already");
  EXPECT_EQ(resultOf("put", "large"), "refused: the payload is too large");
  EXPECT_EQ(resultOf("putCollection", "large"), "not stored: a part could not be written");
  EXPECT_EQ(resultOf("queryDiscoveries", "*"), "refused: too many iterators are open already");
  EXPECT_EQ(resultOf("putCollection", "two"), "stored");
  EXPECT_EQ(resultOf("putCollection", "three"), "refused: too much was stored within a day");
}

TEST_F(AuditTest, whoAsksTooOftenIsRecorded)
{
  start("LIMIT_PEER_REQUESTS = 20\nLIMIT_REQUEST_WAIT = 0\n");
  {
    client::Client client(m_service.root(), LiveService::NAME);
    ASSERT_TRUE(client.connected());
    EXPECT_THROW(
        {
          for (int i = 0; i < 100; ++i)
            client->restartLocalPushTimer();
        },
        CORBA::TRANSIENT);
  }
  EXPECT_EQ(m_service.stop(), 0) << m_service.log();
  auto const records = recordsOf(m_file);
  ASSERT_FALSE(records.empty());
  EXPECT_EQ(records.back()["operation"], "restartLocalPushTimer");
  EXPECT_EQ(records.back()["result"], "refused: too many requests a second");
}

TEST_F(AuditTest, theFileIsOpenedAnewAtAReloadAndMayBeTurnedOff)
{
  start();
  client::Client client(m_service.root(), LiveService::NAME);
  ASSERT_TRUE(client.connected());
  ASSERT_EQ(client.store("one", "a", "<x/>"), client::DS_SUCCESS);
  std::filesystem::rename(m_file, m_file + ".old");
  m_service.process().sendSignal(SIGHUP);
  ASSERT_TRUE(eventually([this] { return std::filesystem::exists(m_file); })) << m_service.log();
  ASSERT_EQ(client.store("two", "a", "<x/>"), client::DS_SUCCESS);
  EXPECT_EQ(recordsOf(m_file + ".old").size(), 1U);
  EXPECT_EQ(resultOf("putCollection", "two"), "stored");

  m_service.configure();
  m_service.process().sendSignal(SIGHUP);
  ASSERT_TRUE(eventually([this] { return !isOpenInService(m_file); })) << m_service.log();
  ASSERT_EQ(client.store("three", "a", "<x/>"), client::DS_SUCCESS);
  ASSERT_EQ(m_service.stop(), 0) << m_service.log();
  EXPECT_EQ(recordsOf(m_file).size(), 1U);
}

TEST_F(AuditTest, callsGoOnWhereItCannotBeWritten)
{
  m_service.configure("AUDIT_FILE = /dev/full\n");
  ASSERT_TRUE(m_service.start()) << m_service.log();
  {
    client::Client client(m_service.root(), LiveService::NAME);
    ASSERT_TRUE(client.connected());
    for (char const* const subject : {"one", "two", "three"})
      EXPECT_EQ(client.store(subject, "a", "<x/>"), client::DS_SUCCESS);
    EXPECT_EQ(client.read("three", "a"), "<x/>");
  }
  EXPECT_EQ(m_service.stop(), 0) << m_service.log();
  EXPECT_EQ(occurrences(m_service.log(), "Unable to write the audit file /dev/full: "), 1U)
      << m_service.log();
}

TEST_F(AuditTest, aFileThatHangsHoldsUpNeitherCallsNorReloadNorTheEnd)
{
  std::string const rule = m_service / "rule";
  m_service.configure("AUDIT_FILE = " + m_file + "\n");
  ASSERT_TRUE(m_service.start({{"LD_PRELOAD", TQ_FIXTURE_DIR "/libfailing_files.so"},
                               {"ASAN_OPTIONS", "verify_asan_link_order=0"},
                               {"TQ_FAILING_FILES", rule}}))
      << m_service.log();
  {
    client::Client client(m_service.root(), LiveService::NAME);
    ASSERT_TRUE(client.connected());
    ASSERT_EQ(client.store("before", "a", "<x/>"), client::DS_SUCCESS);
    writeText(rule, "write audit.log");
    for (char const* const subject : {"first", "second", "third"})
      EXPECT_EQ(client.store(subject, "a", "<x/>"), client::DS_SUCCESS) << m_service.log();
    EXPECT_EQ(occurrences(m_service.log(), "Nothing was written to the audit file " + m_file +
                                               " for 2 seconds: calls go on"),
              1U)
        << m_service.log();
  }
  m_service.process().sendSignal(SIGHUP);
  EXPECT_TRUE(m_service.process().awaitError("Set the log up anew")) << m_service.log();
  EXPECT_EQ(m_service.stop(), 0) << m_service.log();
  EXPECT_EQ(recordsOf(m_file).size(), 1U);
}
