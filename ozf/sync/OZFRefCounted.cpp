#include "ozf/sync/OZFRefCounted.h"

#include "ozf/sync/OZFBlockUntil.h"

namespace Quillon::Tessarine::Ozf
{

OZFRefCounted::~OZFRefCounted()
{
  if (OZFBlockUntil* const barrier = m_barrier.load(); barrier != nullptr)
    barrier->objectGone();
}

long OZFRefCounted::addReference() const noexcept
{
  return m_references.fetch_add(1, std::memory_order_relaxed) + 1;
}

long OZFRefCounted::removeReference() const noexcept
{
  // What other threads did to the object before they let go of it must be
  // seen by the one that destroys it.
  long const left = m_references.fetch_sub(1, std::memory_order_acq_rel) - 1;
  if (left == 0)
    delete this;
  return left;
}

long OZFRefCounted::referenceCount() const noexcept
{
  return m_references.load(std::memory_order_relaxed);
}

} // namespace Quillon::Tessarine::Ozf
