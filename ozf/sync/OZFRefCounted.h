// Counted objects.
//
// An object is born with a count of one, which belongs to whoever made it.
// AutoDereference(T*) takes that reference over; AutoDereference<T>::retain
// adds one. The object is destroyed when the count falls to zero.

#pragma once

#include "ozf/base/Export.h"

#include <atomic>

namespace Quillon::Tessarine::Ozf
{

class OZFBlockUntil;

class OZF_EXPORT OZFRefCounted
{
public:
  // Both may be called from any thread. addReference on a const object is
  // allowed: the count is not part of the value. Both return the count as they
  // left it; after removeReference returned 0 the object is gone.
  long addReference() const noexcept
  {
    return m_references.fetch_add(1, std::memory_order_relaxed) + 1;
  }
  long removeReference() const noexcept
  {
    // What other threads did to the object before they let go of it must be
    // seen by the one that destroys it.
    long const left = m_references.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (left == 0)
      delete this;
    return left;
  }

  // The count at this moment; for tests and log lines only.
  long referenceCount() const noexcept;

  OZFRefCounted(OZFRefCounted const&) = delete;
  OZFRefCounted& operator=(OZFRefCounted const&) = delete;

protected:
  OZFRefCounted() = default;
  virtual ~OZFRefCounted();

private:
  friend class OZFBlockUntil;

  mutable std::atomic<long> m_references{1};
  std::atomic<OZFBlockUntil*> m_barrier{nullptr};
};

} // namespace Quillon::Tessarine::Ozf
