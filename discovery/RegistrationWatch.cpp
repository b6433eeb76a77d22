#include "discovery/RegistrationWatch.h"

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

namespace
{

thread_local RegistrationWatch* current = nullptr;

} // namespace

RegistrationWatch::RegistrationWatch(std::string origin) : m_origin(std::move(origin))
{
  current = this;
}

RegistrationWatch::~RegistrationWatch() { current = nullptr; }

std::string RegistrationWatch::origin() { return current == nullptr ? "" : current->m_origin; }

void RegistrationWatch::note(ExplorerWrapper const& loser, ExplorerWrapper const* standing)
{
  if (current == nullptr)
    return;
  Loser noted;
  noted.authority = loser.getAuthority()->getName().str();
  noted.type = loser.getAuthority()->getType();
  noted.priority = loser.getPriority();
  if (standing != nullptr)
  {
    noted.standing = standing->getAuthority()->getName().str();
    noted.standingType = standing->getAuthority()->getType();
    noted.standingPriority = standing->getPriority();
  }
  current->m_losers.push_back(std::move(noted));
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
