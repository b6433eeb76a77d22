// Finishing, at the start, what a process that ended left half done.

#pragma once

#include <string>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// Makes a temporary file the payload file that it was written for if it is
// whole and belongs to the metadata document that is in place; where that one
// is no document at all, and the file has the one that belongs to it, this one
// is written first. For the start, under the exclusive clean-up lock. Waits for
// nobody. False when the file is worth nothing.
bool finishPending(std::string const& directory, std::string const& temporary);

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
