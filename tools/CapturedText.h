// What an explorer wrote of an item, as the research API has captured it.

#pragma once

#include <string>
#include <string_view>

namespace tqdiscoctl
{

// The captured text has the names of attributes in quotes, and their values as
// they are, not escaped: <Unit "n"="4">. Makes XML of it by leaving the
// attributes out. False when it cannot be told where a tag ends, as with a
// value that has quotes and angle brackets in it.
bool withoutAttributes(std::string_view captured, std::string& xml);

} // namespace tqdiscoctl
