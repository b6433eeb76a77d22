#include "ozf/config/HostAnswers.h"

#include "ozf/base/AsciiCase.h"

#include <algorithm>
#include <utility>

namespace Quillon::Tessarine::Ozf
{

namespace
{

constexpr std::chrono::seconds PERIOD(60);

bool holds(HostAnswers::Addresses const& addresses, IpAddress const& address)
{
  return std::find(addresses.begin(), addresses.end(), address) != addresses.end();
}

} // namespace

// A thread that looks up or waits. Made and destroyed under the mutex.
class HostAnswers::Place
{
public:
  Place(HostAnswers& answers, IpAddress const& peer)
      : m_answers(answers), m_peer(answers.m_peers.try_emplace(peer).first)
  {
    ++m_peer->second.callers;
    ++m_answers.m_all.callers;
  }
  ~Place()
  {
    --m_answers.m_all.callers;
    if (--m_peer->second.callers == 0)
      m_answers.m_peers.erase(m_peer);
  }
  Place(Place const&) = delete;
  Place& operator=(Place const&) = delete;

  void require() const
  {
    LookUpLimits const& most = m_answers.m_limits;
    if (m_peer->second.callers > most.callersOfPeer)
      throw TooManyLookUps(std::to_string(most.callersOfPeer) +
                           " of its calls wait for the resolver already");
    if (m_answers.m_all.callers > most.callers)
      throw TooManyLookUps(std::to_string(most.callers) + " calls wait for the resolver already");
  }

  Counts& ofPeer() noexcept { return m_peer->second; }

private:
  HostAnswers& m_answers;
  std::map<IpAddress, Counts>::iterator const m_peer;
};

// A look-up in progress, with the mutex given up meanwhile.
class HostAnswers::LookUp
{
public:
  LookUp(HostAnswers& answers, Counts& ofPeer, std::string const& key,
         std::unique_lock<std::mutex>& lock)
      : m_answers(answers),
        m_ofPeer(ofPeer),
        m_key(answers.m_lookedUp.insert(key).first),
        m_lock(lock)
  {
    ++m_ofPeer.lookUps;
    ++m_answers.m_all.lookUps;
    m_lock.unlock();
  }
  ~LookUp()
  {
    m_lock.lock();
    m_answers.m_lookedUp.erase(m_key);
    --m_ofPeer.lookUps;
    --m_answers.m_all.lookUps;
    m_answers.m_ended.notify_all();
  }
  LookUp(LookUp const&) = delete;
  LookUp& operator=(LookUp const&) = delete;

private:
  HostAnswers& m_answers;
  Counts& m_ofPeer;
  std::set<std::string>::iterator const m_key;
  std::unique_lock<std::mutex>& m_lock;
};

HostAnswers::HostAnswers(Resolver resolver, LookUpLimits const& limits)
    : m_resolver(std::move(resolver)), m_limits(limits)
{
}

HostAnswers::Answer const* HostAnswers::fresh(std::string const& key) const
{
  auto const known = m_answers.find(key);
  bool const isFresh = known != m_answers.end() && Clock::now() < known->second.asked + PERIOD;
  return isFresh ? &known->second : nullptr;
}

bool HostAnswers::mayLookUp(std::string const& key, IpAddress const& peer) const
{
  auto const counts = m_peers.find(peer);
  return !m_lookedUp.contains(key) && m_all.lookUps < m_limits.atOnce &&
         (counts == m_peers.end() || counts->second.lookUps < m_limits.atOnceOfPeer);
}

HostAnswers::Answer const& HostAnswers::remember(std::string const& key, Addresses addresses)
{
  if (addresses.size() > MOST_ADDRESSES)
    addresses.erase(addresses.begin() + MOST_ADDRESSES, addresses.end());
  auto known = m_answers.find(key);
  if (known == m_answers.end())
  {
    if (m_answers.size() >= m_limits.hosts)
    {
      m_answers.erase(m_order.front());
      m_order.pop_front();
    }
    std::list<std::string> place{key};
    known = m_answers.try_emplace(key).first;
    known->second.place = place.begin();
    m_order.splice(m_order.end(), place);
  }
  Answer& answer = known->second;
  m_order.splice(m_order.end(), m_order, answer.place);
  // A resolver that cannot answer now makes a host that is known no stranger.
  if (!addresses.empty())
    answer.addresses = std::move(addresses);
  answer.asked = Clock::now();
  return answer;
}

bool HostAnswers::has(std::string const& host, IpAddress const& peer)
{
  std::string key = host;
  std::transform(key.begin(), key.end(), key.begin(), asciiLower);
  std::unique_lock lock(m_mutex);
  if (auto const known = m_answers.find(key);
      known != m_answers.end() && (fresh(key) != nullptr || !mayLookUp(key, peer)))
    return holds(known->second.addresses, peer);

  Place place(*this, peer);
  place.require();
  bool const isTurn = m_ended.wait_for(
      lock, m_limits.patience, [&] { return fresh(key) != nullptr || mayLookUp(key, peer); });
  if (Answer const* const answer = fresh(key))
    return holds(answer->addresses, peer);
  if (!isTurn)
    throw TooManyLookUps("the resolver is too slow for all who wait for it");
  Addresses found;
  {
    LookUp const lookUp(*this, place.ofPeer(), key, lock);
    found = m_resolver(host);
  }
  return holds(remember(key, std::move(found)).addresses, peer);
}

} // namespace Quillon::Tessarine::Ozf
