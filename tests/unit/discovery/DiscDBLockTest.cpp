#include "discovery/DiscDBLock.h"

#include "tests/support/LogCapture.h"
#include "tests/support/OtherProcess.h"
#include "tests/support/TempDir.h"

#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <csignal>
#include <filesystem>
#include <memory>
#include <optional>

using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

namespace
{

constexpr char LOCKING[] = "CleanupLock::CleanupLock";

int openFile(std::string const& path) { return open(path.c_str(), O_RDWR | O_CREAT, 0644); }

std::atomic<int> g_signals{0};

} // namespace

TEST(CleanupLock, MakesTheLockFileAndHoldsByteZero)
{
  TempDir const dir;
  std::string const path = dir / "Update.lock";
  {
    CleanupLock const lock(dir.path().c_str(), CleanupLock::SHARED);
    EXPECT_TRUE(lock.isLocked());
    EXPECT_EQ(F_RDLCK, lockSeenByOthers(path));
    struct stat status
    {
    };
    ASSERT_EQ(0, stat(path.c_str(), &status));
    EXPECT_EQ(0644u & ~022u, status.st_mode & 0777u & ~022u);
    EXPECT_EQ(0, status.st_size);
  }
  EXPECT_EQ(F_UNLCK, lockSeenByOthers(path));
  {
    CleanupLock const lock(dir.path().c_str(), CleanupLock::EXCLUSIVE);
    EXPECT_TRUE(lock.isLocked());
    EXPECT_EQ(F_WRLCK, lockSeenByOthers(path));
  }
  EXPECT_EQ(F_UNLCK, lockSeenByOthers(path));
  EXPECT_TRUE(std::filesystem::exists(path)) << "the lock file stays";
}

TEST(CleanupLock, LocksNothingButByteZero)
{
  TempDir const dir;
  for (auto const mode : {CleanupLock::SHARED, CleanupLock::EXCLUSIVE})
  {
    CleanupLock const lock(dir.path().c_str(), mode);
    EXPECT_NE(F_UNLCK, lockSeenByOthers(dir / "Update.lock"));
    EXPECT_EQ(F_UNLCK, lockSeenByOthers(dir / "Update.lock", 1));
  }
}

TEST(CleanupLock, ModesHaveTheirNumbers)
{
  EXPECT_EQ(0, CleanupLock::EXCLUSIVE);
  EXPECT_EQ(1, CleanupLock::SHARED);
}

TEST(CleanupLock, ADirectoryThatIsMissingIsLogged)
{
  LogCapture log;
  CleanupLock const lock("/nonexistent/db", CleanupLock::SHARED);
  EXPECT_FALSE(lock.isLocked());
  EXPECT_EQ(1, log.count(1, LOCKING, "Unable to open /nonexistent/db/Update.lock")) << log.text();
  EXPECT_NE(std::string::npos, log.text().find("(DiscDB:"));
}

TEST(CleanupLock, ExclusiveDoesNotWaitForAnotherProcess)
{
  TempDir const dir;
  OtherProcess const writer(dir / "Update.lock", F_RDLCK);
  LogCapture log;
  CleanupLock const lock(dir.path().c_str(), CleanupLock::EXCLUSIVE);
  EXPECT_FALSE(lock.isLocked());
  EXPECT_EQ(1, log.count(1, LOCKING, "Unable to lock " + (dir / "Update.lock"))) << log.text();
}

TEST(CleanupLock, SharedIsGrantedBesideAnotherProcessesShared)
{
  TempDir const dir;
  OtherProcess const writer(dir / "Update.lock", F_RDLCK);
  EXPECT_TRUE(CleanupLock(dir.path().c_str(), CleanupLock::SHARED).isLocked());
}

