// What the index of the directory is told of changes, and what it does where it
// is told nothing.

#include "discovery/DiscDBIndex.h"

#include "tests/support/BecomeRoot.h"
#include "tests/support/LogCapture.h"
#include "tests/support/OtherProcess.h"
#include "tests/unit/discovery/IndexTesting.h"

#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <sched.h>

using namespace records;
namespace fs = std::filesystem;

namespace
{

long queueLength()
{
  long length = 0;
  std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> length;
  return length;
}

// What waits to be taken from the process's one queue of notices, in bytes.
int queuedBytes()
{
  for (auto const& entry : fs::directory_iterator("/proc/self/fd"))
  {
    std::error_code gone;
    if (fs::read_symlink(entry.path(), gone) != "anon_inode:inotify")
      continue;
    int bytes = -1;
    if (ioctl(std::stoi(entry.path().filename()), FIONREAD, &bytes) == 0)
      return bytes;
  }
  return -1;
}

} // namespace

TEST_F(IndexedDatabase, WhatAnAdministratorDoesWithFilesShowsAtOnce)
{
  put("a");
  put("b");
  writeText(m_root / "c", document(FUTURE, 1, "hostA", "c"));
  writeText(m_root / "d", document(FUTURE, 1, "hostA", "d"));
  EXPECT_EQ((ListedSubjects{"a", "b"}), subjects());
  shell("cp '" + (m_root / "c") + "' " + quoted(fileOf("c")));
  EXPECT_EQ((ListedSubjects{"a", "b", "c"}), subjects());
  shell("mv '" + (m_root / "d") + "' " + quoted(fileOf("d")));
  EXPECT_EQ((ListedSubjects{"a", "b", "c", "d"}), subjects());
  shell("rm " + quoted(fileOf("a")));
  EXPECT_EQ((ListedSubjects{"b", "c", "d"}), subjects());
  shell("mv " + quoted(fileOf("c")) + " '" + (m_root / "c") + "'");
  EXPECT_EQ((ListedSubjects{"b", "d"}), subjects());
  shell("sed -i s/hostB/hostC/ " + quoted(fileOf("b")) + "; cp " + quoted(fileOf("b")) + " " +
        quoted(fileOf("e")));
  EXPECT_EQ((ListedSubjects{"b", "b", "d"}), subjects()) << "the content is what counts";
  shell("truncate -s 0 " + quoted(fileOf("e")));
  EXPECT_EQ((ListedSubjects{"b", "d"}), subjects());
  shell("mv " + quoted(fileOf("d")) + " " + quoted(fileOf("b")));
  EXPECT_EQ((ListedSubjects{"d"}), subjects());
  shell("touch " + quoted(fileOf("b")));
  EXPECT_EQ(1, std::ranges::count(opens(), "open " + fileOf("b"))) << "it is looked at again";
  EXPECT_EQ(0, std::ranges::count(opens(), "open " + fileOf("b")));
  shell("ln -s " + quoted(fileOf("b")) + " " + quoted(fileOf("link")));
  EXPECT_EQ((ListedSubjects{"d"}), subjects());
}

// Not by its time stamps is a file known to have changed.
TEST_F(IndexedDatabase, ARewriteOfTheSameSizeAndTimeShows)
{
  put("a");
  EXPECT_EQ(ListedSubjects{"a"}, subjects());
  struct stat before
  {
  };
  ASSERT_EQ(0, ::stat(path(fileOf("a")).c_str(), &before));
  int const fd = ::open(path(fileOf("a")).c_str(), O_WRONLY);
  std::string const other = document(FUTURE, 1, "hostA", "b");
  ASSERT_EQ(before.st_size, ::pwrite(fd, other.data(), other.size(), 0));
  timespec const times[] = {before.st_atim, before.st_mtim};
  ASSERT_EQ(0, ::futimens(fd, times));
  ::close(fd);
  EXPECT_EQ(ListedSubjects{"b"}, subjects());
}

// They are told of as if each had gone after it had come.
TEST_F(IndexedDatabase, FilesThatChangeNamesWithEachOtherStay)
{
  put("a");
  put("b");
  writeText(m_root / "c", document(FUTURE, 1, "hostA", "c"));
  EXPECT_EQ((ListedSubjects{"a", "b"}), subjects());
  auto const exchange = [](std::string const& one, std::string const& other)
  { ASSERT_EQ(0, ::renameat2(AT_FDCWD, one.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE)); };
  exchange(path(fileOf("a")), path(fileOf("b")));
  EXPECT_EQ((ListedSubjects{"a", "b"}), subjects());
  EXPECT_EQ(0u, opens().size());
  exchange(path(fileOf("a")), m_root / "c");
  EXPECT_EQ((ListedSubjects{"a", "c"}), subjects());
  EXPECT_EQ(0u, opens().size());
}

