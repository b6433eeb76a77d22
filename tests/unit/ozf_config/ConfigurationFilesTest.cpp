// The files of tq.conf.d beside tq.conf.

#include "ozf/config/Configuration.h"

#include "tests/support/TempDir.h"
#include "tests/unit/discovery/SystemCalls.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

using namespace Quillon::Tessarine::Ozf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace
{

namespace fs = std::filesystem;

class ConfigurationFilesTest : public testing::Test
{
protected:
  ConfigurationFilesTest()
  {
    fs::create_directory(directory());
    writeText(path(), "SERVER = one\nORB_BIND = 127.0.0.1\n");
  }

  std::string path() const { return m_root / "tq.conf"; }
  std::string directory() const { return m_root / "tq.conf.d"; }
  std::string further(std::string const& name) const { return directory() + '/' + name; }
  Configuration read() const { return Configuration::read(path()); }

  // What is wrong, without the path that all files begin with.
  std::vector<std::string> mistakes() const
  {
    std::vector<std::string> texts;
    for (auto const& problem : read().check())
      texts.push_back(problem.text().substr(m_root.path().size() + 1));
    return texts;
  }

  // There is one mistake, and with it nothing of all this may be used.
  void expectUnreadable(std::string const& mistake)
  {
    auto const configuration = read();
    EXPECT_FALSE(configuration.readable());
    EXPECT_FALSE(configuration.missing()) << "it is there";
    EXPECT_THAT(mistakes(), ElementsAre(StartsWith(mistake)));
  }

  TempDir m_root;
};

TEST_F(ConfigurationFilesTest, AreReadBehindTheFileInTheOrderOfTheirNames)
{
  writeText(further("20-site.conf"), "SERVER = three\nORB_BIND = 127.0.0.3\n");
  writeText(further("10-site.conf"), "SERVER = two\nLOG_LEVEL = 4\nORB_BIND = 127.0.0.2\n");
  auto const configuration = read();
  EXPECT_TRUE(configuration.readable());
  EXPECT_THAT(configuration.check(), IsEmpty()) << "a later file may say it again";
  EXPECT_EQ(*configuration.find("SERVER"), "three");
  EXPECT_EQ(*configuration.find("LOG_LEVEL"), "4");
  EXPECT_THAT(configuration.list("ORB_BIND"), ElementsAre("127.0.0.1", "127.0.0.2", "127.0.0.3"));
  EXPECT_THAT(configuration.files(),
              ElementsAre(path(), further("10-site.conf"), further("20-site.conf")));
}

TEST_F(ConfigurationFilesTest, ALaterFileCountsForAHostWhateverTheCaseOfItsName)
{
  writeText(path(), "HOST_ADDRESS.Web = 127.0.0.1\n\n\n");
  writeText(further("a.conf"), "HOST_ADDRESS.WEB = 127.0.0.2\n");
  EXPECT_EQ(*read().findNamed("HOST_ADDRESS.", "web"), "127.0.0.2");
}

TEST_F(ConfigurationFilesTest, OtherNamesAreNotRead)
{
  for (char const* const name : {"README", "a.conf.dpkg-old", "b.conf~", ".c.conf", "d.CONF"})
    writeText(further(name), "nonsense\n");
  EXPECT_THAT(mistakes(), IsEmpty());
  EXPECT_THAT(read().files(), ElementsAre(path()));
}

TEST_F(ConfigurationFilesTest, MistakesNameTheirFileAndStandInTheOrderOfTheFiles)
{
  writeText(path(), "SERVER = one\nLOG_LEVEL = loud\n");
  writeText(further("b.conf"), "nonsense\n");
  writeText(further("a.conf"), "SERVER = two\nSERVER = three\nLOG_LEVEL = 9\n");
  EXPECT_THAT(
      mistakes(),
      ElementsAre(HasSubstr("tq.conf:2: \"LOG_LEVEL\" is \"loud\""),
                  HasSubstr("tq.conf.d/a.conf:2: \"SERVER\" is given again, first in line 1"),
                  HasSubstr("tq.conf.d/a.conf:3: \"LOG_LEVEL\" is \"9\""),
                  HasSubstr("tq.conf.d/b.conf:1: no '='")));
}

TEST_F(ConfigurationFilesTest, ADirectoryOfSuchANameIsAMistake)
{
  fs::create_directory(further("10-site.conf"));
  expectUnreadable("tq.conf.d/10-site.conf: not a regular file");
}

TEST_F(ConfigurationFilesTest, ALinkThatLeadsNowhereIsAMistake)
{
  fs::create_symlink("away", further("10-site.conf"));
  expectUnreadable("tq.conf.d/10-site.conf: cannot be read: No such file or directory");
  fs::remove_all(directory());
  fs::create_symlink("away", directory());
  expectUnreadable("tq.conf.d: cannot be listed: No such file or directory");
}

TEST_F(ConfigurationFilesTest, APipeOfSuchANameIsNotWaitedFor)
{
  ASSERT_EQ(mkfifo(further("10-site.conf").c_str(), 0600), 0);
  expectUnreadable("tq.conf.d/10-site.conf: not a regular file");
}

// Root may read everything, so it becomes somebody else for a moment.
TEST_F(ConfigurationFilesTest, WhatMayNotBeReadIsAMistake)
{
  constexpr uid_t NOBODY = 65534;
  bool const isRoot = geteuid() == 0;
  fs::permissions(m_root.path(), fs::perms(0755));
  fs::permissions(path(), fs::perms(0644));
  fs::permissions(directory(), fs::perms(0755));
  writeText(further("10-site.conf"), "SERVER = two\n");
  fs::permissions(further("10-site.conf"), fs::perms(0));
  ASSERT_TRUE(!isRoot || seteuid(NOBODY) == 0);
  expectUnreadable("tq.conf.d/10-site.conf: cannot be read: Permission denied");
  ASSERT_TRUE(!isRoot || seteuid(0) == 0);
  fs::permissions(directory(), fs::perms(0));
  ASSERT_TRUE(!isRoot || seteuid(NOBODY) == 0);
  expectUnreadable("tq.conf.d: cannot be listed: Permission denied");
  ASSERT_TRUE(!isRoot || seteuid(0) == 0);
  fs::permissions(directory(), fs::perms(0755));
}

TEST_F(ConfigurationFilesTest, AnythingButADirectoryInItsPlaceIsAMistake)
{
  fs::remove_all(directory());
  writeText(directory(), "SERVER = two\n");
  expectUnreadable("tq.conf.d: cannot be listed: Not a directory");
}

TEST_F(ConfigurationFilesTest, ADirectoryThatFailsWhileItIsListedIsAMistake)
{
  writeText(further("10-site.conf"), "SERVER = two\n");
  SystemCalls const calls(directory(),
                          [](std::string const& call) { return call == "readdir ." ? EIO : 0; });
  expectUnreadable("tq.conf.d: cannot be listed: Input/output error");
}

TEST_F(ConfigurationFilesTest, HoldAlsoWithoutTheFileThatIsAMistakeAllTheSame)
{
  fs::remove(path());
  writeText(further("10-site.conf"), "SERVER = two\n");
  EXPECT_EQ(*read().find("SERVER"), "two");
  EXPECT_TRUE(read().missing());
  EXPECT_FALSE(read().readable());
  EXPECT_THAT(mistakes(), ElementsAre(StartsWith("tq.conf: cannot be read: No such file")));
}

} // namespace
