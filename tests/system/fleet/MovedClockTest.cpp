// The clock that the fleets run by.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <time.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>

namespace
{

template <class Function>
Function ofFixture(Function, char const* name)
{
  static void* const fixture = dlopen(TQ_FIXTURE_DIR "/libclock_ahead.so", RTLD_NOW);
  EXPECT_NE(nullptr, fixture);
  return fixture == nullptr ? nullptr : reinterpret_cast<Function>(dlsym(fixture, name));
}

} // namespace

TEST(MovedClockTest, aSignalThatComesBetweenTwoLooksAtTheClockIsNotLost)
{
  auto* const timedWait = ofFixture(&pthread_cond_timedwait, "pthread_cond_timedwait");
  auto* const signal = ofFixture(&pthread_cond_signal, "pthread_cond_signal");
  ASSERT_TRUE(timedWait != nullptr && signal != nullptr);
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
  std::atomic<bool> waits = false;
  int result = ETIMEDOUT;
  pthread_mutex_lock(&mutex);
  std::jthread waiter(
      [&]
      {
        timespec deadline{};
        clock_gettime(CLOCK_REALTIME, &deadline);
        deadline.tv_sec += 30;
        pthread_mutex_lock(&mutex);
        waits = true;
        result = timedWait(&condition, &mutex, &deadline);
        pthread_mutex_unlock(&mutex);
      });
  pthread_mutex_unlock(&mutex);
  while (!waits)
    std::this_thread::yield();
  // It looks ten times a second, and then waits for the mutex.
  pthread_mutex_lock(&mutex);
  std::this_thread::sleep_for(std::chrono::seconds(1));
  signal(&condition);
  pthread_mutex_unlock(&mutex);
  waiter.join();
  EXPECT_EQ(0, result);
}
