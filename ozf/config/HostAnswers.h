// What the resolver said of hosts that peers name.

#pragma once

#include "ozf/base/Export.h"
#include "ozf/config/IpAddress.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace Quillon::Tessarine::Ozf
{

// A question that was not asked, or not answered in time, because others are. what()
// says so in words, for log lines.
struct OZF_EXPORT TooManyLookUps : std::runtime_error
{
  using std::runtime_error::runtime_error;
};

struct LookUpLimits
{
  std::size_t atOnce = 200; // look-ups in progress
  std::size_t atOnceOfPeer = 40;
  std::size_t callers = 300; // who look up, or wait for those who do
  std::size_t callersOfPeer = 60;
  std::chrono::milliseconds patience{5000}; // of those who wait
  std::size_t hosts = 8192;                 // of which something is remembered
};

// The resolver may take long, and is asked by the thread that needs to know: so a peer
// that names ever new hosts, or hosts whose names are slow to resolve, could hold all
// threads there are. Look-ups in progress, and threads that wait for them, are bounded
// in all and of each peer. A host is looked up by one thread at a time.
//
// An answer holds for a minute, and that there is none as well; then the former one
// holds for all but the one thread that asks anew. Of too many hosts the one that was
// looked up longest ago is forgotten. Any thread.
class OZF_EXPORT HostAnswers
{
public:
  using Clock = std::chrono::steady_clock;
  using Addresses = std::vector<IpAddress>;
  // All addresses of a host; may take as long as it likes.
  using Resolver = std::function<Addresses(std::string const& host)>;

  // Of one host so many are remembered: whoever owns a name decides how many it has.
  static constexpr std::size_t MOST_ADDRESSES = 256;

  explicit HostAnswers(Resolver resolver, LookUpLimits const& limits = LookUpLimits());

  // Whether the address is one of the host's. It is that of the peer for whose call it
  // is asked. Throws TooManyLookUps, and what the resolver throws. Blocks for the
  // resolver's time, or for as long as the limits say.
  bool has(std::string const& host, IpAddress const& peer);

private:
  struct Answer
  {
    Addresses addresses;
    Clock::time_point asked;
    std::list<std::string>::iterator place; // in m_order
  };
  struct Counts
  {
    std::size_t callers = 0;
    std::size_t lookUps = 0;
  };
  class Place;
  class LookUp;

  // Under m_mutex.
  Answer const* fresh(std::string const& key) const;
  bool mayLookUp(std::string const& key, IpAddress const& peer) const;
  Answer const& remember(std::string const& key, Addresses addresses);

  Resolver const m_resolver;
  LookUpLimits const m_limits;
  std::mutex m_mutex;
  std::condition_variable m_ended; // a look-up has
  std::map<std::string, Answer> m_answers;
  std::list<std::string> m_order;   // keys of m_answers, the one looked up longest ago first
  std::set<std::string> m_lookedUp; // keys that are just being looked up
  std::map<IpAddress, Counts> m_peers;
  Counts m_all;
};

} // namespace Quillon::Tessarine::Ozf
