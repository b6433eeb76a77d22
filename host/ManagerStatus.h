// What the service manager is told of the service.

#pragma once

#include <string>

namespace Host
{

// Each but tellLacking sends one message, to nobody when no manager waits for it.
// Any thread.

// While the service starts, or when it does not.
void tellManager(std::string const& status);

// That the service serves, or is in order without that, and its status text.
void tellReady();
void tellReady(std::string const& status);

// What is missing until the service is started anew, before tellReady. Stands
// behind "Serving" as well, before what it waits for.
void tellLacking(std::string const& text);

// What the service waits for; empty when for nothing. Stands behind "Serving"
// from tellReady on.
void tellWaiting(std::string const& text);

void tellStopping();

} // namespace Host
