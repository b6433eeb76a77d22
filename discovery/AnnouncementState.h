// How far this host has come with announcing itself to the master. Until that is
// done it reports nothing, so whoever misses it asks here.

#pragma once

#include "discovery/Export.h"
#include "ozf/base/OzfObjTime.h"

#include <mutex>
#include <string>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// Any thread. What is noted is logged and told to the service host as well.
class TQ_EXPORT AnnouncementState
{
public:
  enum Phase
  {
    NONE, // not begun, or the master itself
    WAITING,
    RETRYING,
    ANNOUNCED
  };
  struct Now
  {
    Phase phase = NONE;
    OzfObjTime next; // try, of the two in the middle
    OzfObjTime last; // try, of the last two
    std::string reason;
  };

  // The first try comes after so many seconds.
  void noteWaiting(long seconds);
  // A try failed for that reason, the next one comes after so many seconds.
  void noteFailure(std::string const& reason, long seconds);
  void noteAnnounced();

  Now now() const;

private:
  void note(Now const& now, long seconds);

  mutable std::mutex m_mutex;
  Now m_now;
};

// The process's one.
TQ_EXPORT AnnouncementState& getAnnouncementState();

// What a phase is called: "none", "waiting", "retrying" and "announced".
TQ_EXPORT char const* nameOf(AnnouncementState::Phase phase);

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
