// What a database keeps when its writers are killed.
//
// Everything whose writing was reported done is there, whole. The discovery that
// was being written is there as it was before or as it was to be, metadata and
// payload of one writing, once the next start has finished what was half done;
// in between the new metadata may stand beside the old payload. If it never was
// stored before, there may be an empty metadata file, or nothing.

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
  std::set<std::uint64_t> numbers; // of payloads, and in the metadata
  bool stored = false;             // there must be one
};

// What is found under it; 0 where there is none.
struct Found
{
  std::uint64_t metadata = 0;
  std::uint64_t payload = 0;
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

  // A writer that has started the database, and with that finished what the
  // one before it left.
  std::unique_ptr<Process> startedWriter(std::string const& writes = "")
  {
    auto writer = startWriter(m_last + 1, writes);
    EXPECT_TRUE(eventually([&] { return writer->output().find('\n') != std::string::npos; }))
        << writer->errors();
    EXPECT_EQ(writer->output(), "left 0\n") << "the start leaves temporary files of the dead";
    return writer;
  }

  // Takes what a writer said into account.
  void note(std::string const& said)
  {
    std::istringstream lines(said.substr(said.find('\n') + 1));
    std::string word;
    std::string name;
    std::uint64_t number = 0;
    while (lines >> word)
    {
      ASSERT_TRUE(lines >> name >> number) << said;
      m_last = std::max(m_last, number);
      Expected& expected = m_expected[name];
      if (word == "begin")
        expected.numbers.insert(number);
      else
      {
        ASSERT_EQ(word, "done");
        expected = {{number}, true};
      }
    }
  }

  // Each file by itself, as a kill leaves it.
  std::map<std::string, Found> checkFiles()
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
    std::map<std::string, Found> all;
    for (auto const& [name, expected] : m_expected)
    {
      SCOPED_TRACE(name);
      Found& found = all[name];
      found.metadata = numberInMetadata(database() + '/' + metadataFile(name));
      std::string const path = database() + '/' + payloadFile(name);
      if (fs::exists(path))
      {
        EXPECT_EQ(flawOf(readText(path), name, found.payload), "");
      }
      for (std::uint64_t const number : {found.metadata, found.payload})
        EXPECT_TRUE(number == 0 ? !expected.stored : expected.numbers.count(number) == 1)
            << "number " << number;
    }
    return all;
  }

  // After a start: the two of each name belong together, and it stays at that.
  void checkPairs()
  {
    for (auto const& [name, found] : checkFiles())
    {
      EXPECT_EQ(found.metadata, found.payload) << name;
      Expected& expected = m_expected[name];
      m_finished += expected.numbers.size() > 1 && found.payload == *expected.numbers.rbegin();
      expected.numbers.clear();
      if (found.payload != 0)
        expected = {{found.payload}, true};
    }
  }

  // 0 when the file is empty or not there.
  std::uint64_t numberInMetadata(std::string const& path)
  {
    std::string const text = readText(path);
    if (text.empty())
      return 0;
    AutoDereference<DBDiscovery> const record(
        new DBDiscovery(OzfPathname(database()),
                        new DBCollectionData(OzfPathname(database() + '/')), DQ_UNDEFINED));
    EXPECT_TRUE(record->load(text.c_str())) << text;
    EXPECT_FALSE(isExpired(record.get())) << text;
    if (record->getAttributes() == nullptr)
      return 0;
    std::string const signature = record->getAttributes()->getSignature().c_str();
    return std::strtoull(signature.c_str(), nullptr, 10);
  }

  TempDir m_root;
  std::map<std::string, Expected> m_expected;
  std::uint64_t m_last = 0;
  long m_temporariesSeen = 0;
  long m_finished = 0; // new ones that nobody had been told of
};

TEST_F(KillTest, aKilledWriterLosesNothingAndLeavesWhatBelongsTogether)
{
  std::mt19937 random(20261120);
  for (int kill = 0; kill < KILLS; ++kill)
  {
    SCOPED_TRACE("kill " + std::to_string(kill));
    auto const writer = startedWriter();
    checkPairs();
    writer->sendSignal(SIGUSR1);
    ASSERT_TRUE(eventually([&] { return writer->output().find("begin") != std::string::npos; }))
        << writer->errors();
    // Any moment of the few writes that follow.
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 6000));
    writer->sendSignal(SIGKILL);
    ASSERT_TRUE(writer->wait());
    ASSERT_EQ(writer->exitCode(), 128 + SIGKILL) << writer->output() << writer->errors();
    note(writer->output());
    checkFiles();
    if (HasFatalFailure())
      return;
  }
  // Otherwise the kills never hit a writer at work, or never that late.
  EXPECT_GT(m_temporariesSeen, KILLS / 20);
  EXPECT_GT(m_finished, 0);

  auto const last = startedWriter("0");
  last->sendSignal(SIGUSR1);
  ASSERT_TRUE(last->wait());
  EXPECT_EQ(last->exitCode(), 0) << last->errors();
  checkPairs();
  EXPECT_EQ(m_expected.size(), NAME_COUNT);
  Outcome const verified = runProgram(TQ_BIN_DIR "/tqdiscoctl", {"db", "verify", "--quick"},
                                      {{"TESSARINE_ROOT", m_root.path()}});
  EXPECT_EQ(verified.exitCode, 0) << verified.output;
  EXPECT_NE(verified.output.find("5 sound, 0 problems"), std::string::npos) << verified.output;
}

} // namespace
