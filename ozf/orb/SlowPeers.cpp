#include "ozf/orb/SlowPeers.h"

#include "ozf/log/FrameworkLogger.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <string>
#include <unordered_map>

namespace Quillon::Tessarine::Ozf
{

namespace
{

constexpr char SOURCE[] = "SlowPeers";
constexpr std::size_t TYPE_AT = 7;

} // namespace

int sendAtOnce(int descriptor, void const* data, std::size_t size) noexcept
{
  auto const sent = send(descriptor, data, size, MSG_DONTWAIT | MSG_NOSIGNAL);
  if (sent >= 0)
    return static_cast<int>(sent);
  return errno == EAGAIN || errno == EINTR || errno == ENOBUFS || errno == ENOMEM ? 0 : -1;
}

bool isFarewell(void const* data, std::size_t size) noexcept
{
  return size == FAREWELL.size() && static_cast<char const*>(data)[TYPE_AT] == FAREWELL[TYPE_AT];
}

std::mutex WaitForPeer::s_mutex;
std::list<WaitForPeer*> WaitForPeer::s_waits;
std::size_t WaitForPeer::s_ended = 0;

WaitForPeer::WaitForPeer(WatchedConnection& connection) : m_connection(connection), m_place{this}
{
  std::lock_guard guard(s_mutex);
  if (s_waits.size() - s_ended >= MOST)
    endOne();
  s_waits.splice(s_waits.end(), m_place);
}

WaitForPeer::~WaitForPeer()
{
  std::lock_guard guard(s_mutex);
  s_waits.remove(this);
  if (m_over)
    --s_ended;
}

// Under s_mutex.
void WaitForPeer::endOne()
{
  std::unordered_map<std::string, std::size_t> ofAddress;
  std::size_t most = 0;
  for (auto const* each : s_waits)
    if (!each->m_over)
      most = std::max(most, ++ofAddress[each->m_connection.peer().address]);
  for (auto* each : s_waits)
  {
    std::string const& address = each->m_connection.peer().address;
    if (each->m_over || ofAddress[address] != most)
      continue;
    each->m_over = true;
    ++s_ended;
    each->m_connection.abandon();
    static std::time_t lastLine = 0; // one a second: it is likely to be a flood
    std::time_t const now = std::time(nullptr);
    if (now != lastLine)
      OZF_LOG(getFrameworkLogger(), 1, SOURCE, "WaitForPeer::endOne",
              "Ended a connection from " << address << ", it does not read its answers");
    lastLine = now;
    return;
  }
}

} // namespace Quillon::Tessarine::Ozf
