// Tasks: objects with threads of their own.

#pragma once

#include "ozf/base/Export.h"

#include <ace/Task.h>

namespace Quillon::Tessarine::Ozf
{

// Derive and give the thread's body in ozfsvc(). Start threads with
// activate() and wait for them through thr_mgr()->wait_task(this) or wait().
// Neither ACE's svc nor an exception gets past this class. Leave the body by
// returning: a thread that ends itself makes ACE take its locks in the order
// opposite to activate()'s, and the two can block each other for good.
class OZF_EXPORT OzfTask : public ACE_Task<ACE_MT_SYNCH>
{
public:
  OzfTask() = default;

  // Whether a thread of this task is running; takes the task's lock.
  bool running();

protected:
  // The body of each thread; the result is the thread's exit status.
  virtual int ozfsvc() = 0;

private:
  int svc() final;
};

} // namespace Quillon::Tessarine::Ozf
