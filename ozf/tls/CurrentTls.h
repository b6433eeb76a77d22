// The TLS of the process.

#pragma once

#include "ozf/base/Export.h"
#include "ozf/tls/TlsContext.h"

#include <ctime>
#include <memory>
#include <string>
#include <vector>

namespace Quillon::Tessarine::Ozf
{

// What holds for connections that begin now; null while TLS is off. Any thread;
// costs nothing to speak of.
OZF_EXPORT std::shared_ptr<TlsContext const> currentTls() noexcept;

// Reads the process's configuration and the files that it names. False, with the
// reason in error, when they are not in order; then everything stays as it was.
// What does not fail, but will, is told in the log. Connections that stand are
// judged by it at their next call. Any thread; two at a time wait for each other.
OZF_EXPORT bool setUpTls(std::string& error);

// What a crash may leave behind of a process that is about to read a key: on is what its
// CORE_DUMPS says. In the log where the system refuses it. Any thread.
OZF_EXPORT void setCoreDumpsWithKey(bool on);

// Why a peer was last refused, or refused this host, for who called to tell a
// person: "the certificate of backup1 is for backup2". Empty when none was. Any
// thread.
OZF_EXPORT std::string lastTlsRefusal();
OZF_EXPORT void noteTlsRefusal(std::string const& reason);

// What setUpTls would fail with by that configuration, the files included; empty when
// it would not, and where the mode is none, which is a mistake in its line. Changes
// nothing: a process asks this of a configuration that it may not take.
OZF_EXPORT std::string mistakeOfTls(class Configuration const& configuration);

// The same, or where there is no such mistake why peers would refuse this host. For a
// process that does no more than that: core dumps are then as the configuration says.
OZF_EXPORT std::vector<std::string> checkTls(class Configuration const& configuration);

// Tells in the log, once a day, that the certificate of the process, or one that it rests
// on, ends within 30 days or has ended. Called now and then with the time; one thread.
class OZF_EXPORT ExpiryWarning
{
public:
  void look(std::time_t now);

private:
  std::time_t m_next = 0;
};

// "ends on 2027-03-01 12:00 UTC, in 12 days"; "ended on 2026-11-01 12:00 UTC".
OZF_EXPORT std::string expiryText(Certificate const& certificate, std::time_t now);

} // namespace Quillon::Tessarine::Ozf
