// Whose files are used, of those that a configuration names.

#include "ozf/config/TrustedFile.h"
#include "tests/support/TempDir.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

using namespace Quillon::Tessarine::Ozf;

namespace
{

constexpr uid_t SOMEBODY = 12345;

class TrustedFileTest : public testing::Test
{
protected:
  TrustedFileTest()
  {
    for (char const* folder : {"live", "archive"})
      std::filesystem::create_directory(m_files / folder);
    writeText(m_files / "archive/key1", "");
    std::filesystem::create_symlink("../archive/key1", m_files / "live/key");
    setenv("TESSARINE_ROOT", (m_files / "root").c_str(), 1);
  }
  ~TrustedFileTest() override { unsetenv("TESSARINE_ROOT"); }

  void setMode(std::string const& name, mode_t mode) const
  {
    ASSERT_EQ(chmod((m_files / name).c_str(), mode), 0);
  }

  // Why the file is not trusted that the link leads to; empty when it is.
  std::string doubt() const
  {
    std::string reason;
    bool const others = othersMayChange(m_files / "live/key", reason);
    EXPECT_EQ(others, !reason.empty());
    return reason;
  }

  static constexpr char WRITTEN[] = " may be written to by others than its owner";
  TempDir m_files;
};

} // namespace

TEST_F(TrustedFileTest, aLinkToAFileThatItsGroupMayReadIsInOrder)
{
  setMode("archive/key1", 0640);
  setMode("archive", 0750);
  EXPECT_EQ(doubt(), "");
}

TEST_F(TrustedFileTest, theFileThatALinkLeadsToIsForItsOwnerAloneToWrite)
{
  for (mode_t const mode : {0602, 0660})
  {
    setMode("archive/key1", mode);
    EXPECT_EQ(doubt(), m_files / "archive/key1" + WRITTEN);
  }
}

TEST_F(TrustedFileTest, soAreTheFoldersOfTheFileAndOfTheLink)
{
  setMode("archive", 0777);
  EXPECT_EQ(doubt(), m_files / "archive/" + WRITTEN);
  setMode("archive", 0755);
  setMode("live", 0770);
  EXPECT_EQ(doubt(), m_files / "live/" + WRITTEN);
}

TEST_F(TrustedFileTest, nobodyReplacesTheFilesOfOthersInAFolderWithTheStickyBit)
{
  setMode("live", 01777);
  EXPECT_EQ(doubt(), "");
}

TEST_F(TrustedFileTest, whatIsNotThereIsLeftToWhoOpensIt)
{
  std::filesystem::remove(m_files / "archive/key1");
  setMode("live", 0777);
  EXPECT_EQ(doubt(), "");
}

TEST_F(TrustedFileTest, theUserOfTheServiceIsTrustedAsRootIs)
{
  if (geteuid() != 0)
    GTEST_SKIP() << "only root can give files away; FileOwnerTest judges owners without";
  auto const give = [this](std::string const& name)
  { ASSERT_EQ(lchown((m_files / name).c_str(), SOMEBODY, 0), 0); };
  std::string const owned = " belongs to user 12345, not to root or the running user";
  give("live/key");
  EXPECT_EQ(doubt(), m_files / "live/key" + owned);
  std::filesystem::create_directories(m_files / "root/db");
  EXPECT_EQ(doubt(), m_files / "live/key" + owned);
  give("root/db");
  EXPECT_EQ(doubt(), "");
  give("archive/key1");
  give("archive");
  EXPECT_EQ(doubt(), "");
}
