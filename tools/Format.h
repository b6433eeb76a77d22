// Values as people read them.

#pragma once

#include "ozf/base/OzfObjTime.h"

#include <DiscoveryTypesC.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace tqdiscoctl
{

// "0 B", "1023 B", "1.0 KiB", "12 MiB".
std::string formatSize(std::uint64_t bytes);

// The two largest units of a span in seconds: "0s", "59s", "2m 5s", "3h 0m", "12d 4h".
std::string formatSpan(std::int64_t seconds);

// How long ago, or "in 5m 0s" for what is to come; "-" for a time that is not set.
std::string formatAge(Quillon::Tessarine::Ozf::OzfObjTime const& time,
                      Quillon::Tessarine::Ozf::OzfObjTime const& now);

// The enumerator's name for people: "client"; a number for what has none.
std::string formatType(Quillon::Tessarine::Ozf::DiscoverySvc::AuthorityType type);

// The reverse, also for numbers. False for anything else.
bool parseType(std::string const& text, Quillon::Tessarine::Ozf::DiscoverySvc::AuthorityType& type);

// Columns that text takes on a terminal: characters, not bytes. Combining
// marks take none and wide characters two, as the C library's table has it.
std::size_t displayWidth(std::string_view text);

// At most width columns of text, with "..." at the end when something was cut.
std::string cutToWidth(std::string const& text, std::size_t width);

} // namespace tqdiscoctl
