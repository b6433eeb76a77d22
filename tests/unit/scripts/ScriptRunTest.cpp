// Scripts as real processes, those that misbehave above all.

#include "scripts/RunUser.h"
#include "scripts/ScriptRun.h"
#include "tests/support/Scripts.h"

#include <gmock/gmock.h>

#include <csignal>
#include <fcntl.h>
#include <linux/capability.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace Quillon::Tessarine::Ozf::Scripts;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace
{

class ScriptRunTest : public testing::Test
{
protected:
  ScriptRunTest() { m_sidecar.timeout = 20; }

  // No process that this test started is left, nor a zombie.
  void TearDown() override
  {
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG));
    EXPECT_EQ(ECHILD, errno);
  }

  RunOutcome run(std::string const& text, char const* interpreter = "#!/bin/sh\n")
  {
    std::string const path = tqtest::writeScript(m_folder / "script", interpreter + text);
    EXPECT_TRUE(findScript(path, m_script));
    return runScript(m_script, m_sidecar, "client7", m_stop);
  }

  bool isRunning(std::string const& file)
  {
    pid_t const pid = std::stoi(readText(m_folder / file));
    return kill(pid, 0) == 0;
  }

  TempDir m_folder;
  ScriptFile m_script;
  Sidecar m_sidecar;
  RunStop m_stop;
};

TEST_F(ScriptRunTest, whatItPrintsComesBack)
{
  RunOutcome const outcome = run("echo a=1; echo b=2");
  EXPECT_EQ(outcome.failure, "");
  EXPECT_EQ(outcome.output, "a=1\nb=2\n");
  EXPECT_GT(outcome.memory, 0);
  EXPECT_LT(outcome.took, seconds(15));
}

TEST_F(ScriptRunTest, itFindsACleanPlace)
{
  setenv("TQ_TEST_SECRET", "1", 1);
  int const leaked = open("/dev/null", O_RDONLY); // not to be closed on execution
  for (auto const resource : {RLIMIT_CORE, RLIMIT_NOFILE})
  {
    rlimit most{};
    getrlimit(resource, &most);
    most.rlim_cur = most.rlim_max;
    setrlimit(resource, &most);
  }
  RunOutcome const outcome = run("env; echo; echo \"$# $(pwd) $(ls -A | wc -l) $(umask)\"\n"
                                 "read line; echo \"read $?\"; ls /proc/self/fd | wc -l\n"
                                 "ps -o pgid= -p $$ | tr -d ' '; echo $$; touch left; mkdir d\n"
                                 "ps -o sid= -p $$ | tr -d ' '; ulimit -c; ulimit -n");
  close(leaked);
  EXPECT_EQ(outcome.failure, "") << outcome.errors;
  std::istringstream lines(outcome.output);
  std::vector<std::string> environment;
  for (std::string line; std::getline(lines, line) && !line.empty();)
    if (!line.starts_with("PWD=") && !line.starts_with("_=")) // of the shell
      environment.push_back(line);
  EXPECT_THAT(environment, testing::UnorderedElementsAre(
                               "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
                               "LANG=C.UTF-8", "TESSARINE_SUBJECT=client7"));
  std::string arguments, folder, entries, mask, word, result, descriptors, group, pid;
  lines >> arguments >> folder >> entries >> mask >> word >> result >> descriptors >> group >> pid;
  std::string session, core, most;
  lines >> session >> core >> most;
  EXPECT_EQ(arguments, "0");
  EXPECT_THAT(folder, StartsWith("/"));
  EXPECT_EQ(entries, "0");
  EXPECT_EQ(mask, "0022");
  EXPECT_EQ(result, "1");      // the end of the input at once
  EXPECT_EQ(descriptors, "4"); // three, and that of ls itself
  EXPECT_EQ(group, pid);
  EXPECT_NE(session, std::to_string(getsid(0))); // no signal of a terminal comes there
  EXPECT_EQ(core, "0");
  EXPECT_LE(std::stol(most), 1024);
  EXPECT_FALSE(std::filesystem::exists(folder));
}

TEST_F(ScriptRunTest, signalsAreAsAProgramFindsThem)
{
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
  // What a parent that is no C program may leave: two of these the C library keeps to itself.
  struct
  {
    void (*handler)(int) = SIG_IGN;
    unsigned long rest[7] = {};
  } const ignored;
  for (int const signal : {SIGHUP, SIGPIPE, 32, 33, 64})
    syscall(SYS_rt_sigaction, signal, &ignored, nullptr, 8);
  RunOutcome const outcome = run("grep -E 'Sig(Blk|Ign)' /proc/self/status");
  EXPECT_EQ(outcome.output, "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n");
  sigset_t now;
  pthread_sigmask(SIG_SETMASK, nullptr, &now);
  EXPECT_TRUE(sigismember(&now, SIGTERM));
}

