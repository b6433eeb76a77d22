// Small files of facts, as found below a root folder: "/" on a live host, a
// recorded tree in a test.

#pragma once

#include <cstdint>
#include <functional>
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

enum class Reading
{
  Whole,
  Ended,   // by the one who was handed the lines
  Cut,     // at the limit, or where it could not be read any further
  Missing, // there is no such file
  Failed   // it could not be opened
};

// Hands over the lines of a file of any size, without their ends and up to 64 KiB of
// each, until the file ends, limit bytes were read or each returns false. Takes no
// more memory than a line. A file that cannot be read costs a log line of level 4.
Reading readLines(std::string const& root, std::string const& path, std::uint64_t limit,
                  std::function<bool(std::string_view line)> const& each);

// The names in a folder, in their order; none when it cannot be read.
std::vector<std::string> namesIn(std::string const& root, std::string const& folder);

// The target of a symbolic link, not followed further.
std::optional<std::string> readLink(std::string const& path);

// The decimal number that is the whole text; absent when it is not one or does
// not fit.
std::optional<std::uint64_t> parseNumber(std::string_view text);

std::string_view trimmed(std::string_view text);

// What white space separates.
std::vector<std::string_view> wordsOf(std::string_view text);

// The key and the value, both trimmed, of every line that has the separator.
std::vector<std::pair<std::string, std::string>> parsePairs(std::string_view text, char separator);

// A product that stays at the largest value instead of wrapping round.
std::uint64_t saturatingProduct(std::uint64_t a, std::uint64_t b);

// Undoes the \xNN escapes with which udev writes names; what is no such escape
// stays.
std::string decodeHexEscapes(std::string_view text);

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
