// Several processes with several threads each at work on the same discoveries.
// TQ_STRESS_SECONDS says for how long, 20 seconds when it is not set.

#include "tests/support/LiveService.h"
#include "tests/support/StoredRecord.h"

#include <fcntl.h>

#include <algorithm>
#include <map>
#include <regex>
#include <sstream>

namespace
{

using namespace tqtest;
namespace fs = std::filesystem;

constexpr int PROCESSES = 4;
constexpr char NAMES[] = "50";

int duration()
{
  char const* const seconds = std::getenv("TQ_STRESS_SECONDS");
  return seconds == nullptr ? 20 : std::max(1, std::atoi(seconds));
}

// The level 1 lines that the rules call for when many work on the same files.
// All others are failures: a document that cannot be parsed, a lock that cannot
// be had, a rename, write or truncation that fails, an assertion.
constexpr char const* EXPECTED[] = {
    // A payload has been replaced; there may have been none before.
    "DBCollectionData::persist: Successfully renamed ",
    "DBCollectionData::persist: Unable to delete ",
    // Somebody else took the number of a temporary file (EEXIST = 17).
    "DBCollectionData::open: Last error17",
    // Expired by another thread of the process, which took the record's lock.
    "DBCollectionData::open: Was deleted: ",
    // The priority rule, which throws a temporary file away.
    "Cannot open the db database, data with higher priority already exists.",
    "Cannot persist, data with higher priority already exists.",
    "DBCollectionData::cleanup: Deleted file: ",
    // Expiry, and those who were not the first at it.
    " has expired",
    " could not be expired",
    " was modified during the expire and should not be expired",
    "DBDiscovery::expire: Unable to upgrade lock to expire file, errno: 16",
    "DBCollectionData::expire: Collection data did not exist ",
    // Expired between the walk and the look at it.
    "DiscoveryDBCreator::getDiscovery: Unable to open ",
    // Created by a writer that has not got its lock yet.
    "DBDiscovery::load: Zero length xml file",
    ".xml could not be loaded",
    // Another process writes while this one starts.
    "CleanupLock::CleanupLock: Unable to lock ",
};

// One that came again within a minute is counted instead, and told of in these words.
std::string withoutRepeats(std::string const& line)
{
  static std::regex const repeats("Repeated [0-9]+ times? in [0-9]+ seconds?: ");
  return std::regex_replace(line, repeats, "");
}

bool isExpected(std::string const& line)
{
  std::string const once = withoutRepeats(line);
  return std::any_of(std::begin(EXPECTED), std::end(EXPECTED),
                     [&](char const* text) { return once.find(text) != std::string::npos; });
}

// What one process counted.
struct Counts
{
  long writes = 0;
  long refused = 0;
  long reads = 0;
  long walks = 0;
  long absent = 0; // payloads of records that were there
  // Lines of the log.
  long empty = 0;
  long unloaded = 0;
  long unlocked = 0;
};

Counts countsOf(std::string const& output)
{
  Counts counts;
  EXPECT_EQ(std::sscanf(output.c_str(),
                        "writes %ld refused %ld reads %ld walks %ld absent %ld "
                        "empty %ld unloaded %ld unlocked %ld",
                        &counts.writes, &counts.refused, &counts.reads, &counts.walks,
                        &counts.absent, &counts.empty, &counts.unloaded, &counts.unlocked),
            8)
      << output;
  return counts;
}

class StressTest : public testing::Test
{
protected:
  // Closed to others, as the service leaves it.
  StressTest()
  {
    fs::create_directories(database());
    fs::permissions(database(), fs::perms(0750));
  }

  std::string database() const { return m_root / "db/discovery"; }

  // Runs them all to their end and checks what they said.
  std::vector<Counts> run(int threads, int seconds);
  void expectSoundAtRest();

private:
  TempDir m_root;
};

std::vector<Counts> StressTest::run(int threads, int seconds)
{
  std::vector<std::unique_ptr<Process>> processes;
  for (int i = 0; i < PROCESSES; ++i)
    processes.push_back(std::make_unique<Process>(
        TQ_BIN_DIR "/database_stress",
        std::vector<std::string>{std::to_string(threads), NAMES, std::to_string(seconds),
                                 std::to_string(i + 1)},
        Process::Environment{{"TESSARINE_ROOT", m_root.path()}}));

  std::vector<Counts> all;
  std::map<std::string, long> unexpected; // by text, which may come often
  long zeroLength = 0;
  long notLoaded = 0;
  for (auto const& process : processes)
  {
    EXPECT_TRUE(process->wait(std::chrono::seconds(seconds + 60)));
    EXPECT_EQ(process->exitCode(), 0);
    std::string const output = process->output();
    EXPECT_EQ(occurrences(output, "complaint"), 0U) << output;
    Counts const counts = countsOf(output);
    EXPECT_GT(std::min({counts.writes, counts.reads, counts.walks}), 0) << output;
    zeroLength += counts.empty;
    notLoaded += counts.unloaded;
    all.push_back(counts);

    std::string const errors = process->errors();
    EXPECT_GT(occurrences(errors, " has expired"), 0U);
    EXPECT_LE(counts.unlocked, 1) << "a start tries the clean-up lock once";
    std::istringstream lines(errors);
    for (std::string line; std::getline(lines, line);)
      if (!isExpected(line))
        ++unexpected[line.substr(0, 300)];
  }
  for (auto const& [line, count] : unexpected)
    ADD_FAILURE() << count << " times: " << line;
  EXPECT_EQ(notLoaded, zeroLength) << "what is not loaded was empty, and only just created";
  return all;
}

void StressTest::expectSoundAtRest()
{
  Outcome const verified = runProgram(TQ_BIN_DIR "/tqdiscoctl", {"db", "verify", "--quick"},
                                      {{"TESSARINE_ROOT", m_root.path()}});
  EXPECT_EQ(verified.exitCode, 0) << verified.output;
  EXPECT_EQ(verified.output.find(".updating"), std::string::npos) << verified.output;
  for (auto const& entry : fs::directory_iterator(database()))
  {
    int const fd = open(entry.path().c_str(), O_RDWR | O_CLOEXEC);
    struct flock lock
    {
    };
    lock.l_type = F_WRLCK;
    EXPECT_EQ(fcntl(fd, F_GETLK, &lock), 0);
    EXPECT_EQ(lock.l_type, F_UNLCK) << entry << " is locked by " << lock.l_pid;
    close(fd);
    if (entry.path().extension() == ".dat")
    {
      std::string const name = entry.path().stem().string();
      std::uint64_t number = 0;
      EXPECT_EQ(flawOf(readText(entry.path()), name.substr(name.rfind(' ') + 1), number), "");
    }
  }
}

} // namespace

TEST_F(StressTest, processesAndThreadsOnTheSameDiscoveriesTearAndLoseNothing)
{
  run(4, duration());
  expectSoundAtRest();
}

// Without other threads, nothing takes a record's lock away from its reader: he
// finds the payload of every record that he finds.
TEST_F(StressTest, aReaderNeverMissesThePayloadThatAnotherProcessReplaces)
{
  for (Counts const& counts : run(1, std::max(1, duration() / 4)))
    EXPECT_EQ(counts.absent, 0) << "of " << counts.reads;
  expectSoundAtRest();
}
