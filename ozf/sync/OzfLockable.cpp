#include "ozf/sync/OzfLockable.h"

namespace Quillon::Tessarine::Ozf
{

LockableGuard::LockableGuard(OzfLockable const& object)
    : m_mutex(object.m_mutex), m_locked(m_mutex.acquire() == 0)
{
}

LockableGuard::~LockableGuard()
{
  if (m_locked)
    m_mutex.release();
}

} // namespace Quillon::Tessarine::Ozf