TEST(CleanupLock, SharedWaitsForAnotherProcessesCleanUp)
{
  TempDir const dir;
  OtherProcess cleaner(dir / "Update.lock", F_WRLCK);
  std::atomic<bool> granted{false};
  std::thread writer(
      [&]
      {
        CleanupLock const lock(dir.path().c_str(), CleanupLock::SHARED);
        granted = lock.isLocked();
      });
  EXPECT_TRUE(eventually([&] { return someoneWaitsFor(dir / "Update.lock"); }));
  EXPECT_FALSE(granted);
  cleaner.leave();
  writer.join();
  EXPECT_TRUE(granted);
}

TEST(CleanupLock, TheFirstOfTwoSharersToFinishDoesNotUnlock)
{
  TempDir const dir;
  std::optional<CleanupLock> first(std::in_place, dir.path().c_str(), CleanupLock::SHARED);
  std::optional<CleanupLock> second(std::in_place, dir.path().c_str(), CleanupLock::SHARED);
  first.reset();
  EXPECT_EQ(F_RDLCK, lockSeenByOthers(dir / "Update.lock"));
  second.reset();
  EXPECT_EQ(F_UNLCK, lockSeenByOthers(dir / "Update.lock"));
}

TEST(CleanupLock, ExclusiveIsRefusedWhileThisProcessShares)
{
  TempDir const dir;
  CleanupLock const writer(dir.path().c_str(), CleanupLock::SHARED);
  LogCapture log;
  {
    CleanupLock const cleaner(dir.path().c_str(), CleanupLock::EXCLUSIVE);
    EXPECT_FALSE(cleaner.isLocked());
  }
  EXPECT_EQ(1, log.count(1, LOCKING, "Unable to lock " + (dir / "Update.lock"))) << log.text();
  EXPECT_EQ(F_RDLCK, lockSeenByOthers(dir / "Update.lock")) << "the refusal costs no lock";
}

TEST(CleanupLock, SharedWaitsForThisProcessesCleanUp)
{
  TempDir const dir;
  std::optional<CleanupLock> cleaner(std::in_place, dir.path().c_str(), CleanupLock::EXCLUSIVE);
  std::atomic<bool> granted{false};
  std::thread writer(
      [&]
      {
        CleanupLock const lock(dir.path().c_str(), CleanupLock::SHARED);
        granted = true;
      });
  // One that did not wait would be through long before this.
  EXPECT_FALSE(eventually([&] { return granted.load(); }, std::chrono::seconds(1)));
  EXPECT_EQ(F_WRLCK, lockSeenByOthers(dir / "Update.lock"));
  cleaner.reset();
  writer.join();
  EXPECT_TRUE(granted);
}

TEST(CleanupLock, ALockFileThatWasDeletedIsLockedAnew)
{
  TempDir const dir;
  std::string const path = dir / "Update.lock";
  CleanupLock const first(dir.path().c_str(), CleanupLock::SHARED);
  std::filesystem::remove(path);
  {
    CleanupLock const second(dir.path().c_str(), CleanupLock::SHARED);
    EXPECT_TRUE(second.isLocked());
    EXPECT_EQ(F_RDLCK, lockSeenByOthers(path)) << "the file that others see";
  }
  EXPECT_EQ(F_RDLCK, lockSeenByOthers(path)) << "the first still shares";
}

TEST(CleanupLock, ALockFileDeletedWhileItWasWaitedForIsLockedAnew)
{
  TempDir const dir;
  std::string const path = dir / "Update.lock";
  OtherProcess cleaner(path, F_WRLCK, [&] { unlink(path.c_str()); });
  std::atomic<short> seen{-1};
  std::thread writer(
      [&]
      {
        CleanupLock const lock(dir.path().c_str(), CleanupLock::SHARED);
        seen = lockSeenByOthers(path);
      });
  EXPECT_TRUE(eventually([&] { return someoneWaitsFor(path); }));
  cleaner.leave();
  writer.join();
  EXPECT_EQ(F_RDLCK, seen);
}

