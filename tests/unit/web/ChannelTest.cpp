// Answers on their way, and the threads that make them.

#include "web/Channel.h"
#include "web/ReaderPool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

using namespace Web;
using std::chrono::seconds;

namespace
{

std::string readAllOf(Channel& channel, Channel::Outcome& last)
{
  std::string text;
  char buffer[1000];
  for (;;)
  {
    std::size_t count = 0;
    std::promise<void> woken;
    last = channel.read(
        buffer, sizeof buffer, count, [] {}, [&woken] { woken.set_value(); });
    if (last == Channel::SOME)
      text.append(buffer, count);
    else if (last == Channel::NONE_YET)
      woken.get_future().wait();
    else
      return text;
  }
}

} // namespace

TEST(ChannelTest, WhatIsWrittenIsReadHoweverLongItIs)
{
  Channel channel(seconds(60));
  std::string const text(3 * Channel::MOST, 'x');
  std::thread writer(
      [&]
      {
        {
          ChannelStream stream(channel);
          stream << text << 5 << 'y' << std::flush;
        }
        channel.finish(true);
      });
  Channel::Outcome last{};
  EXPECT_EQ(readAllOf(channel, last), text + "5y");
  EXPECT_EQ(last, Channel::END);
  writer.join();
}

TEST(ChannelTest, AReaderThatTakesNothingOrGoesEndsTheWriter)
{
  Channel slow(seconds(0));
  ChannelStream stream(slow);
  EXPECT_THROW(stream << std::string(2 * Channel::MOST, 'x') << std::flush, Channel::Gone);
  Channel closed(seconds(60));
  closed.close();
  EXPECT_THROW(closed.write("x"), Channel::Gone);
}

// Often, since it cannot be seen whether the writer waits already.
TEST(ChannelTest, WhoGoesEndsTheWaitForRoom)
{
  for (int i = 0; i < 100 && !HasFailure(); ++i)
  {
    Channel channel(seconds(60));
    channel.write(std::string(Channel::MOST, 'x'));
    std::promise<void> begun;
    std::string why;
    std::thread writer(
        [&]
        {
          begun.set_value();
          try
          {
            channel.write("more");
          }
          catch (Channel::Gone const& gone)
          {
            why = gone.what();
          }
        });
    begun.get_future().wait();
    for (int j = 0; j < i; ++j)
      std::this_thread::yield();
    channel.close();
    writer.join();
    EXPECT_EQ(why, "the reader has gone");
  }
}

TEST(ChannelTest, WhatBreaksOffIsNoEnd)
{
  Channel channel(seconds(60));
  channel.write("half");
  channel.finish(false);
  Channel::Outcome last{};
  EXPECT_EQ(readAllOf(channel, last), "half");
  EXPECT_EQ(last, Channel::BROKEN);
}

TEST(ChannelTest, ATextHasItsLimit)
{
  LimitedText text(10);
  text << "12345" << 67;
  text << "890";
  EXPECT_EQ(text.take(), "1234567890");
  LimitedText less(10);
  less << "12345" << 678901;
  less << "";
  EXPECT_THROW(less.take(), std::length_error);
}

// All threads but one are the most that one peer can hold.
TEST(ReaderPoolTest, OnePeerLeavesAThreadToOthers)
{
  ReaderPool pool(3, seconds(60));
  pool.start();
  std::promise<void> release;
  std::shared_future<void> const released(release.get_future());
  std::atomic<int> held{0};
  for (int i = 0; i < 10; ++i)
    EXPECT_TRUE(pool.add("greedy",
                         [&, released](seconds)
                         {
                           ++held;
                           released.wait();
                         }));
  std::promise<void> other;
  EXPECT_TRUE(pool.add("other", [&other](seconds) { other.set_value(); }));
  EXPECT_EQ(other.get_future().wait_for(seconds(60)), std::future_status::ready);
  EXPECT_LE(held, 2);
  release.set_value();
  pool.stop();
  EXPECT_EQ(held, 10);
}

TEST(ReaderPoolTest, OnePeerCannotFillTheQueue)
{
  ReaderPool pool(1, seconds(60));
  std::size_t taken = 0;
  while (pool.add("greedy", [](seconds) {}))
    ++taken;
  EXPECT_EQ(taken, ReaderPool::MOST_OF_PEER);
  EXPECT_TRUE(pool.add("other", [](seconds) {}));
  pool.start();
}

TEST(ReaderPoolTest, WhatStillWaitsAtTheEndIsToldSo)
{
  ReaderPool pool(1, seconds(60));
  std::atomic<int> called{0};
  std::atomic<int> late{0};
  for (int i = 0; i < 5; ++i)
    pool.add("peer",
             [&](seconds left)
             {
               ++called;
               late += left.count() <= 0 ? 1 : 0;
             });
  std::thread stopping([&pool] { pool.stop(); });
  stopping.join();
  EXPECT_EQ(called, 0) << "there was no thread to call it";
  pool.start();
  pool.stop();
  EXPECT_EQ(called, 5);
  EXPECT_EQ(late, 5);
}
