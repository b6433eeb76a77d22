#include "host/Watchdog.h"

#include "host/HostLog.h"
#include "ozf/log/Logger.h"
#include "ozf/orb/Liveness.h"
#include "ozf/orb/OrbService.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <exception>
#include <system_error>
#include <systemd/sd-daemon.h>

namespace Host
{

using namespace Quillon::Tessarine::Ozf;

namespace
{

constexpr char SOURCE[] = "Watchdog";

// Milliseconds between two signs of life; 0 when nobody waits for them.
int watchdogPeriod()
{
  std::uint64_t microseconds = 0;
  if (sd_watchdog_enabled(0, &microseconds) <= 0)
    return 0;
  return static_cast<int>(std::clamp<std::uint64_t>(microseconds / 2000, 1, 3600000));
}

} // namespace

Watchdog::~Watchdog()
{
  {
    std::lock_guard guard(m_mutex);
    m_ending = true;
  }
  m_changed.notify_all();
  if (m_thread.joinable())
    m_thread.join();
}

bool Watchdog::start(std::string const& service, std::string& error)
{
  m_period = watchdogPeriod();
  if (m_period == 0)
    return true;
  m_service = service;
  try
  {
    m_thread = std::thread([this] { loop(); });
    return true;
  }
  catch (std::system_error const& failure)
  {
    error = std::string("Unable to start the watchdog thread: ") + failure.what();
    return false;
  }
}

void Watchdog::serviceStops() noexcept
{
  std::lock_guard guard(m_mutex);
  m_stopping = true;
}

void Watchdog::loop()
{
  std::chrono::milliseconds const period(m_period);
  std::unique_lock lock(m_mutex);
  bool answered = true;
  while (!m_ending)
  {
    bool const stopping = m_stopping;
    lock.unlock();
    try
    {
      // No longer than a period, so that a slow answer does not hold the next up.
      bool const answering = stopping || isServiceAnswering(m_service, period / 2);
      bool const alive =
          answering && (stopping || OrbService::Instance()->getOrb().isReactorTurning(period / 2));
      if (alive)
        sd_notify(0, "WATCHDOG=1");
      else if (answered)
        OZF_LOG(getHostLogger(), 1, SOURCE, "Watchdog::loop",
                (answering ? "The service's timers do not fire: a pass over its explorers makes "
                             "no progress"
                           : "The service's own port does not answer"));
      answered = alive;
    }
    catch (std::exception const& exception)
    {
      OZF_LOG(getHostLogger(), 1, SOURCE, "Watchdog::loop",
              "Caught exception asking the service's own port: " << exception.what());
    }
    lock.lock();
    m_changed.wait_for(lock, period, [this] { return m_ending; });
  }
}

} // namespace Host
