// Which masters a program beside the service reads from.

#pragma once

#include "ozf/base/Export.h"

#include <cstddef>
#include <string>
#include <vector>

namespace Quillon::Tessarine::Ozf
{

class Configuration;
struct ConfigurationKey;
struct ConfigurationProblem;

// Those that the key names, or SERVER where it is absent; each once, by name. That there is none,
// or that there are more than most, is added to problems.
OZF_EXPORT std::vector<std::string> mastersOf(Configuration const& configuration,
                                              ConfigurationKey const& key, std::size_t most,
                                              std::vector<ConfigurationProblem>& problems);

} // namespace Quillon::Tessarine::Ozf
