#include "ozf/sync/OZFRefCounted.h"

#include "ozf/sync/OZFBlockUntil.h"

namespace Quillon::Tessarine::Ozf
{

OZFRefCounted::~OZFRefCounted()
{
  if (OZFBlockUntil* const barrier = m_barrier.load(); barrier != nullptr)
    barrier->objectGone();
}

long OZFRefCounted::referenceCount() const noexcept
{
  return m_references.load(std::memory_order_relaxed);
}

} // namespace Quillon::Tessarine::Ozf
