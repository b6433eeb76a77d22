// The reactor on which the framework's timers run.

#pragma once

#include "ozf/base/Export.h"

class ACE_Reactor;

namespace Quillon::Tessarine::Ozf
{

// Null until one was set. The reactor belongs to whoever set it, who sets
// null (or another) before it goes away. Any thread.
OZF_EXPORT ACE_Reactor* getAceReactor() noexcept;
OZF_EXPORT void setAceReactor(ACE_Reactor* reactor) noexcept;

} // namespace Quillon::Tessarine::Ozf
