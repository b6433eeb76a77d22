// Requests that explorers run before their interval is over.
//
// Who may store discoveries asks for it with one: of type external, by the
// authority "refresh" for all explorers or "refresh.<authority>" for those of one,
// about a host's own name or about "all". Whoever then has the push timer restarted
// makes the host look for such requests before its next pass, and each is obeyed
// once.

#pragma once

#include "discovery/DiscoveryRepositoryEntries.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

inline constexpr char REFRESH_AUTHORITY[] = "refresh";
inline constexpr char REFRESH_ALL_HOSTS[] = "all";
inline constexpr char REFRESH_PATTERN[] = "refresh*"; // of the authorities

class TQ_EXPORT RefreshRequests
{
public:
  // The push timer was asked for. Any thread.
  void noteCall() noexcept { ++m_calls; }

  // Gives the discoveries of REFRESH_PATTERN, the caller's; null when they are not
  // to be had.
  using Query = std::function<DiscoveryIterator*()>;

  // If the push timer was asked for since, looks for requests and makes the explorers
  // due that they ask for; discoveries of other names and types are passed over. Not
  // all were to be had: looks again next time. On the push timer's thread.
  void obey(Query const& query, ExplorerSet const& explorers);

private:
  void apply(DiscoveryIterator& requests, ExplorerSet const& explorers);
  bool isNew(std::string const& authority, std::string const& subject, OzfObjTime const& made);

  std::atomic<std::uint64_t> m_calls{0};
  // Of the push timer's thread.
  std::uint64_t m_seen = 0;
  std::map<std::pair<std::string, std::string>, OzfObjTime> m_obeyed; // when they were made
};

// The process's one.
TQ_EXPORT RefreshRequests& getRefreshRequests();

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
