// The end of the program, as its threads see it.

#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace Publish
{

// Any thread.
class Stop
{
public:
  void request()
  {
    {
      std::lock_guard const guard(m_mutex);
      m_requested = true;
    }
    m_changed.notify_all();
  }

  bool requested() const
  {
    std::lock_guard const guard(m_mutex);
    return m_requested;
  }

  // Waits so many seconds, or until it is requested: true then.
  bool wait(double seconds) const
  {
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::duration<double>(seconds),
                              [this] { return m_requested; });
  }

private:
  mutable std::mutex m_mutex;
  mutable std::condition_variable m_changed;
  bool m_requested = false;
};

} // namespace Publish
