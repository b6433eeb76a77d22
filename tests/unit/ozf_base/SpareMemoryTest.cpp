#include "ozf/base/SpareMemory.h"

#include <gtest/gtest.h>

#include <future>
#include <new>

using namespace Quillon::Tessarine::Ozf;

namespace
{

// As operator new asks when there is no memory: whether it may try again.
bool getsMore()
{
  try
  {
    std::get_new_handler()();
    return true;
  }
  catch (std::bad_alloc const&)
  {
    return false;
  }
}

TEST(SpareMemory, GivesBackSoManyPiecesWhileItLives)
{
  {
    SpareMemory const spare;
    for (std::size_t i = 0; i < SpareMemory::PIECES; ++i)
      EXPECT_TRUE(getsMore()) << i;
    EXPECT_FALSE(getsMore());
  }
  EXPECT_FALSE(getsMore());
  SpareMemory const another;
  EXPECT_TRUE(getsMore());
}

TEST(SpareMemory, IsOfItsThreadAlone)
{
  SpareMemory const spare;
  EXPECT_FALSE(std::async(std::launch::async, getsMore).get());
  EXPECT_TRUE(getsMore());
}

long asked = 0;

TEST(SpareMemory, TheHandlerOfBeforeIsAskedWhereNothingIsSetAside)
{
  std::set_new_handler([] { ++asked; });
  {
    SpareMemory const spare;
    EXPECT_TRUE(getsMore());
    EXPECT_EQ(asked, 0);
  }
  EXPECT_TRUE(getsMore());
  EXPECT_EQ(asked, 1);
}

} // namespace
