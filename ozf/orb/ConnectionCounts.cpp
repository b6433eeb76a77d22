#include "ozf/orb/ConnectionCounts.h"

#include "ozf/log/AuditLog.h"
#include "ozf/orb/ConnectionTable.h"

namespace Quillon::Tessarine::Ozf
{

ConnectionCounts connectionCounts() noexcept
{
  ConnectionTable const& table = ConnectionTable::instance();
  return {table.size(), table.taken(), AuditLog::refusedConnections()};
}

} // namespace Quillon::Tessarine::Ozf
