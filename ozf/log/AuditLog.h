// The audit log: who stored, announced or controlled what, and who was refused.

#pragma once

#include "ozf/base/Export.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace Quillon::Tessarine::Ozf
{

struct AuditRecord
{
  std::string peer;               // numeric address; empty: this process itself
  std::vector<std::string> names; // of the peer's certificate
  std::string operation;          // "putCollection"
  std::string subject;
  std::string authority;
  std::string result;
  bool refused = false; // what result then tells is why
};

// One line of JSON for each record, in a file that is rotated as that of the log
// (RotatingFile). Nothing that is in a record can break a line, drive a terminal or
// make the line other than JSON. There is none at first.
//
// A record is in the file when write returns. Whoever writes records is not held up by
// a file that cannot be written: the record is counted, a line of level 1 tells of it,
// and the file is tried again with the next record. One that hangs is waited for up to
// the time that AuditWriter says, once. Any thread.
class OZF_EXPORT AuditLog
{
public:
  // Of refusals of one peer so many are written a minute, so that nobody can drive
  // out of the file's history what others did; how many more there were, a record
  // tells then.
  static constexpr std::uint64_t REFUSALS_A_MINUTE = 100;

  // And so many of all peers: one may have as many addresses as it likes.
  static constexpr std::uint64_t ALL_REFUSALS_A_MINUTE = 1000;

  // Records go to the file at path from now on, opened anew if they did before;
  // with an empty path nowhere. One that cannot be opened costs a line.
  static void setFile(std::string const& path);

  // Whether records go anywhere; who has to look for what belongs into one may ask.
  static bool isOn() noexcept;

  static void write(AuditRecord const& record) noexcept;

  // That a connection from the numeric address was not let in, and why.
  static void refuseConnection(std::string const& peer, std::string_view reason) noexcept;

  // How many that were since the process began, whether or not records go anywhere.
  static std::uint64_t refusedConnections() noexcept;

  // Has written what is due about refusals that were left out, and does not wait for
  // it. A process that may be silent for long calls it now and then.
  static void reportLeftOut() noexcept;

  // Records that are in no file since the process began, other than those beyond
  // REFUSALS_A_MINUTE and ALL_REFUSALS_A_MINUTE.
  static std::uint64_t lost() noexcept;

  // Counts one that whoever was to write it had no memory for.
  static void noteLost() noexcept;

  // For tests: the clock by which refusals are counted, called under the lock of the
  // audit log; an empty function for the steady clock.
  using Clock = std::function<std::chrono::steady_clock::time_point()>;
  static void setClock(Clock clock);
};

} // namespace Quillon::Tessarine::Ozf
