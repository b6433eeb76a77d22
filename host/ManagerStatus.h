// What the service manager is told of the service.

#pragma once

#include <string>

namespace Host
{

// Each sends one message when it is time for it, to nobody when no manager waits for it.
// Any thread.

// While the service starts, or when it does not.
void tellManager(std::string const& status);

// That the service serves, or is in order without that, and its status text.
void tellReady();
void tellReady(std::string const& status);

// What is missing; empty when nothing is. Stands behind "Serving" as well, from
// tellReady on, before what it waits for.
void tellLacking(std::string const& text);

// What the service waits for; empty when for nothing. Stands behind "Serving"
// from tellReady on.
void tellWaiting(std::string const& text);

void tellStopping();

} // namespace Host
