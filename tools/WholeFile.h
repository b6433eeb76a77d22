// Files that somebody may read at any time.

#pragma once

#include <string>
#include <string_view>

namespace tqdiscoctl
{

// Puts the text in the place of the file in one step, readable by everybody: readers see
// the old text or the new one, whole. The file beside it in which it is written first
// does not outlast a failure. 0, or an errno value.
int writeWhole(std::string const& path, std::string_view text);

} // namespace tqdiscoctl
