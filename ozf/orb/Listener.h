// Waits for connections on a socket, whatever goes wrong in between.
//
// The ORB's own waiting gives a port up for good when the system fails it once,
// and takes a full core while there are no descriptors.

#pragma once

#include "ozf/base/SystemError.h"

#include <atomic>
#include <string>

namespace Quillon::Tessarine::Ozf
{

class Listener
{
public:
  // Throws std::system_error.
  Listener();

  // The next connection of the socket that listens, which does not block. What
  // keeps it from that is said in the log, with the address, and tried again a
  // little later. Not valid once wake was called, and when interrupt has been. One
  // thread.
  UniqueFd accept(int socket, char const* address);

  // Ends accept, for good. Any thread.
  void wake() noexcept;

  // Ends accept once. Any thread.
  void interrupt() noexcept;

  bool ended() const noexcept { return m_ended; }

private:
  UniqueFd m_wake;
  std::atomic<bool> m_ended{false};
};

} // namespace Quillon::Tessarine::Ozf
