#include "ozf/base/Replaceable.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace
{

using Quillon::Tessarine::Ozf::Replaceable;

struct Pair
{
  explicit Pair(int value) : first(value), second(value) { ++alive; }
  ~Pair()
  {
    first = -1;
    --alive;
  }
  Pair(Pair const&) = delete;
  Pair& operator=(Pair const&) = delete;

  int first;
  int second;
  static std::atomic<int> alive;
};
std::atomic<int> Pair::alive{0};

TEST(Replaceable, HoldsNothingAtFirst) { EXPECT_EQ(Replaceable<Pair>().get(), nullptr); }

TEST(Replaceable, WhoeverHasGotSomethingKeepsIt)
{
  Replaceable<Pair> place(std::make_shared<Pair const>(1));
  auto const before = place.get();
  place.replace(std::make_shared<Pair const>(2));
  EXPECT_EQ(before->first, 1);
  EXPECT_EQ(place.get()->first, 2);
}

// ThreadSanitizer sees in it what a test cannot.
TEST(Replaceable, IsLookedAtWholeWhileItIsReplaced)
{
  constexpr int LAST = 20000;
  {
    Replaceable<Pair> place(std::make_shared<Pair const>(0));
    std::atomic<int> wrong{0};
    std::vector<std::thread> readers;
    for (int i = 0; i < 3; ++i)
      readers.emplace_back(
          [&]
          {
            for (int seen = 0; seen != LAST;)
            {
              auto const pair = place.get();
              if (pair->first != pair->second || pair->first < seen)
                ++wrong;
              seen = pair->first;
            }
          });
    for (int i = 1; i <= LAST; ++i)
      place.replace(std::make_shared<Pair const>(i));
    for (auto& reader : readers)
      reader.join();
    EXPECT_EQ(wrong, 0);
  }
  EXPECT_EQ(Pair::alive, 0);
}

} // namespace
