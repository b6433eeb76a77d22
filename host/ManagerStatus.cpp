#include "host/ManagerStatus.h"

#include "ozf/base/Display.h"

#include <mutex>
#include <string>
#include <systemd/sd-daemon.h>

namespace Host
{

using Quillon::Tessarine::Ozf::onOneLine;

namespace
{

std::mutex mutex; // of all below, and of the order of what is sent
std::string lacking;
std::string waiting;
bool serving = false;

// A line break would begin another assignment, as of READY.
void notify(std::string const& status, char const* before = "")
{
  sd_notify(0, (before + ("STATUS=" + onOneLine(status))).c_str());
}

std::string servingText()
{
  return "Serving" + (lacking.empty() ? "" : "; " + lacking) +
         (waiting.empty() ? "" : "; " + waiting);
}

} // namespace

void tellManager(std::string const& status)
{
  std::lock_guard const guard(mutex);
  notify(status);
}

void tellReady()
{
  std::lock_guard const guard(mutex);
  serving = true;
  notify(servingText(), "READY=1\n");
}

void tellReady(std::string const& status)
{
  std::lock_guard const guard(mutex);
  notify(status, "READY=1\n");
}

void tellLacking(std::string const& text)
{
  std::lock_guard const guard(mutex);
  lacking = text;
  if (serving)
    notify(servingText());
}

void tellWaiting(std::string const& text)
{
  std::lock_guard const guard(mutex);
  waiting = text;
  if (serving)
    notify(servingText());
}

void tellStopping()
{
  std::lock_guard const guard(mutex);
  serving = false;
  sd_notify(0, "STOPPING=1\nSTATUS=Stopping");
}

} // namespace Host
