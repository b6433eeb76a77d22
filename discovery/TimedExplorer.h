// What push explorers have in common: what is left to write is what they find.

#pragma once

#include "discovery/Explorer.h"

#include <mutex>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

// Keeps the time of the last run and sees to it that nothing leaves explore
// but its result. A run that failed is due again after a minute, when the
// interval is longer: what it had to say should not wait for a day because the
// master was away for a moment. One that met data of higher priority waits for
// the interval; on a client it cannot tell.
class TQ_EXPORT TimedExplorer : public virtual ExplorerPush
{
public:
  static constexpr PollingInterval RETRY = 60;

  void explore(Authority const& authority, Subject const& subject,
               CollectionAttributes const& attributes, AutoDereference<OZFRefCounted>& context,
               DiscoveryFactory* factory, DiscoveryResult& result) final;

  OzfObjTime getLastExplorationTime() final;
  void setLastExplorationTime(OzfObjTime const& time) final;
  // As the configuration has it for an explorer of this name.
  PollingInterval getPollingInterval() final;

protected:
  // The interval holds where the configuration has none for the name. What is found
  // holds for a quarter longer than the interval, unless it has an expiry.
  explicit TimedExplorer(PollingInterval interval) : m_interval(interval) {}

  // Collects and stores; what it throws is logged and counts as
  // DS_LOGIC_ERROR. On the push timer's thread, one run at a time.
  virtual DiscoveryStatus run(Authority const& authority, Subject const& subject,
                              CollectionAttributes const& attributes,
                              DiscoveryFactory const& factory) = 0;

private:
  PollingInterval const m_interval;
  std::mutex m_mutex;
  OzfObjTime m_lastExploration; // guarded by m_mutex
};

// The attributes with an interval of which that expiry comes, which is a quarter longer,
// here and at the master; as they are when it is 0.
TQ_EXPORT CollectionAttributes withExpiry(CollectionAttributes const& attributes,
                                          PollingInterval expiry);

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