TEST_F(IndexedDatabase, AFileThatIsUsedAfterItsDeletionIsLookedForOnce)
{
  put("a");
  put("b");
  put("moved");
  int const fd = ::open(path(fileOf("a")).c_str(), O_RDWR);
  subjects();
  fs::remove(path(fileOf("a")));
  EXPECT_EQ(ListedSubjects({"b", "moved"}), subjects());
  ASSERT_EQ(0, ::ftruncate(fd, 0));
  ASSERT_EQ(0, ::fchmod(fd, 0600));
  fs::rename(path(fileOf("moved")), m_root / "moved");
  EXPECT_EQ(ListedSubjects{"b"}, subjects());
  EXPECT_EQ(std::vector<std::string>{}, opens());
  put("a");
  EXPECT_EQ((ListedSubjects{"a", "b"}), subjects());
  ::close(fd);
}

TEST_F(IndexedDatabase, EndsEvenIfItsThreadCannotBeWoken)
{
  put("a");
  subjects();
  int writes = 0;
  {
    SystemCalls const watched("anon_inode:[eventfd]",
                              [&](std::string const& call)
                              {
                                writes += call == "write .";
                                return EIO;
                              });
    m_creator.keepIndex(false);
  }
  EXPECT_LT(0, writes);
}

TEST_F(IndexedDatabase, ADirectoryThatIsReplacedIsReadAnew)
{
  std::string const dir = m_creator.getDirectory();
  put("old");
  EXPECT_EQ(ListedSubjects{"old"}, subjects());
  shell("cp -a '" + dir + "' '" + dir + ".backup' && mv '" + dir + "' '" + dir + ".gone'");
  EXPECT_EQ(ListedSubjects{}, subjects());
  writeText(dir + ".backup/" + fileOf("new"), document(FUTURE, 1, "hostA", "new"));
  shell("mv '" + dir + ".backup' '" + dir + "'");
  EXPECT_EQ((ListedSubjects{"old", "new"}), subjects());
  writeText(dir + ".gone/" + fileOf("elsewhere"), document(FUTURE, 1, "hostA", "elsewhere"));
  EXPECT_EQ((ListedSubjects{"old", "new"}), subjects());

  // A folder above it, of which the directory itself is told nothing.
  std::string const above = m_root / "db";
  shell("mv '" + above + "' '" + above + ".gone' && mkdir -p '" + dir + "'");
  EXPECT_EQ(ListedSubjects{}, subjects());
  put("newest");
  EXPECT_EQ(ListedSubjects{"newest"}, subjects());
}

TEST_F(IndexedDatabase, TooManyChangesForTheQueueAreNoLoss)
{
  for (int i = 0; i < 50; ++i)
    put("s" + std::to_string(i));
  EXPECT_EQ(50u, subjects().size());
  LogCapture log;
  // While a list is taken nobody else empties the queue.
  ListPtr const iterator = list();
  EXPECT_TRUE(iterator->list(
      [this](ListedDiscovery const&)
      {
        std::string const file = path("1.tmp");
        for (long made = 0; made <= queueLength(); made += 2)
        {
          ::close(::open(file.c_str(), O_WRONLY | O_CREAT, 0600));
          ::unlink(file.c_str());
        }
        put("late");
        put("s8", PAST);
        fs::remove(path(fileOf("s9")));
        return false;
      }));
  EXPECT_EQ(47u, subjectsListed(*iterator).size()) << "all but the first, s8 and s9";
  EXPECT_EQ(
      1, log.count(4, INDEX_UPDATE, "Lists of discoveries begin anew: too many changes at once"));
  ListedSubjects const found = subjects();
  EXPECT_EQ(49u, found.size());
  EXPECT_EQ(1u, found.count("late"));
  EXPECT_EQ(std::vector<std::string>{}, opens());
}

