// Where the registrations of the thread that has one come from, and which of them were
// left out. The registry logs nothing about those; whoever runs the code that registers
// may want to.

#pragma once

#include "discovery/DiscoveryRepositoryEntries.h"

#include <string>
#include <vector>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// One at a time on a thread.
class TQ_EXPORT RegistrationWatch
{
public:
  struct Loser
  {
    std::string authority;
    AuthorityType type{};
    ExplorerPriority priority = 0;
    std::string standing; // the authority of the entry in its place
    AuthorityType standingType{};
    ExplorerPriority standingPriority = 0;
  };

  explicit RegistrationWatch(std::string origin);
  ~RegistrationWatch();
  RegistrationWatch(RegistrationWatch const&) = delete;
  RegistrationWatch& operator=(RegistrationWatch const&) = delete;

  std::vector<Loser> const& losers() const noexcept { return m_losers; }

  // For the registry; empty on a thread without a watch.
  static std::string origin();

  // For the registry; nothing on a thread without a watch. standing may be null.
  static void note(ExplorerWrapper const& loser, ExplorerWrapper const* standing);

private:
  std::string const m_origin; // a library
  std::vector<Loser> m_losers;
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
