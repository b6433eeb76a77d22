// The library that holds the service.

#pragma once

#include <memory>
#include <string>

namespace Quillon::Tessarine::Ozf
{
class OrbService;
}

namespace Host
{

// Loads the service library and makes its service. Null, with the reason in
// error, when either fails. The library is never unloaded: its singletons go
// when the process ends.
std::unique_ptr<Quillon::Tessarine::Ozf::OrbService> createService(bool debug, std::string& error);

} // namespace Host
