#include "explorers/CommandOutput.h"

#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

#include <gmock/gmock.h>

#include <csignal>
#include <filesystem>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers;
using testing::HasSubstr;

namespace
{

constexpr std::chrono::seconds PATIENCE(20);
constexpr std::size_t LIMIT = 1000;

std::optional<std::string> shell(std::string const& script,
                                 std::chrono::milliseconds patience = PATIENCE)
{
  return outputOf({"/bin/sh", "-c", script}, patience, LIMIT);
}

} // namespace

TEST(CommandOutput, isWhatTheProgramPrintsInACleanEnvironment)
{
  EXPECT_EQ("C:\n", shell("echo $LC_ALL:$HOME; echo not me >&2"));
  constexpr int OPEN = 77;
  ASSERT_EQ(OPEN, dup2(STDOUT_FILENO, OPEN));
  EXPECT_EQ("closed\n", shell("[ -e /proc/self/fd/77 ] && echo open || echo closed"));
  close(OPEN);
}

TEST(CommandOutput, isAbsentWhenTheProgramFails)
{
  LogCapture const log(1);
  EXPECT_FALSE(shell("echo text; exit 3"));
  EXPECT_THAT(log.text(), HasSubstr("Cannot use /bin/sh: it ended with exit code 3"));
  EXPECT_FALSE(shell("kill -9 $$"));
  EXPECT_THAT(log.text(), HasSubstr("it was ended by signal 9"));
  EXPECT_FALSE(outputOf({"/nowhere/to/be/found"}, PATIENCE, LIMIT));
  EXPECT_THAT(log.text(), HasSubstr("Cannot use /nowhere/to/be/found: No such file"));
}

TEST(CommandOutput, isNotTakenBeyondALimit)
{
  LogCapture const log(1);
  EXPECT_FALSE(shell("while :; do echo more and more; done"));
  EXPECT_THAT(log.text(), HasSubstr("it prints too much"));
}

TEST(CommandOutput, isNotWaitedForWithoutEndAndNothingIsLeftBehind)
{
  TempDir const dir;
  LogCapture const log(1);
  std::string const note = dir / "note";
  EXPECT_FALSE(shell("trap '' TERM; sleep 600 & echo $! > " + note + "; wait",
                     std::chrono::milliseconds(1500)));
  EXPECT_THAT(log.text(), HasSubstr("it takes too long"));
  pid_t const left = std::stoi(readText(note));
  auto const end = std::chrono::steady_clock::now() + PATIENCE;
  auto const gone = [left]
  {
    std::string const status = "/proc/" + std::to_string(left) + "/status";
    return !std::filesystem::exists(status) ||
           readText(status).find("State:\tZ") != std::string::npos;
  };
  while (!gone() && std::chrono::steady_clock::now() < end)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  EXPECT_TRUE(gone());
  EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG)) << "no child is left to collect";
}

TEST(CommandOutput, aProgramThatOnlyClosesItsOutputIsNotWaitedForEither)
{
  LogCapture const log(1);
  EXPECT_FALSE(shell("exec >&-; sleep 600", std::chrono::milliseconds(300)));
  EXPECT_THAT(log.text(), HasSubstr("it takes too long"));
}
