#include "explorers/SpaceProbe.h"

#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <atomic>
#include <future>
#include <limits>
#include <stdexcept>
#include <thread>

using namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers;
using namespace std::chrono_literals;

namespace
{

constexpr auto LARGEST = std::numeric_limits<std::uint64_t>::max();

struct statvfs answerOf(unsigned long unit, fsblkcnt_t blocks, fsblkcnt_t free,
                        fsblkcnt_t available)
{
  struct statvfs answer = {};
  answer.f_frsize = unit;
  answer.f_blocks = blocks;
  answer.f_bfree = free;
  answer.f_bavail = available;
  return answer;
}

// A file system that answers only once it is released.
struct DeadFilesystem
{
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  std::atomic<int> asked{0};
  std::atomic<int> answered{0};

  std::optional<Space> operator()()
  {
    ++asked;
    released.wait();
    ++answered;
    return Space{1, 1, 0, 0, 0};
  }
};

} // namespace

TEST(SpaceProbe, spaceCountsTheReservedPartAsNeitherUsedNorAvailable)
{
  auto answer = answerOf(4096, 1000, 300, 250);
  answer.f_files = 64;
  answer.f_ffree = 60;
  EXPECT_EQ((Space{4096000, 2867200, 1024000, 64, 4}), spaceOf(answer));
}

TEST(SpaceProbe, valuesOutOfBoundsDoNotWrapRound)
{
  EXPECT_EQ(LARGEST, spaceOf(answerOf(4096, LARGEST, 0, 0)).size);
  EXPECT_EQ(LARGEST, spaceOf(answerOf(4096, LARGEST, 0, 0)).used);
  EXPECT_EQ(0U, spaceOf(answerOf(4096, 10, 11, 0)).used);
  EXPECT_EQ(0U, spaceOf(answerOf(4096, 10, 0, LARGEST - 3)).available);
  auto answer = answerOf(1, 1, 1, 1);
  answer.f_files = 1;
  answer.f_ffree = 2;
  EXPECT_EQ(0U, spaceOf(answer).inodesUsed);
}

TEST(SpaceProbe, withoutAFragmentSizeTheBlockSizeCounts)
{
  auto answer = answerOf(0, 10, 0, 0);
  answer.f_bsize = 512;
  EXPECT_EQ(5120U, spaceOf(answer).size);
}

TEST(SpaceProbe, measuresAFolderAsTheSystemDoes)
{
  TempDir const dir;
  struct stat found = {};
  struct statvfs answer = {};
  ASSERT_EQ(0, stat(dir.path().c_str(), &found));
  ASSERT_EQ(0, statvfs(dir.path().c_str(), &answer));
  auto const space = measureSpace(dir.path(), found.st_dev);
  ASSERT_TRUE(space);
  EXPECT_EQ(answer.f_blocks * answer.f_frsize, space->size);
}

TEST(SpaceProbe, aMountThatIsHiddenByAnotherIsNotMeasured)
{
  TempDir const dir;
  struct stat found = {};
  ASSERT_EQ(0, stat(dir.path().c_str(), &found));
  EXPECT_FALSE(measureSpace(dir.path(), makedev(major(found.st_dev) + 1, minor(found.st_dev))));
  EXPECT_TRUE(measureSpace(dir.path(), makedev(0, minor(found.st_dev) + 1)));
}

TEST(SpaceProbe, aPathThatIsNotThereHasNoSpace)
{
  TempDir const dir;
  LogCapture const log;
  EXPECT_FALSE(measureSpace(dir / "missing", 0));
  EXPECT_NE(std::string::npos, log.text().find("missing: No such file or directory"));
}

TEST(SpaceProbe, doesNotWaitForAFileSystemThatDoesNotAnswer)
{
  auto const dead = std::make_shared<DeadFilesystem>();
  LogCapture const log;
  SpaceProbe probe([dead](std::string const&, dev_t) { return (*dead)(); }, 20ms, 10s);
  EXPECT_FALSE(probe.measure("/dead", 0));
  EXPECT_EQ(0, dead->answered);
  EXPECT_TRUE(log.has(1, "SpaceProbe::measure",
                      "The file system at /dead does not answer, its size is left out"))
      << log.text();
  dead->release.set_value();
}

TEST(SpaceProbe, asksADeadFileSystemAgainOnlyAfterItHasAnswered)
{
  auto const dead = std::make_shared<DeadFilesystem>();
  SpaceProbe probe([dead](std::string const&, dev_t) { return (*dead)(); }, 20ms, 10s);
  EXPECT_FALSE(probe.measure("/dead", 0));
  for (int round = 0; round < 5; ++round)
  {
    probe.begin();
    EXPECT_FALSE(probe.measure("/dead", 0));
  }
  EXPECT_LE(dead->asked, 1);

  dead->release.set_value();
  std::optional<Space> space;
  for (auto const end = std::chrono::steady_clock::now() + 10s;
       !space && std::chrono::steady_clock::now() < end;)
  {
    std::this_thread::sleep_for(1ms);
    probe.begin();
    space = probe.measure("/dead", 0);
  }
  EXPECT_TRUE(space);
}

TEST(SpaceProbe, aDeadFileSystemDoesNotKeepTheOthersFromBeingMeasured)
{
  auto const dead = std::make_shared<DeadFilesystem>();
  SpaceProbe probe(
      [dead](std::string const& path, dev_t) {
        return path == "/dead" ? (*dead)() : Space{7, 0, 0, 0, 0};
      },
      2s, 10s);
  EXPECT_FALSE(probe.measure("/dead", 0));
  auto const space = probe.measure("/alive", 0);
  ASSERT_TRUE(space);
  EXPECT_EQ(7U, space->size);
  dead->release.set_value();
}

TEST(SpaceProbe, manyDeadFileSystemsTakeNoLongerThanTheBudget)
{
  auto const dead = std::make_shared<DeadFilesystem>();
  SpaceProbe probe([dead](std::string const&, dev_t) { return (*dead)(); }, 20ms, 60ms);
  auto const start = std::chrono::steady_clock::now();
  probe.begin();
  for (int at = 0; at < 1000; ++at)
    EXPECT_FALSE(probe.measure("/dead" + std::to_string(at), 0));
  EXPECT_LT(std::chrono::steady_clock::now() - start, 10s); // 20 s without a budget
  EXPECT_LE(dead->asked, 4);
  dead->release.set_value();
}

TEST(SpaceProbe, anExceptionIsLoggedAndCountsAsNoAnswer)
{
  LogCapture const log;
  SpaceProbe probe([](std::string const&, dev_t) -> std::optional<Space>
                   { throw std::runtime_error("broken"); });
  EXPECT_FALSE(probe.measure("/path", 0));
  EXPECT_TRUE(log.has(1, "SpaceProbe::measure", "Cannot measure /path: broken")) << log.text();
}
