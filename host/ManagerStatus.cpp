#include "host/ManagerStatus.h"

#include <mutex>
#include <systemd/sd-daemon.h>

namespace Host
{

namespace
{

std::mutex mutex; // of all below, and of the order of what is sent
std::string lacking;
std::string waiting;
bool serving = false;

std::string servingText()
{
  return "Serving" + (lacking.empty() ? "" : "; " + lacking) +
         (waiting.empty() ? "" : "; " + waiting);
}

} // namespace

void tellManager(std::string const& status)
{
  std::lock_guard const guard(mutex);
  sd_notify(0, ("STATUS=" + status).c_str());
}

void tellReady()
{
  std::lock_guard const guard(mutex);
  serving = true;
  sd_notify(0, ("READY=1\nSTATUS=" + servingText()).c_str());
}

void tellReady(std::string const& status)
{
  std::lock_guard const guard(mutex);
  sd_notify(0, ("READY=1\nSTATUS=" + status).c_str());
}

void tellLacking(std::string const& text)
{
  std::lock_guard const guard(mutex);
  lacking = text;
}

void tellWaiting(std::string const& text)
{
  std::lock_guard const guard(mutex);
  waiting = text;
  if (serving)
    sd_notify(0, ("STATUS=" + servingText()).c_str());
}

void tellStopping()
{
  std::lock_guard const guard(mutex);
  serving = false;
  sd_notify(0, "STOPPING=1\nSTATUS=Stopping");
}

} // namespace Host
