#include "discovery/AnnouncementState.h"

#include "discovery/DiscoveryLog.h"
#include "ozf/base/MetadataConverter.h"
#include "ozf/orb/OrbService.h"

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

namespace
{

constexpr char SOURCE[] = "AnnouncementState";

} // namespace

void AnnouncementState::noteWaiting(long seconds)
{
  Now now;
  now.phase = WAITING;
  note(now, seconds);
}

void AnnouncementState::noteFailure(std::string const& reason, long seconds)
{
  Now now;
  now.phase = RETRYING;
  now.last = OzfObjTime::now();
  now.reason = reason;
  note(now, seconds);
}

void AnnouncementState::note(Now const& now, long seconds)
{
  OzfObjTime const next = OzfObjTime::now() + OzfObjTime(seconds);
  std::string time;
  MetadataConverter::convert(next, time, false);
  std::string const text =
      std::string(now.phase == WAITING ? "announces" : "tries again to announce") +
      " its explorers to the master at " + time;
  {
    std::lock_guard const guard(m_mutex);
    m_now = now;
    m_now.next = next;
  }
  OZF_LOG(getOzfLogger(), 1, SOURCE, "AnnouncementState::note",
          "This host " << text << ", in " << seconds << " seconds, and reports nothing before");
  if (OrbService const* const service = OrbService::Instance())
    service->tellStatus(text + (now.reason.empty() ? "" : ": " + now.reason));
}

void AnnouncementState::noteAnnounced()
{
  {
    std::lock_guard const guard(m_mutex);
    m_now = {};
    m_now.phase = ANNOUNCED;
    m_now.last = OzfObjTime::now();
  }
  if (OrbService const* const service = OrbService::Instance())
    service->tellStatus({});
}

AnnouncementState::Now AnnouncementState::now() const
{
  std::lock_guard const guard(m_mutex);
  return m_now;
}

AnnouncementState& getAnnouncementState()
{
  static auto* const instance = new AnnouncementState;
  return *instance;
}

char const* nameOf(AnnouncementState::Phase phase)
{
  switch (phase)
  {
  case AnnouncementState::WAITING:
    return "waiting";
  case AnnouncementState::RETRYING:
    return "retrying";
  case AnnouncementState::ANNOUNCED:
    return "announced";
  default:
    return "none";
  }
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
