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

  // Whether it was since the last time that this was asked: then the requests are to
  // be looked for. On the push timer's thread, as apply.
  bool takeCalls() noexcept;

  // Makes the explorers due that the discoveries ask for; those of other names and
  // types are passed over.
  void apply(DiscoveryIterator& requests, ExplorerSet const& explorers);

private:
  bool isNew(std::string const& authority, std::string const& subject, OzfObjTime const& made);

  std::atomic<std::uint64_t> m_calls{0};
  // Of the push timer's thread.
  std::uint64_t m_seen = 0;
  std::map<std::pair<std::string, std::string>, OzfObjTime> m_obeyed; // when they were made
};

// The process's one.
TQ_EXPORT RefreshRequests& getRefreshRequests();

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
