// What a supervisor does when what it was told is true no more.

#include "scripts/Supervisor.h"
#include "ozf/base/SystemError.h"
#include "tests/support/Scripts.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace Quillon::Tessarine::Ozf::Scripts;
using Quillon::Tessarine::Ozf::UniqueFd;

namespace
{

class SupervisorTest : public testing::Test
{
protected:
  SupervisorTest()
  {
    struct stat status = {};
    EXPECT_EQ(stat(m_script.c_str(), &status), 0);
    m_plan.parent = getpid();
    m_plan.path = m_script.c_str();
    m_plan.device = status.st_dev;
    m_plan.inode = status.st_ino;
    m_plan.directory = m_folder.path().c_str();
    m_plan.arguments = m_arguments;
    m_plan.environment = m_environment;
    m_plan.timeout = 20000;
    m_plan.grace = 2000;
  }

  // What it reports of the plan, once it has ended.
  SupervisorReport report()
  {
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    UniqueFd const reading(ends[0]);
    UniqueFd writing(ends[1]);
    UniqueFd const nothing(open("/dev/null", O_RDWR | O_CLOEXEC));
    m_plan.input = m_plan.output = m_plan.errors = nothing.get();
    m_plan.report = writing.get();
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    pid_t const pid = fork();
    if (pid == 0)
      superviseScript(m_plan);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    writing.reset();
    SupervisorReport told{};
    EXPECT_EQ(read(reading.get(), &told, sizeof told), static_cast<ssize_t>(sizeof told));
    EXPECT_EQ(waitpid(pid, nullptr, 0), pid);
    return told;
  }

  bool hasRun() const { return std::filesystem::exists(m_folder / "ran"); }

  TempDir m_folder;
  std::string const m_script = tqtest::writeShellScript(m_folder / "script", "touch ran");
  char const* m_arguments[2] = {m_script.c_str(), nullptr};
  char const* m_environment[2] = {"PATH=/usr/bin:/bin", nullptr};
  SupervisorPlan m_plan{};
};

TEST_F(SupervisorTest, AScriptIsRunInItsDirectory)
{
  SupervisorReport const told = report();
  EXPECT_EQ(told.what, SupervisorReport::Ended);
  EXPECT_EQ(told.value, 0);
  EXPECT_GT(told.memory, 0);
  EXPECT_TRUE(hasRun());
}

TEST_F(SupervisorTest, AnotherFileThanTheOneThatWasExaminedIsNotRun)
{
  ++m_plan.inode;
  EXPECT_EQ(report().what, SupervisorReport::Replaced);
  --m_plan.inode;
  ++m_plan.device;
  EXPECT_EQ(report().what, SupervisorReport::Replaced);
  EXPECT_FALSE(hasRun());
}

TEST_F(SupervisorTest, WithoutItsDirectoryItIsNotRunAtAll)
{
  m_plan.directory = "/nowhere";
  SupervisorReport const told = report();
  EXPECT_EQ(told.what, SupervisorReport::NoDirectory);
  EXPECT_EQ(told.value, ENOENT);
  EXPECT_FALSE(hasRun());
}

// Nobody becomes a user of that number, root or not.
TEST_F(SupervisorTest, ItIsNotRunAsAnotherUserThanItsOwn)
{
  m_plan.changesUser = true;
  m_plan.user = static_cast<uid_t>(-1);
  m_plan.groupCount = 70000;
  SupervisorReport const told = report();
  EXPECT_EQ(told.what, SupervisorReport::NoUser);
  EXPECT_EQ(told.value, geteuid() == 0 ? EINVAL : EPERM);
  EXPECT_FALSE(hasRun());
}

} // namespace
