// What the packages add to the programs: the unit, as the service manager sees it,
// and the version.

#include "tests/support/Process.h"
#include "tests/support/TempDir.h"

#include <gmock/gmock.h>

#include <fstream>
#include <regex>
#include <sstream>

namespace
{

using testing::HasSubstr;

// The unit as it is installed, with a program that is there.
std::string writeUnit(TempDir const& folder)
{
  std::ifstream file(TQ_SOURCE_DIR "/packaging/tqdisco.service.in");
  std::ostringstream text;
  text << file.rdbuf();
  std::string const path = folder / "tqdisco.service";
  writeText(path, std::regex_replace(text.str(), std::regex("@TQ_INSTALLED_BINDIR@"), TQ_BIN_DIR));
  return path;
}

} // namespace

TEST(PackagingTest, TheServiceIsNotExposedMuch)
{
  TempDir const folder;
  Process process("/usr/bin/systemd-analyze", {"security", "--offline=true", "--threshold=35",
                                               "--no-pager", writeUnit(folder)});
  ASSERT_TRUE(process.wait(std::chrono::seconds(60)));
  EXPECT_EQ(process.exitCode(), 0) << process.output() << process.errors();
  EXPECT_THAT(process.output(), HasSubstr("Overall exposure level"));
}

// A mount name space of the service's own would hide the host's mounts from it.
TEST(PackagingTest, NoOptionGivesTheServiceAMountNameSpace)
{
  TempDir const folder;
  std::ifstream unit(writeUnit(folder));
  std::regex const option(
      "(Protect(System|Home|KernelTunables|KernelModules|KernelLogs|ControlGroups|"
      "Proc)|ProcSubset|Private(Tmp|Devices|Mounts|Users|IPC)|"
      "(ReadWrite|ReadOnly|Inaccessible|Exec|NoExec)Paths|TemporaryFileSystem|"
      "Bind(ReadOnly)?Paths|RootDirectory|RootImage|MountAPIVFS|DynamicUser)=.*");
  for (std::string line; std::getline(unit, line);)
    EXPECT_FALSE(std::regex_match(line, option)) << line;
}

TEST(PackagingTest, ThePackagesHaveTheProgramsVersion)
{
  std::ifstream file(TQ_SOURCE_DIR "/debian/changelog");
  std::string first;
  std::getline(file, first);
  EXPECT_THAT(first, HasSubstr("(" TQ_VERSION "-"));
}
