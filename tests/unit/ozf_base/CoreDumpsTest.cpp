#include "ozf/base/CoreDumps.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sys/resource.h>

using Quillon::Tessarine::Ozf::setCoreDumps;

namespace
{

class CoreDumpsTest : public testing::Test
{
protected:
  CoreDumpsTest()
  {
    rlimit limit{};
    EXPECT_EQ(getrlimit(RLIMIT_CORE, &limit), 0);
    limit.rlim_cur = limit.rlim_max;
    EXPECT_EQ(setrlimit(RLIMIT_CORE, &limit), 0);
    EXPECT_NE(m_filter, NOTHING);
    EXPECT_NE(largest(), 0U);
  }
  ~CoreDumpsTest() override
  {
    std::string ignored;
    setCoreDumps(true, ignored);
    std::ofstream("/proc/self/coredump_filter") << "0x" + m_filter;
  }

  static rlim_t largest()
  {
    rlimit limit{};
    EXPECT_EQ(getrlimit(RLIMIT_CORE, &limit), 0);
    return limit.rlim_cur;
  }

  static std::string filter()
  {
    std::string text;
    std::getline(std::ifstream("/proc/self/coredump_filter"), text);
    return text;
  }

  static bool set(bool on, std::string const& expectedError = "")
  {
    std::string error;
    bool const done = setCoreDumps(on, error);
    EXPECT_EQ(error, expectedError);
    return done;
  }

  static constexpr char NOTHING[] = "00000000";
  std::string const m_filter = filter();
};

} // namespace

TEST_F(CoreDumpsTest, offLeavesNeitherACoreFileNorMemoryForWhoIsHandedIt)
{
  EXPECT_TRUE(set(false));
  EXPECT_EQ(largest(), 0U);
  EXPECT_EQ(filter(), NOTHING);
}

TEST_F(CoreDumpsTest, onIsAsItWasWhenTheProcessBegan)
{
  std::ofstream("/proc/self/coredump_filter") << "0x21";
  rlim_t const before = largest();
  EXPECT_TRUE(set(false));
  EXPECT_TRUE(set(false)) << "what was before stays known";
  EXPECT_TRUE(set(true));
  EXPECT_EQ(largest(), before);
  EXPECT_EQ(filter(), "00000021");
  EXPECT_TRUE(set(false));
  EXPECT_EQ(filter(), NOTHING) << "and off again";
}

TEST_F(CoreDumpsTest, onChangesNothingThatWasNotTurnedOff)
{
  std::ofstream("/proc/self/coredump_filter") << "0x7";
  rlim_t const before = largest();
  EXPECT_TRUE(set(true));
  EXPECT_EQ(largest(), before);
  EXPECT_EQ(filter(), "00000007");
}

TEST_F(CoreDumpsTest, whatTheSystemRefusesIsToldAndTheRestIsDone)
{
  std::string const before = filter();
  EXPECT_TRUE(set(false));
  rlimit const none{0, 0};
  ASSERT_EQ(setrlimit(RLIMIT_CORE, &none), 0);
  // What it was is beyond the bound now, for root as well.
  EXPECT_FALSE(set(true, "Invalid argument (22)"));
  EXPECT_EQ(filter(), before);
}