// The service's unit gives it a right to read. Only root can give this process one here.
TEST_F(ScriptRunTest, whatTheServiceMayDoBesidesIsNotForItsScripts)
{
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[2] = {};
  ASSERT_EQ(syscall(SYS_capget, &header, data), 0);
  data[0].inheritable |= 1U << CAP_DAC_READ_SEARCH;
  bool const isGiven = syscall(SYS_capset, &header, data) == 0 &&
                       prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_RAISE, CAP_DAC_READ_SEARCH, 0, 0) == 0;
  EXPECT_EQ(isGiven, geteuid() == 0);
  EXPECT_EQ(run("grep CapAmb /proc/self/status").output, "CapAmb:\t0000000000000000\n");
  EXPECT_EQ(prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_IS_SET, CAP_DAC_READ_SEARCH, 0, 0),
            isGiven ? 1 : 0);
}

TEST_F(ScriptRunTest, anExitCodeIsAFailureToldWithTheLastLinesOfStandardError)
{
  RunOutcome const outcome =
      run("echo a=1; for i in 1 2 3 4 5 6 7 8; do echo \"line $i\" >&2; done\n"
          "exit 3");
  EXPECT_EQ(outcome.failure, "it exited with 3");
  EXPECT_EQ(outcome.errors, "line 4\nline 5\nline 6\nline 7\nline 8");
  EXPECT_EQ(run("kill -SEGV $$").failure, "it was ended by signal 11");
}

TEST_F(ScriptRunTest, muchOnStandardErrorHoldsNothingUp)
{
  RunOutcome const outcome = run("head -c 3000000 /dev/zero | tr '\\0' x >&2; echo a=1");
  EXPECT_EQ(outcome.failure, "");
  EXPECT_EQ(outcome.output, "a=1\n");
  EXPECT_EQ(outcome.errors.size(), 2048U);
}

TEST_F(ScriptRunTest, whatCannotBeExecutedIsTold)
{
  EXPECT_THAT(run("echo a=1", "").failure,
              HasSubstr("Exec format error (8); a script begins with #!"));
  EXPECT_THAT(run("", "#!/nowhere/sh\n").failure, HasSubstr("its interpreter is not there"));
}

TEST_F(ScriptRunTest, outputWithoutEndIsCutOff)
{
  RunOutcome const outcome = run("exec head -c 10000000000 /dev/zero");
  EXPECT_EQ(outcome.failure, "it printed more than 1 MiB");
  EXPECT_LT(outcome.output.size(), std::size_t(2) << 20);
  EXPECT_LT(outcome.took, seconds(10));

  // Nor is one waited for that goes on without.
  RunOutcome const patient = run("trap '' PIPE; head -c 2000000 /dev/zero; exec sleep 600");
  EXPECT_EQ(patient.failure, "it printed more than 1 MiB");
  EXPECT_LT(patient.took, seconds(10));
}

TEST_F(ScriptRunTest, afterItsTimeOutItIsToldToEnd)
{
  m_sidecar.timeout = 1;
  RunOutcome const outcome =
      run("trap 'echo ended >&2; exit 0' TERM; echo a=1; while :; do sleep 0.05; done");
  EXPECT_EQ(outcome.failure, "it did not end within 1 seconds");
  EXPECT_THAT(outcome.errors, testing::EndsWith("ended")); // behind what the shell says
  EXPECT_LT(outcome.took, milliseconds(2800));
}

TEST_F(ScriptRunTest, whatIgnoresTermIsKilledTwoSecondsLater)
{
  m_sidecar.timeout = 1;
  RunOutcome const outcome = run("trap '' TERM; (trap '' TERM; echo $$ >" + (m_folder / "child") +
                                 "; sleep 600) & while :; do sleep 600; done");
  EXPECT_EQ(outcome.failure, "it did not end within 1 seconds");
  EXPECT_GE(outcome.took, milliseconds(3000));
  EXPECT_LT(outcome.took, seconds(6));
  EXPECT_FALSE(isRunning("child"));
}

TEST_F(ScriptRunTest, whatItLeavesBehindIsEnded)
{
  // In its group, in a session of its own, and orphaned there; each holds the output.
  RunOutcome const outcome =
      run("sleep 600 & echo $! >" + (m_folder / "group") + "\n" +
          "setsid sh -c 'trap \"\" TERM; echo $$ >" + (m_folder / "session") +
          "; while :; do sleep 600; done' &\n" + "(setsid sh -c 'sleep 600 & echo $! >" +
          (m_folder / "orphan") + "' &)\n" + "while [ ! -s " + (m_folder / "session") +
          " ] || [ ! -s " + (m_folder / "orphan") + " ]; do sleep 0.01; done; echo a=1");
  EXPECT_EQ(outcome.failure, "");
  EXPECT_EQ(outcome.output, "a=1\n");
  EXPECT_LT(outcome.took, seconds(10));
  for (char const* const file : {"group", "session", "orphan"})
    EXPECT_FALSE(isRunning(file)) << file;
}

