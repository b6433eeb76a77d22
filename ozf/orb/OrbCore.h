// The insides of the ORB that threads must be made known to.

#pragma once

#include "ozf/base/Export.h"

namespace Quillon::Tessarine::Ozf
{

// Stands for the ORB's set of threads.
class OZF_EXPORT LeaderFollower
{
};

// What the ORB asks of a thread before the thread calls out through it.
class OZF_EXPORT LfStrategy
{
public:
  // Makes the calling thread known to the ORB, so that per-thread request
  // time-outs hold on it. A thread that the ORB made, or that was made known
  // before, stays as it is. The mark goes when the thread ends.
  void set_upcall_thread(LeaderFollower& leaderFollower);
};

class OZF_EXPORT OrbCore
{
public:
  LfStrategy& lf_strategy() noexcept { return m_strategy; }
  LeaderFollower& leader_follower() noexcept { return m_leaderFollower; }

private:
  LfStrategy m_strategy;
  LeaderFollower m_leaderFollower;
};

} // namespace Quillon::Tessarine::Ozf
