// The barrier that opens when objects are gone.

#pragma once

#include "ozf/base/Export.h"

#include <condition_variable>
#include <mutex>

namespace Quillon::Tessarine::Ozf
{

class OZFRefCounted;

// Waits until every object added to it has been destroyed. A barrier to which
// nothing was added is open. It must outlive the objects added to it, which
// wait() makes sure of; its destructor waits too.
class OZF_EXPORT OZFBlockUntil
{
public:
  OZFBlockUntil() = default;
  ~OZFBlockUntil();
  OZFBlockUntil(OZFBlockUntil const&) = delete;
  OZFBlockUntil& operator=(OZFBlockUntil const&) = delete;

  // The caller holds a reference to the object. An object can belong to one
  // barrier; adding it a second time is a mistake and is ignored.
  void add(OZFRefCounted& object);

  // Does not wait for the object any more; nothing where it belongs to no barrier. The
  // caller holds a reference to it, and keeps the barrier from going meanwhile.
  static void leave(OZFRefCounted& object);

  // Whether every object added is gone.
  bool isOpen() const;

  // Blocks until the last object added is gone. Call it without references.
  void wait();

private:
  friend class OZFRefCounted;

  // Called at the end of the object's life, on any thread.
  void objectGone() noexcept;

  mutable std::mutex m_mutex;
  std::condition_variable m_opened;
  long m_alive = 0;
};

} // namespace Quillon::Tessarine::Ozf
