#include "discovery/ExplorerCrashes.h"

#include "tests/support/LogCapture.h"
#include "tests/unit/discovery/RepositoryTesting.h"

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <future>
#include <thread>

using namespace tqtest;

namespace
{

CrashSuspect const BAD{"push", "bad", "host", "/lib/bad.so"};

// A process of its own that ends in what is done.
void endIn(std::function<void()> const& end)
{
  pid_t const child = fork();
  ASSERT_GE(child, 0);
  if (child == 0)
  {
    getExplorerCrashes().begin();
    end();
    _exit(0);
  }
  int status = 0;
  ASSERT_EQ(child, waitpid(child, &status, 0));
}

void crash()
{
  CrashMark const outer({"push", "outer", "host", ""});
  CrashMark const mark(BAD);
  raise(SIGFPE);
}

// Where the mark of another thread has been in front, and is there no more.
void crashBehindAFreeMark()
{
  std::promise<void> marked;
  std::promise<void> enough;
  std::thread another(
      [&]
      {
        CrashMark const mark({"push", "another", "host", ""});
        marked.set_value();
        enough.get_future().wait();
      });
  marked.get_future().wait();
  CrashMark const outer({"push", "outer", "host", ""});
  enough.set_value();
  another.join();
  CrashMark const mark(BAD);
  raise(SIGFPE);
}

struct ExplorerCrashesTest : RepositoryTesting
{
};

TEST_F(ExplorerCrashesTest, CountsAreKeptWhenTheyAreWrittenAndBadLinesAreNot)
{
  std::string const path = root / "crashes";
  CrashSuspect const suspect{"push", "tab\there", std::string(400, 's'), "/library"};
  EXPECT_EQ("tab here", CrashSuspect::fromText(suspect.text()).authority);
  CrashCounts counts;
  counts.counts[suspect.text()] = 3;
  ASSERT_TRUE(counts.write(path));
  EXPECT_EQ(counts.counts, CrashCounts::read(path).counts);
  writeText(path, "nonsense\n2\tpush\ta\n-1\tpush\ta\ts\to\n2\tpush\ta\ts\to\n");
  EXPECT_EQ((std::map<std::string, int>{{"push\ta\ts\to", 2}}), CrashCounts::read(path).counts);
  EXPECT_TRUE(CrashCounts::read(root / "missing").counts.empty());
}

TEST_F(ExplorerCrashesTest, TheInnermostCallOfTheThreadIsBlamedAndTheOthersAreNamed)
{
  endIn(crash);
  LogCapture log;
  ExplorerCrashes crashes;
  crashes.begin();
  EXPECT_EQ(1, crashes.count(BAD));
  EXPECT_FALSE(crashes.isLeftOut(BAD));
  EXPECT_EQ(0, crashes.count({"push", "outer", "host", ""}));
  EXPECT_TRUE(
      log.has(1, "ExplorerCrashes::begin",
              "Explorer bad of /lib/bad.so (push) crashed the service: Floating point exception"))
      << log.text();
  EXPECT_TRUE(log.has(1, "ExplorerCrashes::begin",
                      "Explorer outer was running when the service ended without being stopped"))
      << log.text();
  EXPECT_EQ("outer (it was running), bad of /lib/bad.so", crashes.culprits());
  crashes.end();
}

TEST_F(ExplorerCrashesTest, TheInnermostCallIsBlamedWhereverThereIsRoomForItsMark)
{
  endIn(crashBehindAFreeMark);
  ExplorerCrashes crashes;
  crashes.begin();
  EXPECT_EQ(1, crashes.count(BAD));
  EXPECT_EQ("outer (it was running), bad of /lib/bad.so", crashes.culprits());
  crashes.end();
}

TEST_F(ExplorerCrashesTest, OnlyStartsInARowCountAndALineThatIsTakenAwayIsNoticed)
{
  endIn(crash);
  endIn(crash);
  endIn([] { getExplorerCrashes().end(); }); // in order
  endIn(crash);
  endIn(crash);
  endIn(crash);
  ExplorerCrashes crashes;
  crashes.begin();
  EXPECT_EQ(MOST_CRASHES, crashes.count(BAD));
  EXPECT_TRUE(crashes.isLeftOut(BAD));
  crashes.end();

  ExplorerCrashes later;
  later.begin();
  EXPECT_TRUE(later.isLeftOut(BAD)) << "also when a start was in order";
  ASSERT_TRUE(CrashCounts().write(getCrashCountsPath()));
  EXPECT_FALSE(later.isLeftOut(BAD));
  later.end();
}

TEST_F(ExplorerCrashesTest, MarksOfAnotherBootSayNothing)
{
  endIn(
      []
      {
        CrashMark const mark(BAD);
        _exit(0);
      });
  std::string marks = readText(root / "db/explorers/running");
  marks[0] = marks[0] == '0' ? '1' : '0';
  writeText(root / "db/explorers/running", marks);
  LogCapture log;
  ExplorerCrashes crashes;
  crashes.begin();
  EXPECT_TRUE(log.lines().empty()) << log.text();
  crashes.end();
}

} // namespace
