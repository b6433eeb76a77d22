#include "ozf/base/FileOwner.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <string>

using namespace Quillon::Tessarine::Ozf;

namespace
{

constexpr uid_t A_STRANGER = 12345;

struct stat somethingOf(uid_t owner, mode_t mode)
{
  struct stat status
  {
  };
  status.st_uid = owner;
  status.st_mode = mode;
  return status;
}

std::string reasonAgainst(struct stat const& status)
{
  std::string reason;
  bool const ours = isOnlyOurs("/a/path", status, reason);
  EXPECT_EQ(ours, reason.empty());
  return reason;
}

TEST(IsOnlyOurs, RootAndTheRunningUserAreTrusted)
{
  EXPECT_EQ("", reasonAgainst(somethingOf(0, S_IFREG | 0755)));
  EXPECT_EQ("", reasonAgainst(somethingOf(geteuid(), S_IFDIR | 0755)));
}

TEST(IsOnlyOurs, OtherUsersAreNot)
{
  EXPECT_EQ("/a/path belongs to user 12345, not to root or the running user",
            reasonAgainst(somethingOf(A_STRANGER, S_IFREG | 0600)));
}

TEST(IsOnlyOurs, NobodyElseMayWrite)
{
  char const* const refusal = "/a/path may be written to by others than its owner";
  EXPECT_EQ(refusal, reasonAgainst(somethingOf(0, S_IFREG | 0620)));
  EXPECT_EQ(refusal, reasonAgainst(somethingOf(0, S_IFREG | 0602)));
  EXPECT_EQ(refusal, reasonAgainst(somethingOf(geteuid(), S_IFDIR | S_ISVTX | 0777)))
      << "the sticky bit lets others add files";
}

} // namespace
