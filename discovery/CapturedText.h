// The text that the default parser (DefaultExplorerDataParser.h) makes of what an
// explorer wrote.

#pragma once

#include <string>
#include <string_view>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// The captured text has the names of attributes in quotes, and their values as
// they are, not escaped: <Unit "n"="4">. Makes XML of it by leaving the
// attributes out. False when it cannot be told where a tag ends, as with a
// value that has quotes and angle brackets in it.
bool withoutAttributes(std::string_view captured, std::string& xml);

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
