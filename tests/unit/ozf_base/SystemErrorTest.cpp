#include "ozf/base/SystemError.h"

#include "tests/support/TempDir.h"
#include "tests/unit/discovery/SystemCalls.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

using namespace Quillon::Tessarine::Ozf;

namespace
{

bool isOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

} // namespace

TEST(ErrorText, NamesTheErrorAndItsNumber)
{
  EXPECT_EQ(errorText(ENOENT), "No such file or directory (2)");
  EXPECT_NE(errorText(12345).find("(12345)"), std::string::npos);
}

TEST(ErrnoKeeper, RestoresErrno)
{
  errno = EBUSY;
  {
    ErrnoKeeper keeper;
    errno = ENOENT;
  }
  EXPECT_EQ(errno, EBUSY);
}

TEST(UniqueFd, ClosesWhatItOwnsAndKeepsErrno)
{
  int raw = -1;
  {
    UniqueFd const fd(open("/dev/null", O_RDONLY | O_CLOEXEC));
    ASSERT_TRUE(fd.valid());
    raw = fd.get();
    errno = EBUSY;
  }
  EXPECT_EQ(errno, EBUSY);
  EXPECT_FALSE(isOpen(raw));
}

TEST(UniqueFd, MovesOwnership)
{
  UniqueFd first(open("/dev/null", O_RDONLY | O_CLOEXEC));
  int const raw = first.get();
  UniqueFd second(std::move(first));
  EXPECT_EQ(second.get(), raw);

  UniqueFd third(open("/dev/null", O_RDONLY | O_CLOEXEC));
  int const replaced = third.get();
  third = std::move(second);
  EXPECT_EQ(third.get(), raw);
  EXPECT_FALSE(isOpen(replaced));

  EXPECT_EQ(third.release(), raw);
  EXPECT_FALSE(third.valid());
  EXPECT_TRUE(isOpen(raw));
  close(raw);
}

TEST(UniqueFd, ResettingToItsOwnDescriptorKeepsItOpen)
{
  UniqueFd fd(open("/dev/null", O_RDONLY | O_CLOEXEC));
  int const raw = fd.get();
  fd.reset(raw);
  EXPECT_TRUE(isOpen(raw));
}

TEST(ReadFile, AppendsTheWholeFile)
{
  TempDir temp;
  std::string const content(100'000, 'c');
  writeText(temp / "file", content);
  std::string text = "before ";
  EXPECT_EQ(readFile(temp / "file", text, 100'000), 0);
  EXPECT_EQ(text, "before " + content);
}

TEST(ReadFile, RefusesMoreThanTheLimitAndLeavesTheTextAlone)
{
  TempDir temp;
  writeText(temp / "file", std::string(100'001, 'c'));
  std::string text = "before";
  EXPECT_EQ(readFile(temp / "file", text, 100'000), EFBIG);
  EXPECT_EQ(text, "before");
  EXPECT_EQ(readFile(temp / "file", text, 0), EFBIG);
}

TEST(ReadFile, ReturnsTheReasonOfAFailure)
{
  TempDir temp;
  std::string text = "before";
  EXPECT_EQ(readFile(temp / "missing", text, 10), ENOENT);
  EXPECT_EQ(readFile(temp.path(), text, 10), EISDIR);
  EXPECT_EQ(text, "before");
}

TEST(ReadAll, StartsAtTheDescriptorsPosition)
{
  TempDir temp;
  writeText(temp / "file", "0123456789");
  UniqueFd const fd(open((temp / "file").c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(lseek(fd.get(), 7, SEEK_SET), 7);
  std::string text;
  EXPECT_EQ(readAll(fd.get(), text, 3), 0);
  EXPECT_EQ(text, "789");
  EXPECT_EQ(readAll(-1, text, 3), EBADF);
}

TEST(ReadAll, GoesOnAfterASignal)
{
  TempDir temp;
  writeText(temp / "file", "0123456789");
  int interruptions = 2;
  SystemCalls const calls(temp.path(), [&](std::string const& call)
                          { return call == "read file" && interruptions-- > 0 ? EINTR : 0; });
  std::string text;
  EXPECT_EQ(readFile(temp / "file", text, 10), 0);
  EXPECT_EQ(text, "0123456789");
  EXPECT_LT(interruptions, 0) << "what is read did not pass here";
}
