// The audit log's records of calls from the network.

#pragma once

#include "ozf/base/Export.h"

#include <string>
#include <string_view>

namespace Quillon::Tessarine::Ozf
{

struct Peer;

// What a call, or a writer, was about. Names are as the caller sent them; they are
// written as records have them.
struct AuditedCall
{
  std::string_view operation; // "putCollection"; up to the last "::" it is left out
  std::string_view subject{};
  std::string_view authority{};
};

// Notes what became of the call that this thread serves, or of another one of that
// peer (null: of this process). Without an audit file they cost nothing. Any thread;
// they wait for the file to be written, and never fail.
OZF_EXPORT void auditCall(AuditedCall const& call, std::string_view result) noexcept;
OZF_EXPORT void auditCall(Peer const* peer, AuditedCall const& call,
                          std::string_view result) noexcept;

// The same of one that is refused, and why; of those some are left out when they are
// very many (AuditLog).
OZF_EXPORT void auditRefusal(AuditedCall const& call, std::string_view reason) noexcept;
OZF_EXPORT void auditRefusal(Peer const* peer, AuditedCall const& call,
                             std::string_view reason) noexcept;

} // namespace Quillon::Tessarine::Ozf
