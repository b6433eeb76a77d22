// What a program of the system prints.

#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

// Runs the program, the first of the words and a path, without standard input, in the
// language C, and returns what it printed. Absent, with a log line of level 1, when it
// cannot be started, does not exit with 0, prints more than limit bytes or takes longer
// than patience: then it is killed, with all that it started and that stayed in its
// process group. Blocks for no longer than that. Any thread.
std::optional<std::string> outputOf(std::vector<std::string> const& words,
                                    std::chrono::milliseconds patience, std::size_t limit);

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