TEST_F(IndexedDatabase, BetweenTwoListsTheQueueIsEmptied)
{
  put("a");
  subjects();
  LogCapture log;
  std::string const file = path("1.tmp");
  for (long made = 0; made < 2 * queueLength();)
  {
    for (int i = 0; i < 2000; ++i, made += 2)
    {
      ::close(::open(file.c_str(), O_WRONLY | O_CREAT, 0600));
      ::unlink(file.c_str());
    }
    ASSERT_TRUE(eventually([] { return queuedBytes() == 0; }));
  }
  EXPECT_EQ(0u, opens().size());
  EXPECT_FALSE(
      log.has(4, INDEX_UPDATE, "Lists of discoveries begin anew: too many changes at once"));
}

TEST_F(IndexedDatabase, WhereChangesAreNotToldTheDirectoryIsWalked)
{
  put("a");
  for (int time = 0; time < 3; ++time)
  {
    DBDiscoveryIterator iterator(m_creator.getDirectory().c_str(), m_creator,
                                 std::make_shared<DiscoveryIndex>("/proc/self/task"));
    EXPECT_EQ(ListedSubjects{"a"}, subjectsListed(iterator));
  }
  DiscoveryIndex index("/proc/self/task");
  LogCapture log;
  for (int time = 0; time < 3; ++time)
    EXPECT_FALSE(index.update());
  EXPECT_EQ(1u, log.lines().size()) << log.text();
  EXPECT_TRUE(log.has(1, INDEX_UPDATE,
                      "Lists of discoveries read every file: the file system of /proc/self/task "
                      "is none whose changes are all told here"));

  for (std::uint64_t const shared : {0x6969ull, 0xFF534D42ull, 0xFE534D42ull, 0x65735546ull,
                                     0x01021997ull, 0x00C36400ull, 0x5346414Full, 0x0BD00BD0ull})
    EXPECT_FALSE(DiscoveryIndex::tellsChanges(shared, 0)) << std::hex << shared;
  EXPECT_FALSE(DiscoveryIndex::tellsChanges(0x2FC12FC1, 0)) << "ZFS, rolled back while in use";
  struct statfs here
  {
  };
  ASSERT_EQ(0, statfs(m_creator.getDirectory().c_str(), &here));
  auto const type = static_cast<std::uint64_t>(here.f_type);
  EXPECT_TRUE(DiscoveryIndex::tellsChanges(type, 0));
  constexpr unsigned NO_ACCESS_TIMES = 0x80; // the header for them contradicts another
  constexpr unsigned CASE_FOLDED = 0x40000000;
  EXPECT_TRUE(DiscoveryIndex::tellsChanges(type, NO_ACCESS_TIMES));
  EXPECT_FALSE(DiscoveryIndex::tellsChanges(type, NO_ACCESS_TIMES | CASE_FOLDED));
}

// The sanitizers look at memory through a pipe, and end a process that gets none.
#ifndef __SANITIZE_ADDRESS__
TEST_F(IndexedDatabase, WithoutDescriptorsForAWatchTheDirectoryIsWalkedAndLaterWatched)
{
  put("a");
  DiscoveryIndex index(m_creator.getDirectory());
  rlimit before{};
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &before));
  int const next = ::open("/dev/null", O_RDONLY);
  ::close(next);
  rlimit const few{static_cast<rlim_t>(next) + 1, before.rlim_max}; // for the directory
  LogCapture log;
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &few));
  bool const watched = index.update();
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &before));
  EXPECT_FALSE(watched);
  EXPECT_TRUE(log.has(1, INDEX_UPDATE,
                      "Lists of discoveries read every file: " + m_creator.getDirectory() +
                          " cannot be watched: Too many open files (24)"))
      << log.text();
  EXPECT_TRUE(index.update());
}
#endif

TEST_F(IndexedDatabase, FileSystemsMountedOverTheDirectoryAreNoticed)
{
  std::string const dir = m_creator.getDirectory();
  if (!tqtest::becomeRoot())
    GTEST_SKIP() << "only root may mount, or who may make user namespaces";
  ASSERT_EQ(0, unshare(CLONE_NEWNS));
  ASSERT_EQ(0, ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr));
  put("below");
  EXPECT_EQ(ListedSubjects{"below"}, subjects());
  ASSERT_EQ(0, ::mount("none", dir.c_str(), "tmpfs", 0, "mode=0700"));
  EXPECT_EQ(ListedSubjects{}, subjects());
  put("above");
  EXPECT_EQ(ListedSubjects{"above"}, subjects());
  ASSERT_EQ(0, ::umount(dir.c_str())) << "nothing of it is kept open";
  EXPECT_EQ(ListedSubjects{"below"}, subjects());
  put("new");
  EXPECT_EQ((ListedSubjects{"below", "new"}), subjects());
}