TEST_F(ScriptRunTest, itDoesNotOutliveWhatWatchesOverIt)
{
  RunOutcome const outcome = run("echo a=1; kill -KILL $PPID; exec sleep 600");
  EXPECT_EQ(outcome.failure, "what watched over it was killed");
  EXPECT_LT(outcome.took, seconds(10)); // its end of the output is closed
}

TEST_F(ScriptRunTest, aScriptThatChangesItsOwnFileIsNotBelieved)
{
  RunOutcome const outcome = run("echo '# more' >>\"$0\"; echo a=1");
  EXPECT_THAT(outcome.failure, HasSubstr("script was changed or replaced meanwhile"));
}

TEST_F(ScriptRunTest, aScriptThatIsReplacedByALinkIsNotRun)
{
  std::string const path = tqtest::writeShellScript(m_folder / "script", "echo a=1");
  ASSERT_TRUE(findScript(path, m_script));
  std::string const other =
      tqtest::writeShellScript(m_folder / "other", "touch " + (m_folder / "ran"));
  unlink(path.c_str());
  symlink(other.c_str(), path.c_str());
  EXPECT_THAT(runScript(m_script, m_sidecar, "client7", m_stop).failure, HasSubstr("is a link"));
  EXPECT_FALSE(std::filesystem::exists(m_folder / "ran"));

  // And while it runs.
  RunOutcome const outcome = [&]
  {
    unlink(path.c_str());
    return run("mv \"$0\" " + (m_folder / "moved") + "; ln -s " + (m_folder / "moved") +
               " \"$0\"; echo a=1");
  }();
  EXPECT_THAT(outcome.failure, HasSubstr("is a link"));
}

TEST_F(ScriptRunTest, whatItLeavesInItsDirectoryIsRemoved)
{
  RunOutcome const outcome =
      run("mkdir -p a/b; touch a/b/c; ln -s " + m_folder.path() + " a/link; chmod 0 a/b a; pwd");
  EXPECT_EQ(outcome.failure, "") << outcome.errors;
  EXPECT_FALSE(std::filesystem::exists(outcome.output.substr(0, outcome.output.size() - 1)));
  EXPECT_TRUE(std::filesystem::exists(m_script.path));
}

TEST_F(ScriptRunTest, theStopEndsARunSoon)
{
  std::thread stopper(
      [this]
      {
        while (!std::filesystem::exists(m_folder / "running"))
          std::this_thread::sleep_for(milliseconds(5));
        m_stop.stop();
      });
  RunOutcome const outcome =
      run("trap '' TERM; touch " + (m_folder / "running") + "; while :; do sleep 600; done");
  stopper.join();
  EXPECT_TRUE(outcome.stopped);
  EXPECT_LT(outcome.took, seconds(5));
  EXPECT_TRUE(m_stop.stopped());
}

TEST_F(ScriptRunTest, itRunsAsTheUserItIsGiven)
{
  m_sidecar.user = "nobody";
  m_folder.path();
  std::filesystem::permissions(m_folder.path(), std::filesystem::perms(0755));
  RunOutcome const outcome = run("id -un; id -G | wc -w; touch here && ls");
  if (geteuid() == 0)
  {
    EXPECT_EQ(outcome.failure, "") << outcome.errors;
    EXPECT_EQ(outcome.output, "nobody\n1\nhere\n");
  }
  else
    EXPECT_EQ(outcome.failure, "it is to run as \"nobody\", which only root can have it do");
  m_sidecar.user = "tq-no-such-user";
  EXPECT_EQ(run("true").failure, "its user \"tq-no-such-user\" cannot be found");
}

TEST(RunUserTest, whoIsNotRootRunsScriptsAsItselfAlone)
{
  constexpr uid_t NOBODY = 65534;
  bool const isRoot = geteuid() == 0;
  ASSERT_TRUE(!isRoot || seteuid(NOBODY) == 0);
  RunUser user;
  std::string reason;
  EXPECT_FALSE(findRunUser("root", user, reason));
  EXPECT_EQ(reason, "it is to run as \"root\", which only root can have it do");
  passwd const* const self = getpwuid(geteuid());
  ASSERT_NE(self, nullptr);
  EXPECT_TRUE(findRunUser(self->pw_name, user, reason)) << reason;
  EXPECT_FALSE(user.changes);
  ASSERT_TRUE(!isRoot || seteuid(0) == 0); // what looks for leaks at the end needs it
}

} // namespace
