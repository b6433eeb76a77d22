#include "ozf/orb/OrbCore.h"

#include <omnithread.h>

namespace Quillon::Tessarine::Ozf
{

void LfStrategy::set_upcall_thread(LeaderFollower&)
{
  // Making a thread known costs some 15 microseconds; the thread's own object
  // does it once and takes the mark back when the thread ends.
  static thread_local omni_thread::ensure_self const mark;
}

} // namespace Quillon::Tessarine::Ozf
