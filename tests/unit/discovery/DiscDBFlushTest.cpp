#include "discovery/DiscDBFlush.h"

#include "tests/support/OtherProcess.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <future>
#include <semaphore>
#include <stdexcept>
#include <vector>

namespace
{

using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

// Flushes that wait until they are let go, and then give what they are told to.
class HeldFlushes
{
public:
  int operator()()
  {
    int const number = ++m_begun;
    m_go.acquire();
    if (number == m_throwing)
      throw std::runtime_error("the end");
    return number == m_failing ? EIO : 0;
  }
  void letGo() { m_go.release(); }
  int begun() const { return m_begun; }
  void fail(int number) { m_failing = number; }
  void throwAt(int number) { m_throwing = number; }

private:
  std::atomic<int> m_begun{0};
  std::atomic<int> m_failing{0};
  std::atomic<int> m_throwing{0};
  std::counting_semaphore<> m_go{0};
};

class FlushGroupTest : public testing::Test
{
protected:
  // The first flush is in progress, and so many want another.
  void comeWhileOneIsInProgress(std::size_t count)
  {
    m_first = std::async(std::launch::async, [this] { return m_group.flush(3); });
    ASSERT_TRUE(eventually([this] { return m_flushes.begun() == 1; }));
    for (std::size_t i = 0; i < count; ++i)
      m_others.push_back(std::async(std::launch::async, [this] { return m_group.flush(3); }));
    ASSERT_TRUE(eventually([&] { return m_group.waiting() == static_cast<long>(count); }));
  }

  HeldFlushes m_flushes;
  FlushGroup m_group{[this](int) { return m_flushes(); }};
  std::future<int> m_first;
  std::vector<std::future<int>> m_others;
};

TEST_F(FlushGroupTest, OneFlushServesAllWhoCameWhileAnotherWasInProgress)
{
  comeWhileOneIsInProgress(8);
  m_flushes.letGo();
  EXPECT_EQ(m_first.get(), 0);
  ASSERT_TRUE(eventually([this] { return m_flushes.begun() == 2; }))
      << "what began before they came serves none of them";
  for (auto& other : m_others)
    EXPECT_EQ(other.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  m_flushes.letGo();
  for (auto& other : m_others)
    EXPECT_EQ(other.get(), 0);
  EXPECT_EQ(m_flushes.begun(), 2);
  EXPECT_EQ(m_group.waiting(), 0);
}

TEST_F(FlushGroupTest, AFailureIsToldToAllWhomItWasToServeAndToNoOther)
{
  m_flushes.fail(2);
  comeWhileOneIsInProgress(4);
  m_flushes.letGo();
  EXPECT_EQ(m_first.get(), 0);
  ASSERT_TRUE(eventually([this] { return m_flushes.begun() == 2; }));
  auto late = std::async(std::launch::async, [this] { return m_group.flush(3); });
  ASSERT_TRUE(eventually([this] { return m_group.waiting() == 1; }));
  m_flushes.letGo();
  for (auto& other : m_others)
    EXPECT_EQ(other.get(), EIO);
  ASSERT_TRUE(eventually([this] { return m_flushes.begun() == 3; }));
  m_flushes.letGo();
  EXPECT_EQ(late.get(), 0);
}

// As by an exception, or the end of a plug-in's thread in the middle of it.
TEST(FlushGroup, AFlushThatEndsWithItsThreadLetsTheOthersGoOn)
{
  std::atomic<int> begun = 0;
  std::binary_semaphore go(0);
  FlushGroup group(
      [&](int)
      {
        if (++begun == 1)
        {
          go.acquire();
          throw std::runtime_error("the end");
        }
        return 0;
      });
  auto first = std::async(std::launch::async, [&] { return group.flush(3); });
  ASSERT_TRUE(eventually([&] { return begun == 1; }));
  auto second = std::async(std::launch::async, [&] { return group.flush(3); });
  ASSERT_TRUE(eventually([&] { return group.waiting() == 1; }));
  go.release();
  EXPECT_THROW(first.get(), std::runtime_error);
  EXPECT_EQ(0, second.get());
  EXPECT_EQ(2, begun);
}

TEST_F(FlushGroupTest, WhomAFlushThatThrewWasToServeIsToldOfAFailure)
{
  m_flushes.throwAt(2);
  comeWhileOneIsInProgress(4);
  m_flushes.letGo();
  EXPECT_EQ(m_first.get(), 0);
  ASSERT_TRUE(eventually([this] { return m_flushes.begun() == 2; }));
  m_flushes.letGo();
  int threw = 0;
  for (auto& other : m_others)
    try
    {
      EXPECT_EQ(other.get(), EINTR);
    }
    catch (std::runtime_error const&)
    {
      ++threw;
    }
  EXPECT_EQ(threw, 1);
  EXPECT_EQ(m_flushes.begun(), 2);
}

TEST(FlushGroup, TellsTheErrorOfTheSystem) { EXPECT_EQ(FlushGroup().flush(-1), EBADF); }

TEST(FlushGroup, IsOneForEachDirectory)
{
  EXPECT_EQ(&FlushGroup::of("/one"), &FlushGroup::of("/one"));
  EXPECT_NE(&FlushGroup::of("/one"), &FlushGroup::of("/two"));
}

} // namespace
