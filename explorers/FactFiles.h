// Small files of facts, as found below a root folder: "/" on a live host, a
// recorded tree in a test.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

// root and a path below it.
std::string below(std::string const& root, std::string const& path);

// The file's content; absent, with a log line of level 4, when it cannot be
// read or is larger than 4 MiB.
std::optional<std::string> readFacts(std::string const& root, std::string const& path);

// The file's content without surrounding white space; absent also when nothing
// is left, and silently so when the file is missing: many facts are optional.
std::optional<std::string> readFact(std::string const& root, std::string const& path);

// The same as a decimal number; absent also when it is none.
std::optional<std::uint64_t> readNumber(std::string const& root, std::string const& path);

// The target of a symbolic link, not followed further.
std::optional<std::string> readLink(std::string const& path);

// The decimal number that is the whole text; absent when it is not one or does
// not fit.
std::optional<std::uint64_t> parseNumber(std::string_view text);

std::string_view trimmed(std::string_view text);

// The key and the value, both trimmed, of every line that has the separator.
std::vector<std::pair<std::string, std::string>> parsePairs(std::string_view text, char separator);

// A product that stays at the largest value instead of wrapping round.
std::uint64_t saturatingProduct(std::uint64_t a, std::uint64_t b);

// Undoes the \xNN escapes with which udev writes names; what is no such escape
// stays.
std::string decodeHexEscapes(std::string_view text);

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
