#include "ozf/config/HostAddresses.h"

#include "ozf/base/AsciiCase.h"
#include "ozf/config/HostRole.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <mutex>

namespace Quillon::Tessarine::Ozf
{

namespace
{

class Remembered
{
public:
  bool has(std::string const& host, IpAddress const& address)
  {
    std::string key = host;
    std::transform(key.begin(), key.end(), key.begin(), asciiLower);
    {
      std::lock_guard const guard(m_mutex);
      if (auto const known = m_answers.find(key); known != m_answers.end())
      {
        Answer& answer = known->second;
        if (Clock::now() < answer.asked + PERIOD)
          return holds(answer.addresses, address);
        answer.asked = Clock::now();
      }
    }
    std::string reason;
    auto found = resolveHost(host, reason);
    std::lock_guard const guard(m_mutex);
    if (m_answers.size() >= MOST && !m_answers.contains(key))
      m_answers.clear();
    Answer& answer = m_answers[key];
    // A resolver that cannot answer now makes a host that is known no stranger.
    if (!found.empty())
      answer.addresses = std::move(found);
    answer.asked = Clock::now();
    return holds(answer.addresses, address);
  }

private:
  using Clock = std::chrono::steady_clock;
  using Addresses = std::vector<IpAddress>;

  static constexpr std::chrono::seconds PERIOD{60};
  static constexpr std::size_t MOST = 8192; // peers may claim any name

  struct Answer
  {
    Addresses addresses;
    Clock::time_point asked;
  };

  static bool holds(Addresses const& addresses, IpAddress const& address)
  {
    return std::find(addresses.begin(), addresses.end(), address) != addresses.end();
  }

  std::mutex m_mutex;
  std::map<std::string, Answer> m_answers;
};

} // namespace

AddressList lookUpHost(std::string const& host, std::string& reason)
{
  addrinfo hints = {};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (int const error = getaddrinfo(host.c_str(), nullptr, &hints, &found); error != 0)
    reason = gai_strerror(error);
  return {found, freeaddrinfo};
}

std::vector<IpAddress> resolveHost(std::string const& host, std::string& reason)
{
  if (auto const address = IpAddress::fromText(host))
    return {*address};
  AddressList const found = lookUpHost(host, reason);
  std::vector<IpAddress> addresses;
  for (addrinfo const* one = found.get(); one != nullptr; one = one->ai_next)
    if (auto const address = IpAddress::fromSocket(one->ai_addr))
      addresses.push_back(*address);
  return addresses;
}

bool isAddressOf(std::string const& host, IpAddress const& address)
{
  std::string const meant = getHostAddress(host);
  if (auto const fixed = IpAddress::fromText(meant))
    return *fixed == address;
  // Never destroyed: calls may end after the statics of the process.
  static auto* const remembered = new Remembered;
  return remembered->has(meant, address);
}

} // namespace Quillon::Tessarine::Ozf
