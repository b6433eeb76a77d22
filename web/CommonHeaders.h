// The headers of every answer.

#pragma once

#include <string>

struct MHD_Response;

namespace Web
{

// isPage: that a browser shows, and may run scripts of.
void addHeaders(MHD_Response* response, std::string const& type, bool isPage);

} // namespace Web
