#include "ozf/plugin/EngineContext.h"
#include "ozf/plugin/RuntimeLoader.h"
#include "tests/unit/ozf_plugin/PluginRoot.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <fcntl.h>
#include <iostream>
#include <sys/stat.h>
#include <unistd.h>

using namespace Quillon::Tessarine::Ozf;
using testing::HasSubstr;

namespace
{

std::string notToBeExamined;

int examine(char const* path, struct stat* status, int flags)
{
  if (path == notToBeExamined)
  {
    errno = EIO;
    return -1;
  }
  return fstatat(AT_FDCWD, path, status, flags);
}

} // namespace

// The library calls these instead of the system's.
#pragma GCC visibility push(default)
extern "C"
{
  int stat(char const* path, struct stat* status) { return examine(path, status, 0); }
  int lstat(char const* path, struct stat* status)
  {
    return examine(path, status, AT_SYMLINK_NOFOLLOW);
  }
}
#pragma GCC visibility pop

namespace
{

class FileTrustTest : public PluginRoot
{
protected:
  bool load(std::string const& path)
  {
    FixtureResolver resolver;
    return getEngineSingleton<RuntimeLoader>(m_context)->loadFile(path, resolver, false, 257);
  }

  // Refused, not loaded, and reported in one line at level 1 with the reason.
  void expectRefused(std::string const& path, std::string const& reason)
  {
    LogCapture const log;
    EXPECT_FALSE(load(path));
    EXPECT_FALSE(isLoaded(path));
    ASSERT_EQ(log.lines().size(), 1u) << log.text();
    EXPECT_EQ(log.lines()[0].level, 1);
    EXPECT_THAT(log.lines()[0].text, HasSubstr("Library " + path + " is refused, "));
    EXPECT_THAT(log.lines()[0].text, HasSubstr(reason));
  }

