// What a start needs, looked at before there is a service.

#pragma once

#include "ozf/config/Configuration.h"

#include <optional>
#include <string>
#include <vector>

namespace Host
{

// The mistakes of the files, that they name no master where they do not, and what is
// wrong with the files of TLS: with any of these a reload is refused.
std::vector<Quillon::Tessarine::Ozf::ConfigurationProblem>
mistakesForService(Quillon::Tessarine::Ozf::Configuration const& configuration);

// The same, and why other hosts would refuse the certificate.
std::vector<Quillon::Tessarine::Ozf::ConfigurationProblem>
checkForService(Quillon::Tessarine::Ozf::Configuration const& configuration);

// Why nothing can be stored on this host although it is the master: the database
// directory, which is made when it is missing, cannot be made or written.
// Nothing on other hosts, which store with the master, nor where the service is
// not to start. May ask the system's
// resolver for the master's name.
std::optional<std::string> whyNothingCanBeStored();

} // namespace Host
