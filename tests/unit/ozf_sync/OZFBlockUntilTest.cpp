#include "ozf/sync/OZFBlockUntil.h"

#include "ozf/base/Report.h"
#include "ozf/sync/AutoDereference.h"

#include <atomic>
#include <chrono>
#include <future>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace Quillon::Tessarine::Ozf;
using namespace std::chrono_literals;

namespace
{

std::atomic<int> destroyed{0};

class Waiter : public virtual OZFRefCounted
{
protected:
  ~Waiter() override { ++destroyed; }
};

std::string reported;

} // namespace

TEST(OZFBlockUntil, IsOpenWhenNothingWasAdded)
{
  OZFBlockUntil barrier;
  EXPECT_TRUE(barrier.isOpen());
  barrier.wait();
}

TEST(OZFBlockUntil, OpensWithTheLastObject)
{
  destroyed = 0;
  OZFBlockUntil barrier;
  AutoDereference<Waiter> first(new Waiter);
  AutoDereference<Waiter> second(new Waiter);
  barrier.add(*first);
  barrier.add(*second);
  auto waited = std::async(std::launch::async, [&] { barrier.wait(); });
  first.reset();
  EXPECT_EQ(waited.wait_for(50ms), std::future_status::timeout);
  EXPECT_FALSE(barrier.isOpen());
  second.reset();
  EXPECT_EQ(waited.wait_for(30s), std::future_status::ready);
  EXPECT_EQ(destroyed, 2);
  EXPECT_TRUE(barrier.isOpen());
}

TEST(OZFBlockUntil, TheDestructorWaitsToo)
{
  auto barrier = std::make_unique<OZFBlockUntil>();
  AutoDereference<Waiter> object(new Waiter);
  barrier->add(*object);
  auto gone = std::async(std::launch::async, [&] { barrier.reset(); });
  EXPECT_EQ(gone.wait_for(50ms), std::future_status::timeout);
  object.reset();
  EXPECT_EQ(gone.wait_for(30s), std::future_status::ready);
}

TEST(OZFBlockUntil, AnObjectCountsOnce)
{
  setReportSink([](int, char const* operation, std::string const& text)
                { reported = std::string(operation) + ": " + text; });
  OZFBlockUntil barrier;
  OZFBlockUntil other;
  AutoDereference<Waiter> object(new Waiter);
  barrier.add(*object);
  EXPECT_EQ(reported, "");
  barrier.add(*object);
  EXPECT_EQ(reported, "OZFBlockUntil::add: The object belongs to a barrier already");
  other.add(*object);
  other.wait();
  object.reset();
  barrier.wait();
}

TEST(OZFBlockUntil, DoesNotWaitForAnObjectThatHasLeft)
{
  AutoDereference<Waiter> const left(new Waiter);
  AutoDereference<Waiter> gone(new Waiter);
  {
    OZFBlockUntil barrier;
    barrier.add(*left);
    barrier.add(*gone);
    OZFBlockUntil::leave(*left);
    EXPECT_FALSE(barrier.isOpen());
    gone.reset();
    EXPECT_TRUE(barrier.isOpen());
    OZFBlockUntil::leave(*left); // it belongs to none any more
    barrier.wait();
  }
}

TEST(OZFBlockUntil, MayGoAsSoonAsItOpened)
{
  destroyed = 0;
  for (int round = 0; round < 500; ++round)
  {
    auto barrier = std::make_unique<OZFBlockUntil>();
    std::vector<AutoDereference<Waiter>> objects;
    for (int i = 0; i < 3; ++i)
    {
      objects.emplace_back(new Waiter);
      barrier->add(*objects.back());
    }
    std::vector<std::jthread> threads;
    for (auto& object : objects)
      threads.emplace_back([held = std::move(object)]() mutable { held.reset(); });
    barrier->wait();
    barrier.reset();
    ASSERT_EQ(destroyed, 3 * (round + 1));
  }
}
