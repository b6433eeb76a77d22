#include "ozf/sync/OZFBlockUntil.h"

#include "ozf/base/Report.h"
#include "ozf/sync/OZFRefCounted.h"

namespace Quillon::Tessarine::Ozf
{

OZFBlockUntil::~OZFBlockUntil() { wait(); }

void OZFBlockUntil::add(OZFRefCounted& object)
{
  OZFBlockUntil* none = nullptr;
  if (!object.m_barrier.compare_exchange_strong(none, this))
  {
    report(1, "OZFBlockUntil::add", "The object belongs to a barrier already");
    return;
  }
  // Not too late: the caller's reference keeps the object from going.
  std::lock_guard guard(m_mutex);
  ++m_alive;
}

void OZFBlockUntil::leave(OZFRefCounted& object)
{
  if (OZFBlockUntil* const barrier = object.m_barrier.exchange(nullptr); barrier != nullptr)
    barrier->objectGone();
}

bool OZFBlockUntil::isOpen() const
{
  std::lock_guard guard(m_mutex);
  return m_alive == 0;
}

void OZFBlockUntil::wait()
{
  std::unique_lock lock(m_mutex);
  m_opened.wait(lock, [this] { return m_alive == 0; });
}

void OZFBlockUntil::objectGone() noexcept
{
  // Notified under the lock: once it is released the waiter may return and
  // take the barrier with it, so nothing of it may be touched afterwards.
  std::lock_guard guard(m_mutex);
  if (--m_alive == 0)
    m_opened.notify_all();
}

} // namespace Quillon::Tessarine::Ozf
