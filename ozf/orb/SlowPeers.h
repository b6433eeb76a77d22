// Sending to peers, of which some do not read what they asked for.

#pragma once

#include "ozf/base/Export.h"
#include "ozf/orb/ConnectionWatcher.h"

#include <array>
#include <cstddef>
#include <list>
#include <mutex>

namespace Quillon::Tessarine::Ozf
{

// What the socket takes without waiting: the number of bytes, 0 when it takes
// nothing now, negative when the connection has ended. Saves the question that
// the ORB puts to the system before it sends.
OZF_EXPORT int sendAtOnce(int descriptor, void const* data, std::size_t size) noexcept;

// What tells a peer that the connection ends, and that what it has asked for is not
// done.
inline constexpr std::array<char, 12> FAREWELL{'G', 'I', 'O', 'P', 1, 0, 0, 5, 0, 0, 0, 0};

// Whether these bytes tell a peer that the connection ends. The ORB sends them
// with everything else locked, and nobody needs to wait for them to be read.
OZF_EXPORT bool isFarewell(void const* data, std::size_t size) noexcept;

// While it lives the calling thread waits for the peer to read. So do a number of
// threads at most; beyond it the longest wait is ended with its connection, of
// the address that is waited for most.
class OZF_EXPORT WaitForPeer
{
public:
  static constexpr std::size_t MOST = 200;

  explicit WaitForPeer(WatchedConnection& connection);
  ~WaitForPeer();
  WaitForPeer(WaitForPeer const&) = delete;
  WaitForPeer& operator=(WaitForPeer const&) = delete;

private:
  static void endOne();

  // One after the other as they began. An ended one stays until its thread knows.
  static std::mutex s_mutex;
  static std::list<WaitForPeer*> s_waits;
  static std::size_t s_ended;

  WatchedConnection& m_connection;
  std::list<WaitForPeer*> m_place; // one, for which memory is needed before the lock
  bool m_over = false;
};

} // namespace Quillon::Tessarine::Ozf
