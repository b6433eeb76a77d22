#include "ozf/orb/OrbReactor.h"

#include "ozf/base/LineIfMemory.h"
#include "ozf/base/OzfObjTime.h"
#include "ozf/base/SystemError.h"
#include "ozf/log/Assertion.h"
#include "ozf/log/FrameworkLogger.h"

#include <ace/Dev_Poll_Reactor.h>
#include <ace/Event_Handler_Handle_Timeout_Upcall.h>
#include <ace/Monotonic_Time_Policy.h>
#include <ace/Recursive_Thread_Mutex.h>
#include <ace/Timer_Heap_T.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <system_error>

namespace Quillon::Tessarine::Ozf
{

namespace
{

constexpr char SOURCE[] = "OrbReactor";
constexpr rlim_t MOST_DESCRIPTORS = 65536;

// Without memory too: the loop goes on.
void logException(char const* what) noexcept
{
  lineIfMemory(
      [what]
      {
        OZF_LOG(getFrameworkLogger(), 1, SOURCE, "OrbReactor::loop",
                "Caught exception in an event handler: " << what);
      });
}

class GuardedTimeout : public ACE_Event_Handler_Handle_Timeout_Upcall
{
public:
  int timeout(ACE_Timer_Queue& queue, ACE_Event_Handler* handler, void const* act, int recurring,
              ACE_Time_Value const&)
  {
    OzfObjTime const now = OzfObjTime::now();
    try
    {
      return ACE_Event_Handler_Handle_Timeout_Upcall::timeout(
          queue, handler, act, recurring,
          ACE_Time_Value(now.seconds(), static_cast<suseconds_t>(now.microseconds())));
    }
    catch (AssertionFailure const&)
    {
      // Logged where it failed.
    }
    catch (std::exception const& exception)
    {
      logException(exception.what());
    }
    catch (...)
    {
      logException("of unknown type");
    }
    // What the call above does at its end: a timer that fires once has let go
    // of its handler then. Without this the handler would live for ever.
    if (recurring == 0 && handler->reference_counting_policy().value() ==
                              ACE_Event_Handler::Reference_Counting_Policy::ENABLED)
      handler->remove_reference();
    return 0;
  }
};

using MonotonicHeap = ACE_Timer_Heap_T<ACE_Event_Handler*, GuardedTimeout,
                                       ACE_SYNCH_RECURSIVE_MUTEX, ACE_Monotonic_Time_Policy>;

// The reactor's table of handles is indexed by descriptor number.
std::size_t tableSize()
{
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
    return 1024;
  return std::min(limit.rlim_cur, MOST_DESCRIPTORS);
}

} // namespace

OrbReactor::OrbReactor(ACE_Timer_Queue* timerQueue)
    : m_ownQueue(timerQueue == nullptr ? new MonotonicHeap : nullptr),
      m_reactor(new ACE_Reactor(
          new ACE_Dev_Poll_Reactor(tableSize(), false, nullptr,
                                   timerQueue == nullptr ? m_ownQueue.get() : timerQueue),
          true))
{
}

OrbReactor::~OrbReactor() { stop(); }

void OrbReactor::start()
{
  std::lock_guard const guard(m_threadsMutex);
  if (m_thread.joinable())
    return;
  m_left = std::make_shared<std::atomic<bool>>(false);
  m_thread = std::thread(
      [this, left = m_left]
      {
        loop(0);
        *left = true;
      });
}

void OrbReactor::stop()
{
  std::list<Relieved> threads;
  {
    std::lock_guard const guard(m_threadsMutex);
    if (!m_thread.joinable())
      return;
    // The reactor's own flag for this is no atomic, and the loop reads it.
    m_stopping = true;
    threads.swap(m_relieved);
    threads.push_back({std::move(m_thread), m_left});
  }
  {
    std::lock_guard const guard(m_answerMutex);
  }
  m_answer.notify_all();
  m_reactor->notify();
  for (Relieved& relieved : threads)
    relieved.thread.join();
  m_reactor->end_reactor_event_loop();
}

bool OrbReactor::relieve()
{
  std::lock_guard const guard(m_threadsMutex);
  if (m_stopping || !m_thread.joinable())
    return false;
  for (auto relieved = m_relieved.begin(); relieved != m_relieved.end();)
  {
    if (!*relieved->left)
    {
      ++relieved;
      continue;
    }
    relieved->thread.join();
    relieved = m_relieved.erase(relieved);
  }
  auto const left = std::make_shared<std::atomic<bool>>(false);
  unsigned const turn = m_turn + 1;
  try
  {
    std::thread next(
        [this, left, turn]
        {
          loop(turn);
          *left = true;
        });
    m_relieved.push_back({std::move(m_thread), m_left});
    m_thread = std::move(next);
    m_left = left;
  }
  catch (std::system_error const& error)
  {
    OZF_LOG(getFrameworkLogger(), 1, SOURCE, "OrbReactor::relieve",
            "Unable to start another thread for the event loop: " << error.what());
    return false;
  }
  m_allowedUntil = 0;
  m_turn = turn;
  return true;
}

void OrbReactor::allow(std::chrono::milliseconds time) noexcept
{
  m_allowedUntil = (Clock::now() + time).time_since_epoch().count();
}

bool OrbReactor::isAllowed() const noexcept
{
  return Clock::now().time_since_epoch().count() < m_allowedUntil;
}

bool OrbReactor::isTurning(std::chrono::milliseconds time)
{
  if (isAllowed())
    return true;
  unsigned const asked = ++m_asked;
  wakeLoop();
  std::unique_lock lock(m_answerMutex);
  return m_answer.wait_for(
             lock, time, [&] { return m_stopping || static_cast<int>(m_answered - asked) >= 0; }) ||
         isAllowed();
}

void OrbReactor::wakeLoop()
{
  ACE_Time_Value immediately = ACE_Time_Value::zero;
  m_reactor->notify(nullptr, ACE_Event_Handler::EXCEPT_MASK, &immediately);
}

void OrbReactor::noteTurn()
{
  unsigned const asked = m_asked;
  if (m_answered == asked)
    return;
  {
    std::lock_guard const guard(m_answerMutex);
    m_answered = asked;
  }
  m_answer.notify_all();
}

void OrbReactor::loop(unsigned turn)
{
  m_reactor->owner(ACE_OS::thr_self());
  // The one who begins may be here before its turn is told.
  while (!m_stopping && static_cast<int>(m_turn - turn) <= 0)
  {
    noteTurn();
    try
    {
      if (m_reactor->handle_events() >= 0 || m_stopping || errno == EINTR)
        continue;
      OZF_LOG(getFrameworkLogger(), 1, SOURCE, "OrbReactor::loop",
              "Event loop failed: " << errorText(errno));
      std::this_thread::sleep_for(std::chrono::seconds(1));
    }
    catch (AssertionFailure const&)
    {
    }
    catch (std::exception const& exception)
    {
      logException(exception.what());
    }
    catch (...)
    {
      logException("of unknown type");
    }
  }
  // What woke this thread may have been for the one that waits behind it.
  wakeLoop();
}

} // namespace Quillon::Tessarine::Ozf
