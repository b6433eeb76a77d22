#include "ozf/orb/OrbReactor.h"

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

namespace Quillon::Tessarine::Ozf
{

namespace
{

constexpr char SOURCE[] = "OrbReactor";
constexpr rlim_t MOST_DESCRIPTORS = 65536;

void logException(char const* what)
{
  OZF_LOG(getFrameworkLogger(), 1, SOURCE, "OrbReactor::loop",
          "Caught exception in an event handler: " << what);
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
  if (!m_thread.joinable())
    m_thread = std::thread([this] { loop(); });
}

void OrbReactor::stop()
{
  if (!m_thread.joinable())
    return;
  // The reactor's own flag for this is no atomic, and the loop reads it.
  m_stopping = true;
  m_reactor->notify();
  m_thread.join();
  m_reactor->end_reactor_event_loop();
}

void OrbReactor::loop()
{
  m_reactor->owner(ACE_OS::thr_self());
  while (!m_stopping)
  {
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
}

} // namespace Quillon::Tessarine::Ozf
