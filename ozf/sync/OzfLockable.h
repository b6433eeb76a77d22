// Objects that can be locked by their users.

#pragma once

#include "ozf/base/Export.h"

#include <ace/Recursive_Thread_Mutex.h>

namespace Quillon::Tessarine::Ozf
{

// One recursive mutex: a thread that holds it may take it again.
class OZF_EXPORT OzfLockable
{
public:
  OzfLockable(OzfLockable const&) = delete;
  OzfLockable& operator=(OzfLockable const&) = delete;

protected:
  OzfLockable() = default;
  virtual ~OzfLockable() = default;

private:
  friend class LockableGuard;

  mutable ACE_Recursive_Thread_Mutex m_mutex;
};

// Holds the lock of an object for a scope. Taking it waits; locked() tells
// whether it was granted.
class OZF_EXPORT LockableGuard
{
public:
  explicit LockableGuard(OzfLockable const& object);
  ~LockableGuard();
  LockableGuard(LockableGuard const&) = delete;
  LockableGuard& operator=(LockableGuard const&) = delete;

  bool locked() const noexcept { return m_locked; }

private:
  ACE_Recursive_Thread_Mutex& m_mutex;
  bool m_locked;
};

} // namespace Quillon::Tessarine::Ozf
