#include "ozf/base/OzfHostname.h"

#include <gtest/gtest.h>
#include <thread>
#include <unistd.h>

using namespace Quillon::Tessarine::Ozf;

TEST(OzfHostname, IsEmptyAtFirst)
{
  OzfHostname const name;
  EXPECT_TRUE(name.empty());
  EXPECT_EQ(name.exportNarrow(), "");
}

TEST(OzfHostname, TakesTheWholeTextWhenTheLengthIsNegative)
{
  OzfHostname name;
  EXPECT_TRUE(name.setHostname("master.example"));
  EXPECT_EQ(name.exportNarrow(), "master.example");
  EXPECT_EQ(name.toString().str(), "master.example");
}

TEST(OzfHostname, TakesNoMoreThanTheLengthGiven)
{
  OzfHostname name;
  EXPECT_TRUE(name.setHostname("master.example", 6));
  EXPECT_EQ(name.exportNarrow(), "master");
  EXPECT_TRUE(name.setHostname("short", 1000));
  EXPECT_EQ(name.exportNarrow(), "short");
}

TEST(OzfHostname, DropsSurroundingWhiteSpaceOnly)
{
  OzfHostname name;
  EXPECT_TRUE(name.setHostname(" \t my host \r\n"));
  EXPECT_EQ(name.exportNarrow(), "my host");
}

TEST(OzfHostname, AnEmptyResultLeavesTheNameUnset)
{
  OzfHostname name;
  ASSERT_TRUE(name.setHostname("before"));
  EXPECT_FALSE(name.setHostname(" \t\n"));
  EXPECT_TRUE(name.empty());
  EXPECT_FALSE(name.setHostname("before", 0));
  EXPECT_TRUE(name.empty());
}

TEST(OzfHostname, TheLocalNameIsTheSystemsUnlessOverridden)
{
  char system[257] = {};
  ASSERT_EQ(gethostname(system, sizeof system - 1), 0);
  OzfHostname name;
  ASSERT_TRUE(name.setLocal());
  EXPECT_EQ(name.exportNarrow(), system);

  OzfHostname::overrideLocal("client7");
  ASSERT_TRUE(name.setLocal());
  EXPECT_EQ(name.exportNarrow(), "client7");

  OzfHostname::overrideLocal("");
  ASSERT_TRUE(name.setLocal());
  EXPECT_EQ(name.exportNarrow(), system);
}

TEST(OzfHostname, TheLocalNameMayBeChangedWhileOthersReadIt)
{
  OzfHostname::overrideLocal("first");
  std::jthread writer(
      []
      {
        for (int i = 0; i < 1000; ++i)
          OzfHostname::overrideLocal(i % 2 == 0 ? "a-rather-long-host-name.example" : "first");
      });
  for (int i = 0; i < 1000; ++i)
  {
    OzfHostname name;
    ASSERT_TRUE(name.setLocal());
    ASSERT_TRUE(name.exportNarrow() == "first" ||
                name.exportNarrow() == "a-rather-long-host-name.example")
        << name.exportNarrow();
  }
}
