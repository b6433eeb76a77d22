// Who may call what.
//
// Each operation is for those of one list of the configuration: ALLOW_READ,
// ALLOW_WRITE or ALLOW_CONTROL (ozf/config/PeerList.h tells what is in a list).
// Without a key reading and writing are for everybody, and control is for this host
// and the master. A request is looked at once its header has been read: before the
// object that it names is looked for, and whatever the object is. So none of them
// can be forgotten, and what is refused costs no more than a header.
//
// Which operation is for which list only the service knows: it hands a table in.
// Calls that do not come through a connection, those of this process to itself, are
// not looked at; neither are its calls that happen to take a connection.

#pragma once

#include "ozf/base/Export.h"
#include "ozf/orb/CallAudit.h"
#include "ozf/orb/Peer.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace Quillon::Tessarine::Ozf
{

struct TooManyLookUps;

// What a list gives the right to. Values can be joined.
enum CallRight : unsigned
{
  MAY_READ = 1,
  MAY_WRITE = 2,
  MAY_CONTROL = 4
};

struct CallNeed
{
  unsigned rights;       // one of these is enough
  unsigned some = 0;     // with one of these some such calls may be made: see lackOfCall
  bool ofMaster = false; // the host of SERVER may, whatever the lists say
  bool ofAsked = false;  // so may a host that is being asked: see AskedHost
};

// The table: null for an operation that there is not, which is for those who may
// control. It must not block, and is asked in every call.
using CallNeeds = CallNeed const* (*)(std::string_view operation);

// Every call that begins from now on is judged by it; without one none is.
OZF_EXPORT void setCallNeeds(CallNeeds needs) noexcept;

// Takes the lists from the process's configuration. False, with the key and the
// entry in error, when one is not in order; then the former ones hold. Any thread.
OZF_EXPORT bool setUpCallRights(std::string& error);

// The same, but until the next setUpCallRights a right has to be in the former lists as
// well: while what proves who is who changes too, nobody may what neither configuration
// gives him.
OZF_EXPORT bool tightenCallRights(std::string& error);

// Whether the peer may write in the name of the host. Everybody may while neither
// ALLOW_WRITE nor ALLOW_WRITE_AS is configured. Otherwise the host is to be the
// peer's own, by its certificate or, where it showed none, by its address; this host
// and those of ALLOW_WRITE_AS may besides. reason tells why not: "ALLOW_WRITE_AS =
// none". May block, and throw TooManyLookUps, as HostAnswers does
// (ozf/config/HostAnswers.h).
OZF_EXPORT bool mayWriteAs(Peer const& peer, std::string const& host, std::string& reason);

// What the peer of the call that this thread serves lacks for calls of that kind, to be
// refused with, where it was let through for some of them: the servant knows which.
// Empty where it lacks nothing, and in calls of this process to itself.
OZF_EXPORT std::string const& lackOfCall() noexcept;

// While it lives, that host may make the calls of the table that are for who is asked:
// who is asked for what it has may have to ask back.
class OZF_EXPORT AskedHost
{
public:
  explicit AskedHost(std::string const& host);
  ~AskedHost();
  AskedHost(AskedHost const&) = delete;
  AskedHost& operator=(AskedHost const&) = delete;

private:
  std::string const m_host;
};

// Its address and the names of its certificate, for log lines: "192.0.2.7 (web1)".
OZF_EXPORT std::string shownPeer(Peer const& peer);

// Every refusal of a call is told here: in a line of the log under that operation of the
// source, as "RemoteWriter_i::close: Refused a call of 192.0.2.7 (web1): ...", in the
// audit log, and by NO_PERMISSION to the peer. The log counts lines that come again and
// again.
[[noreturn]] OZF_EXPORT void refuseCall(Peer const& peer, char const* operation,
                                        AuditedCall const& call, std::string const& reason);

// A call of which it cannot be told now whether the peer may make it, since so much
// else is looked up. Told as a refusal is, and by TRANSIENT to the peer.
[[noreturn]] OZF_EXPORT void postponeCall(Peer const& peer, char const* operation,
                                          AuditedCall const& call, TooManyLookUps const& reason);

// Returns when the peer may make the call; refuses or postpones it otherwise. descriptor is the
// peer's socket. What is known of a connection is kept from call to call, 0 at first;
// the calls of one do not overlap.
OZF_EXPORT void requireRight(Peer const& peer, int descriptor, char const* operation,
                             std::uint64_t& kept);

} // namespace Quillon::Tessarine::Ozf
