// What peers that do harm send.

#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace tqbench
{

// Requests of GIOP 1.0, 1.1 and 1.2 that were changed by what their bytes mean, the same
// ones each time.
std::vector<std::string> mutatedMessages(std::size_t count);

// First messages of TLS, changed by chance.
std::vector<std::string> mutatedHellos(std::size_t count);

// A request that announces data on demand of the subject, of this machine under that service.
std::string registrationOf(std::string const& subject, std::string const& service);

// A request for the data that was announced so.
std::string dataRequestFor(std::string const& subject);

} // namespace tqbench
