// Waiting on a connection's socket by a clock that is not set.

#include "ozf/orb/PlainSocket.h"

#include "ozf/base/SystemError.h"
#include "ozf/orb/Deadline.h"

#include <gtest/gtest.h>

#include <sys/socket.h>

#include <array>
#include <string>
#include <thread>

namespace
{

using namespace Quillon::Tessarine::Ozf;
using Moment = std::chrono::steady_clock;
using std::chrono::milliseconds;

class PlainSocketTest : public testing::Test
{
protected:
  void SetUp() override
  {
    std::array<int, 2> ends{};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    m_here.reset(ends[0]);
    m_there.reset(ends[1]);
  }

  int receive(Moment::time_point deadline)
  {
    return receiveBefore(deadline, m_here.get(), m_bytes.data(), m_bytes.size());
  }

  UniqueFd m_here;
  UniqueFd m_there;
  std::array<char, 16> m_bytes{};
};

// So many seconds ahead of the time of day.
omni_time_t deadlineIn(long seconds)
{
  omni_time_t now;
  omni_thread::get_time(now);
  return {static_cast<unsigned long>(static_cast<long>(now.s) + seconds), now.ns};
}

} // namespace

TEST_F(PlainSocketTest, tellsBytesTheEndOfTheTimeAndOfTheConnectionApart)
{
  EXPECT_EQ(receive(Moment::now() + milliseconds(20)), 0);
  EXPECT_EQ(receive(Moment::now() - milliseconds(20)), 0);
  ASSERT_EQ(sendBefore(Moment::time_point::max(), m_there.get(), "abc", 3), 3);
  EXPECT_EQ(receive(Moment::time_point::max()), 3);
  m_there.reset();
  EXPECT_EQ(receive(Moment::time_point::max()), -1);
  EXPECT_EQ(sendBefore(Moment::time_point::max(), m_here.get(), "abc", 3), -1);
}

TEST_F(PlainSocketTest, waitsForAPeerThatReads)
{
  std::string const much(4 << 20, 'x');
  std::size_t sent = 0;
  int now = 0;
  while ((now = sendBefore(Moment::now() + milliseconds(20), m_here.get(), much.data(),
                           much.size())) > 0)
    sent += static_cast<std::size_t>(now);
  EXPECT_EQ(now, 0);
  EXPECT_GT(sent, 0U);
  std::thread reader(
      [this]
      {
        std::string bytes(1 << 20, '\0');
        EXPECT_GT(recv(m_there.get(), bytes.data(), bytes.size(), 0), 0);
      });
  EXPECT_GT(sendBefore(Moment::time_point::max(), m_here.get(), much.data(), much.size()), 0);
  reader.join();
}

TEST(DeadlineTest, oneOfBeforeTheClockWasSetBackIsReachedWithinTheLongestWait)
{
  auto const now = Moment::now();
  EXPECT_LE(steadyDeadline(deadlineIn(10L * 365 * 86400)),
            now + LONGEST_WAIT + std::chrono::seconds(60));
  auto const usual = steadyDeadline(deadlineIn(30));
  EXPECT_GT(usual, now + std::chrono::seconds(28));
  EXPECT_LT(usual, now + std::chrono::seconds(60));
  EXPECT_EQ(steadyDeadline({0, 0}), Moment::time_point::max());
}
