// What the values of headers say.

#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

namespace Web
{

// Whether a header of tags, as If-None-Match, has this one.
bool hasTag(std::string_view header, std::string_view etag);

// Whether Accept-Encoding allows gzip.
bool acceptsGzip(std::string_view header);

// Which of these types Accept prefers, the first of equals; npos when it allows none. An empty
// header allows all.
std::size_t preferredType(std::string_view header, std::vector<std::string_view> const& types);

} // namespace Web