TEST(IsFileAt, ComparesTheFileAndNotTheNumberOfItsNames)
{
  TempDir const dir;
  std::string const path = dir / "f";
  int const fd = openFile(path);
  EXPECT_TRUE(isFileAt(fd, path.c_str()));
  std::filesystem::create_hard_link(path, dir / "snapshot");
  EXPECT_TRUE(isFileAt(fd, path.c_str()));
  std::filesystem::remove(path);
  EXPECT_FALSE(isFileAt(fd, path.c_str()));
  writeText(path, "another");
  EXPECT_FALSE(isFileAt(fd, path.c_str()));
  close(fd);
  EXPECT_FALSE(isFileAt(fd, path.c_str()));
}

TEST(MetadataGuard, ExcludesThreadsByPathAndIsRecursive)
{
  std::optional<MetadataGuard> held(std::in_place, "x/1");
  MetadataGuard const again("x/1");
  std::atomic<bool> other{false};
  std::thread(
      [&]
      {
        MetadataGuard const guard("x/2");
        other = true;
      })
      .join();
  EXPECT_TRUE(other);
}

TEST(MetadataGuard, LetsOneThreadInAtATime)
{
  int inside = 0;
  int worst = 0;
  std::barrier start(4);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back(
        [&]
        {
          start.arrive_and_wait();
          for (int n = 0; n < 500; ++n)
          {
            MetadataGuard const guard("x/1");
            worst = std::max(worst, ++inside);
            std::this_thread::yield(); // an invitation to whoever is not kept out
            --inside;
          }
        });
  for (auto& thread : threads)
    thread.join();
  EXPECT_EQ(1, worst);
}

TEST(MetadataGuard, KeepsManyPathsApart)
{
  // So many at once that some share a place, held while others come and go.
  constexpr int PATHS = 40;
  std::vector<std::unique_ptr<MetadataGuard>> held;
  for (int i = 0; i < PATHS; ++i)
    held.push_back(std::make_unique<MetadataGuard>("held/" + std::to_string(i)));
  for (int i = 0; i < PATHS; i += 2)
    held[static_cast<std::size_t>(i)].reset();

  std::atomic<int> taken{0};
  std::thread passing(
      [&]
      {
        for (int i = 0; i < PATHS; i += 2)
        {
          MetadataGuard const freed("held/" + std::to_string(i));
          MetadataGuard const other("other/" + std::to_string(i));
          ++taken;
        }
      });
  passing.join();
  EXPECT_EQ(PATHS / 2, taken);

  std::atomic<int> entered{0};
  std::thread waiting(
      [&]
      {
        for (int i = 1; i < PATHS; i += 2)
        {
          MetadataGuard const guard("held/" + std::to_string(i));
          ++entered;
        }
      });
  for (int i = 1; i < PATHS; i += 2)
  {
    EXPECT_LE(entered, i / 2) << "the guard let a second thread in";
    held[static_cast<std::size_t>(i)].reset();
  }
  waiting.join();
  EXPECT_EQ(PATHS / 2, entered);
}

TEST(WaitingLock, SurvivesASignal)
{
  TempDir const dir;
  std::string const path = dir / "f";
  OtherProcess holder(path, F_WRLCK);
  struct sigaction action
  {
  };
  action.sa_handler = [](int) { ++g_signals; }; // without SA_RESTART
  sigaction(SIGUSR1, &action, nullptr);

  int result = 99;
  std::thread waiter(
      [&]
      {
        ACE_File_Lock lock(openFile(path), false);
        LockWait wait;
        result = waitLock(lock, RecordLock::READ, wait);
      });
  EXPECT_TRUE(eventually([&] { return someoneWaitsFor(path); }));
  pthread_kill(waiter.native_handle(), SIGUSR1);
  EXPECT_TRUE(eventually([] { return g_signals > 0; }));
  holder.leave();
  waiter.join();
  EXPECT_EQ(0, result);
}

