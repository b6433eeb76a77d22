#include "ozf/base/OzfPathname.h"

#include "tests/support/TempDir.h"
#include "tests/unit/discovery/SystemCalls.h"

#include <cerrno>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

using namespace Quillon::Tessarine::Ozf;

TEST(OzfPathname, JoinsByExactlyOneSlash)
{
  EXPECT_EQ(OzfPathname::makeFilename("/a/b", "c").str(), "/a/b/c");
  EXPECT_EQ(OzfPathname::makeFilename("/a/b/", "c").str(), "/a/b/c");
  EXPECT_EQ(OzfPathname::makeFilename("/a/b//", "/c").str(), "/a/b/c");
  EXPECT_EQ(OzfPathname::makeFilename("/", "c").str(), "/c");
  EXPECT_EQ(OzfPathname::makeFilename("a", "c d").str(), "a/c d");
}

TEST(OzfPathname, JoiningWithNothingGivesTheOther)
{
  EXPECT_EQ(OzfPathname::makeFilename("/a/b", "").str(), "/a/b");
  EXPECT_EQ(OzfPathname::makeFilename("", "c").str(), "c");
  EXPECT_TRUE(OzfPathname::makeFilename("", "").empty());
}

TEST(OzfPathname, SplitsAtTheLastSlash)
{
  OzfPathname const path("/a/b/c.xml");
  EXPECT_EQ(path.directory(), "/a/b");
  EXPECT_EQ(path.filename(), "c.xml");
  EXPECT_EQ(OzfPathname("c.xml").directory(), ".");
  EXPECT_EQ(OzfPathname("c.xml").filename(), "c.xml");
  EXPECT_EQ(OzfPathname("/c").directory(), "/");
  EXPECT_EQ(OzfPathname("/c").filename(), "c");
}

TEST(Mkdirpath, MakesAllMissingParents)
{
  TempDir temp;
  EXPECT_EQ(mkdirpath(temp / "one/two//three/", 0755), 0);
  EXPECT_TRUE(std::filesystem::is_directory(temp / "one/two/three"));
}

TEST(Mkdirpath, IsContentWithWhatIsThere)
{
  TempDir temp;
  EXPECT_EQ(mkdirpath(temp.path(), 0755), 0);
  EXPECT_EQ(mkdirpath("/", 0755), 0);
}

TEST(Mkdirpath, GivesThePermissionsAsTheUmaskAllows)
{
  TempDir temp;
  mode_t const old = umask(022);
  EXPECT_EQ(mkdirpath(temp / "p/q", 0775), 0);
  umask(old);
  for (std::string const name : {"p", "p/q"})
  {
    struct stat found = {};
    ASSERT_EQ(stat((temp / name).c_str(), &found), 0);
    EXPECT_EQ(found.st_mode & 07777u, 0755u) << name;
  }
}

TEST(Mkdirpath, FollowsALinkToADirectory)
{
  TempDir temp;
  ASSERT_EQ(mkdir((temp / "real").c_str(), 0755), 0);
  ASSERT_EQ(symlink("real", (temp / "link").c_str()), 0);
  EXPECT_EQ(mkdirpath(temp / "link/sub", 0755), 0);
  EXPECT_TRUE(std::filesystem::is_directory(temp / "real/sub"));
}

TEST(Mkdirpath, RefusesAPartThatIsNoDirectory)
{
  TempDir temp;
  writeText(temp / "file", "x");
  EXPECT_EQ(mkdirpath(temp / "file", 0755), ENOTDIR);
  EXPECT_EQ(mkdirpath(temp / "file/sub", 0755), ENOTDIR);
  ASSERT_EQ(symlink("nowhere", (temp / "dangling").c_str()), 0);
  EXPECT_EQ(mkdirpath(temp / "dangling", 0755), ENOTDIR);
}

TEST(Mkdirpath, ReturnsTheReasonOfAFailure)
{
  EXPECT_EQ(mkdirpath("", 0755), ENOENT);
  TempDir temp;
  EXPECT_EQ(mkdirpath(temp / std::string(300, 'n'), 0755), ENAMETOOLONG);
  EXPECT_EQ(mkdirpath("/proc/nothing/here", 0755), ENOENT);
  EXPECT_EQ(mkdirpath(temp / std::string("cut\0off", 7), 0755), EINVAL);
  EXPECT_FALSE(std::filesystem::exists(temp / "cut"));
}

TEST(Mkdirpath, AFlushFailsUnlessTheFileSystemHasNone)
{
  for (auto const& [error, expected] : {std::pair{EIO, EIO}, {EINVAL, 0}, {ENOTSUP, 0}})
  {
    TempDir temp;
    SystemCalls const calls(temp.path(), [error = error](std::string const& call)
                            { return call == "fsync ." ? error : 0; });
    EXPECT_EQ(mkdirpath(temp / "one/two", 0755), expected) << error;
    EXPECT_TRUE(std::filesystem::is_directory(temp / "one/two")) << error;
  }
}