  EngineContext m_context = EngineContext::isolated();
};

TEST_F(FileTrustTest, OurOwnFileInOurOwnFolderIsTrusted)
{
  EXPECT_TRUE(load(addPlugin("tqplugin-good")));
}

TEST_F(FileTrustTest, AFileThatOthersMayWriteIsRefused)
{
  std::string const path = addPlugin("tqplugin-good");
  for (mode_t const mode : {0775u, 0757u})
  {
    ASSERT_EQ(chmod(path.c_str(), mode), 0);
    expectRefused(path, path + " may be written to by others");
  }
  ASSERT_EQ(chmod(path.c_str(), 0755), 0);
  EXPECT_TRUE(load(path));
}

TEST_F(FileTrustTest, AFolderThatOthersMayWriteIsRefusedAlsoWhenItIsSticky)
{
  std::string const path = addPlugin("tqplugin-good");
  for (mode_t const mode : {0775u, 0757u, 01777u})
  {
    ASSERT_EQ(chmod(plugins().c_str(), mode), 0);
    expectRefused(path, plugins() + " may be written to by others");
  }
}

TEST_F(FileTrustTest, ALinkIsJudgedByTheFileAndTheFolderItLeadsTo)
{
  std::filesystem::create_directory(m_root / "elsewhere");
  ASSERT_EQ(chmod((m_root / "elsewhere").c_str(), 0777), 0);
  copyFixture("tqplugin-good", m_root / "elsewhere/real.so");
  std::string const link = plugins() + "/libtqplugin-link.so";
  std::filesystem::create_symlink(m_root / "elsewhere/real.so", link);
  expectRefused(link, m_root / "elsewhere may be written to by others");
  ASSERT_EQ(chmod((m_root / "elsewhere").c_str(), 0755), 0);
  EXPECT_TRUE(load(link));
}

TEST_F(FileTrustTest, ALinkedFolderIsFollowedToo)
{
  addPlugin("tqplugin-good");
  ASSERT_EQ(chmod(plugins().c_str(), 0777), 0);
  std::filesystem::create_directory_symlink(plugins(), m_root / "lib/linked");
  expectRefused(m_root / "lib/linked/libtqplugin-good.so",
                plugins() + " may be written to by others");
}

TEST_F(FileTrustTest, ALinkToNowhereIsRefused)
{
  std::string const link = plugins() + "/libtqplugin-link.so";
  std::filesystem::create_symlink(m_root / "nothing", link);
  expectRefused(link, "cannot be followed: No such file");
}

TEST_F(FileTrustTest, WhatCannotBeExaminedIsRefused)
{
  std::string const path = addPlugin("tqplugin-good");
  std::string const folder = path.substr(0, path.rfind('/'));
  for (std::string const& each : {folder, path})
  {
    LogCapture const log;
    notToBeExamined = each;
    bool const loaded = load(path);
    notToBeExamined.clear();
    EXPECT_FALSE(loaded);
    EXPECT_THAT(log.text(), HasSubstr(each + " cannot be examined: Input/output error"));
  }
  EXPECT_TRUE(load(path));
}

TEST_F(FileTrustTest, AFolderInPlaceOfALibraryIsRefused)
{
  std::string const path = plugins() + "/libtqplugin-folder.so";
  std::filesystem::create_directory(path);
  expectRefused(path, "is not a regular file");
}

TEST_F(FileTrustTest, APipeIsRefusedWithoutWaitingForAWriter)
{
  std::string const path = plugins() + "/libtqplugin-pipe.so";
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  expectRefused(path, "is not a regular file");
}

TEST_F(FileTrustTest, TextIsNoLibrary)
{
  std::string const path = plugins() + "/libtqplugin-text.so";
  for (std::string const text : {"", "#!/bin/sh\n",
                                 "\x7f"
                                 "EL"})
  {
    writeText(path, text);
    ASSERT_EQ(chmod(path.c_str(), 0644), 0);
    expectRefused(path, "is not a library");
  }
}

// Whatever the length of what was copied, the process lives.
TEST_F(FileTrustTest, ALibraryThatIsCutShortIsRefused)
{
  std::string const whole = readText(addPlugin("tqplugin-good"));
  std::string const path = plugins() + "/libtqplugin-part.so";
  for (std::size_t const size : {4ul, 63ul, 64ul, 200ul, 4096ul})
  {
    ASSERT_LT(size, whole.size());
    writeText(path, whole.substr(0, size));
    ASSERT_EQ(chmod(path.c_str(), 0644), 0);
    expectRefused(path, "is cut short, damaged or made for another machine");
  }
}

TEST_F(FileTrustTest, ADamagedHeaderIsRefused)
{
  std::string bytes = readText(addPlugin("tqplugin-good"));
  std::string const path = plugins() + "/libtqplugin-damaged.so";
  for (std::size_t i = 32; i < 40; ++i)
    bytes[i] = '\xff';
  writeText(path, bytes);
  ASSERT_EQ(chmod(path.c_str(), 0644), 0);
  expectRefused(path, "is cut short, damaged");
}

constexpr uid_t OTHER_USER = 12345;

TEST_F(FileTrustTest, AFileOrFolderOfAnotherUserIsRefused)
{
  if (geteuid() != 0)
  {
    std::cout << "Needs root, who alone gives files away; the tests of the modes run without.\n";
    return;
  }
  std::string const path = addPlugin("tqplugin-good");
  ASSERT_EQ(chown(path.c_str(), OTHER_USER, 0), 0);
  expectRefused(path, path + " belongs to user 12345");
  ASSERT_EQ(chown(path.c_str(), 0, 0), 0);
  ASSERT_EQ(chown(plugins().c_str(), OTHER_USER, 0), 0);
  expectRefused(path, plugins() + " belongs to user 12345");
}

TEST_F(FileTrustTest, TheRunningUsersFileInRootsFolderIsTrusted)
{
  std::string const path = addPlugin("tqplugin-good");
  if (geteuid() != 0)
  {
    std::cout << "Needs root to become another user; runs with the present user's file.\n";
    EXPECT_TRUE(load(path));
    return;
  }
  ASSERT_EQ(chmod(m_root.path().c_str(), 0755), 0);
  ASSERT_EQ(chown(path.c_str(), OTHER_USER, 0), 0);
  ASSERT_EQ(seteuid(OTHER_USER), 0);
  bool const loaded = load(path);
  ASSERT_EQ(seteuid(0), 0);
  EXPECT_TRUE(loaded);
}

} // namespace
