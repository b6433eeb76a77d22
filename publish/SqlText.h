// Text and bytes from elsewhere in the forms that PostgreSQL takes.

#pragma once

#include <span>
#include <string>
#include <string_view>

namespace Publish
{

// With U+FFFD for what PostgreSQL has no place for: NUL, and bytes that are no UTF-8.
std::string sqlText(std::string_view text);

// As a value of bytea is written: "\x6162".
std::string sqlBytes(std::span<unsigned char const> bytes);

} // namespace Publish
