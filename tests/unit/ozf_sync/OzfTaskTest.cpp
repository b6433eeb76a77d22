#include "ozf/sync/OzfTask.h"

#include "ozf/base/Report.h"

#include <ace/Thread_Manager.h>
#include <atomic>
#include <functional>
#include <future>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>

using namespace Quillon::Tessarine::Ozf;

namespace
{

class Task : public OzfTask
{
public:
  explicit Task(std::function<int()> body) : m_body(std::move(body)) {}

protected:
  int ozfsvc() override { return m_body(); }

private:
  std::function<int()> m_body;
};

std::string ended;

void collectReports()
{
  ended.clear();
  setReportSink([](int level, char const* operation, std::string const& text)
                { ended = std::to_string(level) + " " + operation + ": " + text; });
}

} // namespace

TEST(OzfTask, RunsItsBodyInAThreadOfItsOwn)
{
  std::atomic<bool> elsewhere{false};
  auto const here = ACE_Thread::self();
  Task task(
      [&]
      {
        elsewhere = ACE_OS::thr_equal(ACE_Thread::self(), here) == 0;
        return 0;
      });
  ASSERT_EQ(task.activate(), 0);
  EXPECT_EQ(task.thr_mgr()->wait_task(&task), 0);
  EXPECT_TRUE(elsewhere);
}

TEST(OzfTask, IsRunningWhileAThreadIs)
{
  std::promise<void> started;
  std::promise<void> finish;
  Task task(
      [&]
      {
        started.set_value();
        finish.get_future().wait();
        return 0;
      });
  EXPECT_FALSE(task.running());
  ASSERT_EQ(task.activate(), 0);
  started.get_future().wait();
  EXPECT_TRUE(task.running());
  finish.set_value();
  EXPECT_EQ(task.wait(), 0);
  EXPECT_FALSE(task.running());
}

TEST(OzfTask, MayRunAgain)
{
  std::atomic<int> runs{0};
  Task task([&] { return ++runs, 0; });
  for (int i = 0; i < 3; ++i)
  {
    ASSERT_EQ(task.activate(), 0);
    ASSERT_EQ(task.wait(), 0);
  }
  EXPECT_EQ(runs, 3);
}

TEST(OzfTask, RunsAsManyThreadsAsItIsAskedFor)
{
  std::atomic<int> runs{0};
  Task task([&] { return ++runs, 0; });
  ASSERT_EQ(task.activate(THR_NEW_LWP | THR_JOINABLE, 4), 0);
  ASSERT_EQ(task.wait(), 0);
  EXPECT_EQ(runs, 4);
}

TEST(OzfTask, ReportsAnExceptionAndEndsTheThread)
{
  collectReports();
  Task task([]() -> int { throw std::runtime_error("no such thing"); });
  ASSERT_EQ(task.activate(), 0);
  ASSERT_EQ(task.wait(), 0);
  EXPECT_EQ(ended, "1 OzfTask::svc: A task ended by an exception: no such thing");
  EXPECT_FALSE(task.running());
}

TEST(OzfTask, ReportsAnExceptionOfUnknownType)
{
  collectReports();
  Task task([]() -> int { throw 42; });
  ASSERT_EQ(task.activate(), 0);
  ASSERT_EQ(task.wait(), 0);
  EXPECT_EQ(ended, "1 OzfTask::svc: A task ended by an exception of unknown type");
}
