// The file of the log and of the audit log.

#include "ozf/log/RotatingFile.h"

#include "tests/support/TempDir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <sys/resource.h>
#include <sys/stat.h>

using namespace Quillon::Tessarine::Ozf;

namespace
{

unsigned modeOfFile(std::string const& path)
{
  struct stat status = {};
  EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777;
}

// As a disk that has room for that many bytes in a file.
class SmallDisk
{
public:
  explicit SmallDisk(rlim_t bytes)
  {
    std::signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &m_before);
    rlimit limit = m_before;
    limit.rlim_cur = bytes;
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
  }
  ~SmallDisk() { setrlimit(RLIMIT_FSIZE, &m_before); }
  SmallDisk(SmallDisk const&) = delete;
  SmallDisk& operator=(SmallDisk const&) = delete;

private:
  rlimit m_before{};
};

} // namespace

TEST(RotatingFile, WhatItMakesIsNotForOthersWhateverTheUmask)
{
  TempDir temp;
  mode_t const before = umask(0);
  RotatingFile file(temp / "made/deep/x.log");
  EXPECT_EQ(file.open(), 0);
  std::string const half(RotatingFile::SIZE / 2 + 1, 'x');
  EXPECT_EQ(file.append(half), 0);
  EXPECT_EQ(file.append(half), 0);
  umask(before);
  EXPECT_EQ(modeOfFile(temp / "made"), 0750u);
  EXPECT_EQ(modeOfFile(temp / "made/deep"), 0750u);
  EXPECT_EQ(modeOfFile(temp / "made/deep/x.log"), 0640u);
  EXPECT_EQ(modeOfFile(temp / "made/deep/x.1.log"), 0640u);
}

TEST(RotatingFile, TheModeOfOneThatIsThereIsTheAdministrators)
{
  TempDir temp;
  for (mode_t const mode : {0600, 0644})
  {
    writeText(temp / "x.log", "before\n");
    ASSERT_EQ(chmod((temp / "x.log").c_str(), mode), 0);
    RotatingFile file(temp / "x.log");
    EXPECT_EQ(file.append("line\n"), 0);
    EXPECT_EQ(modeOfFile(temp / "x.log"), mode);
    EXPECT_EQ(readText(temp / "x.log"), "before\nline\n");
  }
}

TEST(RotatingFile, WhatDoesNotFitIsNotWrittenInPart)
{
  TempDir temp;
  RotatingFile file(temp / "x.log");
  ASSERT_EQ(file.append("first\n"), 0);
  {
    SmallDisk const disk(10);
    EXPECT_EQ(file.append("second\n"), EFBIG);
    EXPECT_EQ(readText(temp / "x.log"), "first\n");
  }
  EXPECT_EQ(file.append("third\n"), 0);
  EXPECT_EQ(readText(temp / "x.log"), "first\nthird\n");
}

TEST(RotatingFile, AFifoThatNobodyReadsIsAnError)
{
  TempDir temp;
  ASSERT_EQ(mkfifo((temp / "fifo").c_str(), 0600), 0);
  RotatingFile file(temp / "fifo");
  EXPECT_EQ(file.open(), ENXIO);
  EXPECT_EQ(file.append("line\n"), ENXIO);
}

TEST(RotatingFile, KeepsWhatItHasWhereItCannotMakeRoom)
{
  TempDir temp;
  std::filesystem::create_directories(temp / "x.5.log/in the way");
  writeText(temp / "x.4.log", "old");
  RotatingFile file(temp / "x.log");
  std::string const half(RotatingFile::SIZE / 2 + 1, 'x');
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(file.append(half), 0);
  EXPECT_EQ(std::filesystem::file_size(temp / "x.log"), 3 * half.size());
}

TEST(RotatingFile, GoesOnInAFileThatSomebodyEmptied)
{
  TempDir temp;
  RotatingFile file(temp / "x.log");
  std::string const most(RotatingFile::SIZE - 1, 'x');
  ASSERT_EQ(file.append(most), 0);
  writeText(temp / "x.log", "");
  EXPECT_EQ(file.append("line\n"), 0);
  EXPECT_EQ(readText(temp / "x.log"), "line\n");
  EXPECT_FALSE(std::filesystem::exists(temp / "x.1.log"));
}