TEST(WaitingLock, TriesAgainWhenTheKernelSeesADeadlock)
{
  // The other process holds A and waits for B; we hold B and want A. The
  // kernel calls it a deadlock, but another thread of ours gives B up.
  TempDir const dir;
  std::string const a = dir / "a";
  std::string const b = dir / "b";
  int const heldB = openFile(b);
  ASSERT_EQ(0, lockByte0(heldB, F_WRLCK));
  OtherProcess other(a, F_WRLCK,
                     [b]
                     {
                       int const fd = openFile(b);
                       lockByte0(fd, F_WRLCK, F_SETLKW);
                     });
  std::thread leaving([&] { other.leave(); });
  ASSERT_TRUE(eventually([&] { return someoneWaitsFor(b); }));

  std::atomic<bool> finished{false};
  int result = 99;
  std::thread waiter(
      [&]
      {
        ACE_File_Lock lock(openFile(a), false);
        LockWait wait;
        result = waitLock(lock, RecordLock::WRITE, wait);
        finished = true;
      });
  // A wait that gave up would be over long before this.
  EXPECT_FALSE(eventually([&] { return finished.load(); }, std::chrono::seconds(1)));
  close(heldB);
  waiter.join();
  leaving.join();
  EXPECT_EQ(0, result);
}

TEST(WaitingLock, OtherRefusalsAreReported)
{
  TempDir const dir;
  writeText(dir / "f", "");
  ACE_File_Lock lock(open((dir / "f").c_str(), O_RDONLY), false);
  LockWait wait;
  EXPECT_EQ(-1, waitLock(lock, RecordLock::WRITE, wait));
  EXPECT_EQ(EBADF, errno);
}

TEST(WaitingLock, GivesTheGuardUpMeanwhileAndHasItBackAfterwards)
{
  TempDir const dir;
  std::string const path = dir / "f";
  OtherProcess holder(path, F_WRLCK);
  std::atomic<int> granted{99};
  std::thread waiter(
      [&]
      {
        std::optional<MetadataGuard> guard(std::in_place, path);
        ACE_File_Lock lock(openFile(path), false);
        LockWait wait;
        granted = waitLock(lock, RecordLock::READ, wait, path, guard);
        EXPECT_TRUE(guard);
        EXPECT_EQ(F_RDLCK, lockSeenByOthers(path));
      });
  EXPECT_TRUE(eventually([] { return LockWait::inProgress() > 0; }));
  {
    // Would hang for good, or until the limit.
    MetadataGuard const guard(path);
    holder.leave();
    // Whoever has the guard may work undisturbed: the one that waits takes no
    // lock that would convert his.
    ACE_File_Lock mine(openFile(path), false);
    ASSERT_EQ(0, tryLock(mine, RecordLock::WRITE));
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(F_WRLCK, lockSeenByOthers(path));
    EXPECT_EQ(99, granted);
  }
  waiter.join();
  EXPECT_EQ(0, granted);
}

TEST(WaitingLock, EndsWithTheService)
{
  TempDir const dir;
  std::string const path = dir / "f";
  OtherProcess const holder(path, F_RDLCK);
  std::atomic<int> result{99};
  std::thread waiter(
      [&]
      {
        ACE_File_Lock lock(openFile(path), false);
        LockWait wait;
        result = waitLock(lock, RecordLock::WRITE, wait);
      });
  EXPECT_TRUE(eventually([] { return LockWait::inProgress() > 0; }));
  auto const begin = std::chrono::steady_clock::now();
  LockWait::endAll();
  waiter.join();
  EXPECT_EQ(-1, result);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));

  // What is free is granted.
  ACE_File_Lock lock(openFile(dir / "free"), false);
  LockWait wait;
  EXPECT_EQ(0, waitLock(lock, RecordLock::WRITE, wait));
  EXPECT_FALSE(wait.pause());
  LockWait::allow();
  EXPECT_TRUE(wait.pause());
}
