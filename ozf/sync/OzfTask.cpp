#include "ozf/sync/OzfTask.h"

#include "ozf/base/LineIfMemory.h"
#include "ozf/base/Report.h"

#include <cxxabi.h>
#include <exception>
#include <string>

namespace Quillon::Tessarine::Ozf
{

bool OzfTask::running() { return thr_count() > 0; }

int OzfTask::svc()
{
  try
  {
    return ozfsvc();
  }
  catch (abi::__forced_unwind const&)
  {
    // A thread that is cancelled or exits; the C library insists on the rethrow.
    throw;
  }
  catch (std::exception const& failure)
  {
    lineIfMemory(
        [&failure] {
          report(1, "OzfTask::svc", std::string("A task ended by an exception: ") + failure.what());
        });
  }
  catch (...)
  {
    lineIfMemory([] { report(1, "OzfTask::svc", "A task ended by an exception of unknown type"); });
  }
  return -1;
}

} // namespace Quillon::Tessarine::Ozf
