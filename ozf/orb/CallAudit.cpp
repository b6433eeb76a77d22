#include "ozf/orb/CallAudit.h"

#include "ozf/base/Uri.h"
#include "ozf/log/AuditLog.h"
#include "ozf/orb/Peer.h"

#include <exception>

namespace Quillon::Tessarine::Ozf
{
namespace
{

// Longer ones name nothing that is kept, and are cut when they are written.
constexpr std::size_t MOST_NAME = 5000;

std::string asRecorded(std::string_view name)
{
  return Uri::percentEncode(std::string(name.substr(0, MOST_NAME)), URI_SHOWN);
}

void note(Peer const* peer, AuditedCall const& call, std::string_view result, bool refused) noexcept
{
  if (!AuditLog::isOn())
    return;
  try
  {
    AuditRecord record;
    if (peer != nullptr)
    {
      record.peer = peer->address;
      record.names = peer->names;
    }
    auto const scope = call.operation.rfind("::");
    record.operation = call.operation.substr(scope == std::string_view::npos ? 0 : scope + 2);
    record.subject = asRecorded(call.subject);
    record.authority = asRecorded(call.authority);
    record.result = result;
    record.refused = refused;
    AuditLog::write(record);
  }
  catch (std::exception const&)
  {
    AuditLog::noteLost();
  }
}

} // namespace

void auditCall(AuditedCall const& call, std::string_view result) noexcept
{
  note(currentPeer(), call, result, false);
}

void auditCall(Peer const* peer, AuditedCall const& call, std::string_view result) noexcept
{
  note(peer, call, result, false);
}

void auditRefusal(AuditedCall const& call, std::string_view reason) noexcept
{
  note(currentPeer(), call, reason, true);
}

void auditRefusal(Peer const* peer, AuditedCall const& call, std::string_view reason) noexcept
{
  note(peer, call, reason, true);
}

} // namespace Quillon::Tessarine::Ozf
