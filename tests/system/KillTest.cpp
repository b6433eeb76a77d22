// What a database keeps when its writers are killed.
//
// At most the discovery that was being written is lost, and of it at most this:
// it may have the payload of before, the new one, or none; and if it never was
// stored before, its metadata file may be empty. Everything whose writing was
// reported done is there, whole.

#include "tests/support/LiveService.h"
#include "tests/support/StoredRecord.h"

#include <filesystem>
#include <map>
#include <random>
#include <set>
#include <sstream>

namespace
{

using namespace tqtest;
using namespace tqtest::stored;
namespace fs = std::filesystem;

constexpr int KILLS = 220;
constexpr unsigned NAME_COUNT = 5;

// What may be found under a name.
struct Expected
{
  std::set<std::uint64_t> numbers; // of payloads
  bool mayLackPayload = false;
  bool mayBeEmpty = true; // the metadata; or not there at all
};

class KillTest : public testing::Test
{
protected:
  KillTest() { fs::create_directories(database()); }

  std::string database() const { return m_root / "db/discovery"; }

  std::unique_ptr<Process> startWriter(std::uint64_t number, std::string const& writes = "")
  {
    std::vector<std::string> arguments{std::to_string(number), std::to_string(NAME_COUNT)};
    if (!writes.empty())
      arguments.push_back(writes);
    return std::make_unique<Process>(TQ_BIN_DIR "/database_writer", arguments,
                                     Process::Environment{{"TESSARINE_ROOT", m_root.path()}});
  }

  // Takes what a writer said into account.
  void note(std::string const& said)
  {
    std::istringstream lines(said);
    std::string word;
    std::string name;
    std::uint64_t number = 0;
    m_beingWritten.clear();
    while (lines >> word)
    {
      if (word == "left")
      {
        std::size_t left = 0;
        ASSERT_TRUE(lines >> left);
        EXPECT_EQ(left, 0U) << "the start leaves temporary files of the dead";
        continue;
      }
      ASSERT_TRUE(lines >> name >> number) << said;
      m_last = std::max(m_last, number);
      Expected& expected = m_expected[name];
      if (word == "begin")
      {
        m_beingWritten = name;
        expected.numbers.insert(number);
        expected.mayLackPayload = true;
      }
      else
      {
        ASSERT_EQ(word, "done");
        m_beingWritten.clear();
        expected = {{number}, false, false};
      }
    }
  }

  void checkDatabase()
  {
    for (auto const& entry : fs::directory_iterator(database()))
    {
      if (entry.path().extension() == ".updating")
        ++m_temporariesSeen;
      else if (entry.path().extension() == ".dat")
      {
        EXPECT_TRUE(fs::exists(fs::path(entry.path()).replace_extension(".xml"))) << entry;
      }
    }
    for (auto const& [name, expected] : m_expected)
    {
      SCOPED_TRACE(name);
      checkMetadata(database() + '/' + metadataFile(name), expected);
      checkPayload(database() + '/' + payloadFile(name), name, expected);
    }
  }

  void checkMetadata(std::string const& path, Expected const& expected)
  {
    std::string const text = readText(path);
    if (text.empty())
    {
      EXPECT_TRUE(expected.mayBeEmpty);
      return;
    }
    AutoDereference<DBDiscovery> const record(
        new DBDiscovery(OzfPathname(database()),
                        new DBCollectionData(OzfPathname(database() + '/')), DQ_UNDEFINED));
    EXPECT_TRUE(record->load(text.c_str())) << text;
    EXPECT_FALSE(isExpired(record.get())) << text;
  }

  void checkPayload(std::string const& path, std::string const& name, Expected const& expected)
  {
    if (!fs::exists(path))
    {
      EXPECT_TRUE(expected.mayLackPayload);
      m_payloadsLost += expected.mayLackPayload;
      return;
    }
    std::uint64_t number = 0;
    EXPECT_EQ(flawOf(readText(path), name, number), "");
    EXPECT_EQ(expected.numbers.count(number), 1U) << "number " << number;
  }

  TempDir m_root;
  std::map<std::string, Expected> m_expected;
  std::string m_beingWritten;
  std::uint64_t m_last = 0;
  long m_temporariesSeen = 0;
  long m_payloadsLost = 0;
};

TEST_F(KillTest, aKilledWriterCostsAtMostTheDiscoveryBeingWritten)
{
  std::mt19937 random(20261120);
  for (int kill = 0; kill < KILLS; ++kill)
  {
    SCOPED_TRACE("kill " + std::to_string(kill));
    auto const writer = startWriter(m_last + 1);
    ASSERT_TRUE(eventually([&] { return writer->output().find("begin") != std::string::npos; }))
        << writer->errors();
    // Any moment of the few writes that follow.
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 6000));
    writer->sendSignal(SIGKILL);
    ASSERT_TRUE(writer->wait());
    ASSERT_EQ(writer->exitCode(), 128 + SIGKILL) << writer->output() << writer->errors();
    note(writer->output());
    checkDatabase();
    if (HasFatalFailure())
      return;
  }
  // Otherwise the kills never hit a writer at work.
  EXPECT_GT(m_temporariesSeen, KILLS / 20);
  RecordProperty("payloadsLost", std::to_string(m_payloadsLost));

  // The last one killed explains every complaint that is left.
  auto const cleaner = startWriter(m_last + 1, "0");
  ASSERT_TRUE(cleaner->wait());
  EXPECT_EQ(cleaner->exitCode(), 0) << cleaner->errors();
  Outcome const verified =
      runProgram(TQ_BIN_DIR "/tqdiscoctl", {"db", "verify"}, {{"TESSARINE_ROOT", m_root.path()}});
  std::istringstream lines(verified.output);
  std::size_t problems = 0;
  for (std::string line; std::getline(lines, line);)
  {
    if (line.front() != '"')
      continue;
    ++problems;
    bool explained = false;
    for (auto const& [name, expected] : m_expected)
      explained |=
          line == '"' + metadataFile(name) + "\" has no payload file" && expected.mayLackPayload;
    EXPECT_TRUE(explained) << line;
  }
  EXPECT_EQ(verified.exitCode, problems == 0 ? 0 : 4) << verified.output;

  // One more write of everything makes it whole.
  auto const mender = startWriter(m_last + 1, "100");
  ASSERT_TRUE(mender->wait());
  note(mender->output());
  checkDatabase();
  Outcome const whole =
      runProgram(TQ_BIN_DIR "/tqdiscoctl", {"db", "verify"}, {{"TESSARINE_ROOT", m_root.path()}});
  EXPECT_EQ(whole.exitCode, 0) << whole.output;
  EXPECT_NE(whole.output.find(" 0 problems"), std::string::npos) << whole.output;
}

} // namespace
