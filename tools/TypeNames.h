// What the types of authorities are called, and mean.

#pragma once

#include <DiscoveryTypesC.h>

#include <set>

namespace tqdiscoctl
{

// For people, behind a table in which these types stand; nothing where no terminal
// is.
void explainTypes(std::set<Quillon::Tessarine::Ozf::DiscoverySvc::AuthorityType> const& types);

} // namespace tqdiscoctl
