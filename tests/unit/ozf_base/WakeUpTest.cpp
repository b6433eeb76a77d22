#include "ozf/base/WakeUp.h"

#include "ozf/base/SystemError.h"
#include "tests/unit/discovery/SystemCalls.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <fcntl.h>
#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>

using namespace Quillon::Tessarine::Ozf;

namespace
{

std::atomic<int> interrupts{0};

std::uint64_t countIn(int eventFd)
{
  std::uint64_t count = 0;
  return ::read(eventFd, &count, sizeof count) == sizeof count ? count : 0;
}

} // namespace

TEST(WakeUp, AddsOneAndKeepsErrno)
{
  UniqueFd const event(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  errno = EDOM;
  wakeUp(event.get());
  wakeUp(event.get());
  EXPECT_EQ(EDOM, errno);
  EXPECT_EQ(2U, countIn(event.get()));
}

TEST(WakeUp, ACounterAtItsEndStaysThere)
{
  UniqueFd const event(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  std::uint64_t const most = UINT64_MAX - 1;
  ASSERT_EQ(ssize_t(sizeof most), write(event.get(), &most, sizeof most));
  wakeUp(event.get());
  EXPECT_EQ(most, countIn(event.get()));
}

TEST(WakeUp, IsNotLostToWritesThatFail)
{
  UniqueFd const event(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  int failures = 0;
  SystemCalls const watched("anon_inode:[eventfd]",
                            [&](std::string const&) { return failures++ < 3 ? ENOSPC : 0; });
  wakeUp(event.get());
  EXPECT_EQ(4, failures);
  EXPECT_EQ(1U, countIn(event.get()));
}

TEST(WakeUp, IsNotLostToASignal)
{
  struct sigaction action
  {
  };
  action.sa_handler = [](int) { ++interrupts; }; // without SA_RESTART
  ASSERT_EQ(0, sigaction(SIGUSR1, &action, nullptr));
  // At its end a counter that may be waited for keeps the writer waiting.
  UniqueFd const event(eventfd(0, EFD_CLOEXEC));
  std::uint64_t const most = UINT64_MAX - 1;
  ASSERT_EQ(ssize_t(sizeof most), write(event.get(), &most, sizeof most));
  std::thread waker([&] { wakeUp(event.get()); });
  pthread_t const thread = waker.native_handle();
  while (interrupts < 100)
  {
    ASSERT_EQ(0, pthread_kill(thread, SIGUSR1));
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_EQ(most, countIn(event.get()));
  waker.join();
  UniqueFd const again(dup(event.get()));
  ASSERT_EQ(0, fcntl(again.get(), F_SETFL, O_NONBLOCK));
  EXPECT_EQ(1U, countIn(again.get()));
}
