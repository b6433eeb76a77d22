#include "ozf/sync/OZFRefCounted.h"

#include <atomic>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

using namespace Quillon::Tessarine::Ozf;

namespace
{

class Probe : public virtual OZFRefCounted
{
public:
  explicit Probe(std::atomic<int>& gone) : m_gone(gone) {}

  long written = 0; // by many threads in turn, read by the destructor

protected:
  ~Probe() override { m_gone += written >= 0 ? 1 : 100; }

private:
  std::atomic<int>& m_gone;
};

} // namespace

TEST(OZFRefCounted, IsBornWithOneReference)
{
  std::atomic<int> gone{0};
  auto* const object = new Probe(gone);
  EXPECT_EQ(object->referenceCount(), 1);
  EXPECT_EQ(gone, 0);
  EXPECT_EQ(object->removeReference(), 0);
  EXPECT_EQ(gone, 1);
}

TEST(OZFRefCounted, GoesWithTheLastReference)
{
  std::atomic<int> gone{0};
  Probe const* const object = new Probe(gone);
  EXPECT_EQ(object->addReference(), 2);
  EXPECT_EQ(object->addReference(), 3);
  EXPECT_EQ(object->removeReference(), 2);
  EXPECT_EQ(object->removeReference(), 1);
  EXPECT_EQ(gone, 0);
  object->removeReference();
  EXPECT_EQ(gone, 1);
}

TEST(OZFRefCounted, CountsExactlyUnderManyThreads)
{
  std::atomic<int> gone{0};
  auto* const object = new Probe(gone);
  {
    std::vector<std::jthread> threads;
    for (int i = 0; i < 8; ++i)
      threads.emplace_back(
          [object]
          {
            for (int turn = 0; turn < 20'000; ++turn)
            {
              object->addReference();
              object->removeReference();
            }
          });
  }
  EXPECT_EQ(object->referenceCount(), 1);
  object->removeReference();
  EXPECT_EQ(gone, 1);
}

TEST(OZFRefCounted, TheLastOfManyThreadsDestroysOnce)
{
  std::atomic<int> gone{0};
  for (int round = 0; round < 200; ++round)
  {
    auto* const object = new Probe(gone);
    for (int i = 0; i < 3; ++i)
      object->addReference();
    std::atomic<int> turn{0};
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i)
      threads.emplace_back(
          [object, i, &turn]
          {
            while (turn != i)
              std::this_thread::yield();
            ++object->written;
            ++turn;
            object->removeReference();
          });
  }
  EXPECT_EQ(gone, 200);
}
