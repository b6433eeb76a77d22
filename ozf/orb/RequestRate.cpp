#include "ozf/orb/RequestRate.h"

#include "ozf/config/Limits.h"

#include <algorithm>
#include <map>

namespace Quillon::Tessarine::Ozf
{

namespace
{

constexpr std::chrono::nanoseconds SECOND = std::chrono::seconds(1);

struct Rates
{
  static constexpr std::size_t FEW = 64;

  std::mutex mutex;
  std::map<std::string, std::shared_ptr<RequestRate>> ofAddress;
  std::size_t most = FEW; // before those are looked for that nobody needs
};

// Never destroyed: connections may outlast the static objects.
Rates& rates()
{
  static auto* const all = new Rates;
  return *all;
}

} // namespace

bool RequestRate::admits(Clock::time_point now)
{
  long const most = getLimits().peerRequests.value();
  if (most == 0)
    return true;
  auto const interval = SECOND / most;
  std::lock_guard const guard(m_mutex);
  auto const made = std::max(m_made, now) + interval;
  if (made - now > SECOND)
    return false;
  m_made = made;
  return true;
}

std::optional<RequestRate::Clock::time_point> RequestRate::reserve(Clock::time_point now)
{
  long const most = getLimits().peerRequests.value();
  if (most == 0)
    return now;
  std::chrono::milliseconds const longest(getLimits().requestWait.value());
  std::lock_guard const guard(m_mutex);
  auto const made = std::max(m_made, now) + SECOND / most;
  if (made - now > SECOND + longest)
    return std::nullopt;
  m_made = made;
  return std::max(now, made - SECOND);
}

bool RequestRate::isOver(Clock::time_point now)
{
  std::lock_guard const guard(m_mutex);
  return m_made <= now;
}

std::shared_ptr<RequestRate> requestRateOf(std::string const& address)
{
  Rates& all = rates();
  std::lock_guard const guard(all.mutex);
  if (all.ofAddress.size() >= all.most)
  {
    auto const now = RequestRate::Clock::now();
    std::erase_if(all.ofAddress, [now](auto const& each)
                  { return each.second.use_count() == 1 && each.second->isOver(now); });
    all.most = std::max(Rates::FEW, 2 * all.ofAddress.size());
  }
  auto& rate = all.ofAddress[address];
  if (!rate)
    rate = std::make_shared<RequestRate>();
  return rate;
}

} // namespace Quillon::Tessarine::Ozf
