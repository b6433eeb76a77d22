#include "ozf/sync/OzfLockable.h"

#include <gtest/gtest.h>
#include <thread>
#include <vector>

using namespace Quillon::Tessarine::Ozf;

namespace
{

class Counter : public OzfLockable
{
public:
  long value = 0;
};

} // namespace

TEST(OzfLockable, TheLockIsGranted)
{
  Counter const counter;
  LockableGuard const guard(counter);
  EXPECT_TRUE(guard.locked());
}

TEST(OzfLockable, AThreadMayTakeItAgain)
{
  Counter const counter;
  LockableGuard const outer(counter);
  LockableGuard const inner(counter);
  EXPECT_TRUE(inner.locked());
}

TEST(OzfLockable, ExcludesOtherThreadsUntilTheOutermostGuardIsGone)
{
  Counter counter;
  std::jthread other;
  {
    LockableGuard const outer(counter);
    other = std::jthread(
        [&]
        {
          LockableGuard const guard(counter);
          counter.value *= 10;
        });
    {
      LockableGuard const inner(counter);
      ++counter.value;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    ++counter.value;
  }
  other.join();
  EXPECT_EQ(counter.value, 20);
}

TEST(OzfLockable, NoIncrementIsLost)
{
  Counter counter;
  {
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i)
      threads.emplace_back(
          [&]
          {
            for (int turn = 0; turn < 10'000; ++turn)
            {
              LockableGuard const guard(counter);
              ++counter.value;
            }
          });
  }
  EXPECT_EQ(counter.value, 40'000);
}
