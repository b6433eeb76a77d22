#include "scripts/ScriptFile.h"
#include "tests/support/Scripts.h"

#include <gmock/gmock.h>

#include <sys/stat.h>
#include <unistd.h>

using namespace Quillon::Tessarine::Ozf::Scripts;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using tqtest::writeShellScript;

namespace
{

class ScriptFileTest : public testing::Test
{
protected:
  std::vector<std::string> examine(std::string const& file)
  {
    ScriptFile script;
    EXPECT_TRUE(findScript(m_folder / file, script));
    Sidecar sidecar;
    return examineScript(script, sidecar);
  }

  std::vector<std::string> names()
  {
    std::vector<std::string> all;
    m_mistakes.clear();
    for (ScriptFile const& script : findScripts(m_folder.path(), m_mistakes))
      all.push_back(script.name);
    return all;
  }

  TempDir m_folder;
  std::vector<std::string> m_mistakes;
};

TEST_F(ScriptFileTest, executableFilesAreScriptsByTheirNamesLessAnExtension)
{
  for (char const* const file :
       {"disks.sh", "pools", "a.b.py", ".hidden", "old.sh~", "old.dpkg-old"})
    writeShellScript(m_folder / file, "true");
  writeText(m_folder / "README", "not one of them");
  writeText(m_folder / "disks.conf", "INTERVAL = 1m\n");
  writeText(m_folder / "gone.conf", "INTERVAL = 1m\n");
  std::filesystem::create_directory(m_folder / "folder");
  EXPECT_THAT(names(), ElementsAre("a.b", "disks", "pools"));
  EXPECT_THAT(m_mistakes, ElementsAre(HasSubstr("gone.conf describes a script that is not there")));
  EXPECT_THAT(examine("disks.sh"), IsEmpty());
}

TEST_F(ScriptFileTest, noFolderIsNoMistake)
{
  std::vector<std::string> mistakes;
  EXPECT_THAT(findScripts(m_folder / "nowhere", mistakes), IsEmpty());
  EXPECT_THAT(mistakes, IsEmpty());
  writeText(m_folder / "file", "");
  findScripts(m_folder / "file", mistakes);
  EXPECT_THAT(mistakes, ElementsAre(HasSubstr("file cannot be read: Not a directory")));
}

TEST_F(ScriptFileTest, theCheckThatFailedIsNamed)
{
  std::string const path = writeShellScript(m_folder / "disks.sh", "true");
  for (mode_t const mode : {0775U, 0757U})
  {
    chmod(path.c_str(), mode);
    EXPECT_THAT(examine("disks.sh"),
                ElementsAre(path + " may be written to by others than its owner"));
  }
  chmod(path.c_str(), 0644);
  EXPECT_THAT(examine("disks.sh"), ElementsAre(path + " is not executable"));
  chmod(path.c_str(), 0755);
  chmod(m_folder.path().c_str(), 0770);
  EXPECT_THAT(examine("disks.sh"),
              ElementsAre(m_folder.path() + " may be written to by others than its owner"));
  chmod(m_folder.path().c_str(), 0755);
  EXPECT_THAT(examine("disks.sh"), IsEmpty());
  if (geteuid() == 0) // nobody else can give a file away
  {
    chown(path.c_str(), 12345, 0);
    EXPECT_THAT(examine("disks.sh"), ElementsAre(HasSubstr(path + " belongs to user 12345")));
    chown(path.c_str(), 0, 0);
    chown(m_folder.path().c_str(), 12345, 0);
    EXPECT_THAT(examine("disks.sh"),
                ElementsAre(HasSubstr(m_folder.path() + " belongs to user 12345")));
    chown(m_folder.path().c_str(), 0, 0);
  }
}

TEST_F(ScriptFileTest, linksAndPipesAreNoScripts)
{
  std::string const path = writeShellScript(m_folder / "disks.sh", "true");
  symlink(path.c_str(), (m_folder / "link").c_str());
  symlink("/nowhere", (m_folder / "broken").c_str());
  mkfifo((m_folder / "pipe").c_str(), 0755);
  EXPECT_THAT(names(), ElementsAre("broken", "disks", "link", "pipe"));
  EXPECT_THAT(examine("link"), ElementsAre(HasSubstr("link is a link")));
  EXPECT_THAT(examine("broken"), ElementsAre(HasSubstr("broken is a link")));
  EXPECT_THAT(examine("pipe"), ElementsAre(HasSubstr("pipe is not a regular file")));
}

TEST_F(ScriptFileTest, theSidecarMustBeTrustedToo)
{
  writeShellScript(m_folder / "disks.sh", "true");
  writeText(m_folder / "disks.conf", "INTERVAL = 1m\n");
  chmod((m_folder / "disks.conf").c_str(), 0666);
  EXPECT_THAT(examine("disks.sh"),
              ElementsAre(HasSubstr("disks.conf may be written to by others")));
  unlink((m_folder / "disks.conf").c_str());
  symlink("/etc/passwd", (m_folder / "disks.conf").c_str());
  EXPECT_THAT(examine("disks.sh"), ElementsAre(HasSubstr("disks.conf is a link")));
}

TEST_F(ScriptFileTest, namesThatCannotBeStoredUnderAreRefused)
{
  writeShellScript(m_folder / "a*b", "true");
  writeShellScript(m_folder / "a\x1b", "true");
  writeShellScript(m_folder / "a\xff", "true");
  EXPECT_THAT(examine("a*b"), ElementsAre(HasSubstr("its name is a pattern")));
  EXPECT_THAT(examine("a\x1b"), ElementsAre(HasSubstr("cannot be shown")));
  EXPECT_THAT(examine("a\xff"), ElementsAre(HasSubstr("not UTF-8")));
}

TEST_F(ScriptFileTest, aFileThatWasReplacedSinceItWasFoundIsNotRun)
{
  std::string const path = writeShellScript(m_folder / "disks.sh", "true");
  ScriptFile script;
  ASSERT_TRUE(findScript(path, script));
  std::string mistake;
  EXPECT_TRUE(mayRun(script, mistake));
  writeShellScript(m_folder / "other", "true");
  std::filesystem::rename(m_folder / "other", path);
  EXPECT_FALSE(mayRun(script, mistake));
  EXPECT_EQ(mistake, path + " was changed or replaced meanwhile");
}

} // namespace
