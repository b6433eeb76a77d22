// Signs of life for the service manager's watchdog.

#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace Host
{

// Tells the watchdog that the service is alive as long as a call to the
// service's own port is answered and its reactor turns, and while the service stops. A thread of
// its own asks, twice in each of the manager's periods. Without a manager that waits for it there
// is no thread.
class Watchdog
{
public:
  Watchdog() = default;

  // Ends and joins the thread.
  ~Watchdog();
  Watchdog(Watchdog const&) = delete;
  Watchdog& operator=(Watchdog const&) = delete;

  // The service serves. False, with the reason in error, when the thread cannot
  // be started.
  bool start(std::string const& service, std::string& error);

  // The service has begun to stop: its port need not answer any more.
  void serviceStops() noexcept;

private:
  void loop();

  std::string m_service;
  int m_period = 0; // milliseconds between two signs
  std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_ending = false;
  bool m_stopping = false;
  std::thread m_thread;
};

} // namespace Host
