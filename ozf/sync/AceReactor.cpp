#include "ozf/sync/AceReactor.h"

#include <atomic>

namespace Quillon::Tessarine::Ozf
{
namespace
{

std::atomic<ACE_Reactor*> current{nullptr};

} // namespace

ACE_Reactor* getAceReactor() noexcept { return current.load(); }

void setAceReactor(ACE_Reactor* reactor) noexcept { current.store(reactor); }

} // namespace Quillon::Tessarine::Ozf
