#include "web/Cursor.h"

#include "web/RequestTarget.h"

#include <charconv>
#include <vector>

namespace Web
{

std::optional<Cursor> Cursor::fromText(std::string_view text)
{
  std::vector<std::string> parts;
  for (std::size_t begin = 0; begin <= text.size() && parts.size() < 6;)
  {
    auto const end = std::min(text.find('/', begin), text.size());
    auto part = decoded(text.substr(begin, end - begin), false);
    if (!part)
      return std::nullopt;
    parts.push_back(std::move(*part));
    begin = end + 1;
  }
  if (parts.size() != 5 || (parts[4] != "s" && parts[4] != "d"))
    return std::nullopt;
  Cursor cursor{std::move(parts[0]), std::move(parts[1]), std::move(parts[2]), 0, parts[4] == "d"};
  char const* const end = parts[3].data() + parts[3].size();
  auto const [stop, error] = std::from_chars(parts[3].data(), end, cursor.type);
  if (error != std::errc() || stop != end)
    return std::nullopt;
  return cursor;
}

std::string Cursor::text() const
{
  return encoded(master) + '/' + encoded(subject) + '/' + encoded(authority) + '/' +
         std::to_string(type) + (onDemand ? "/d" : "/s");
}

} // namespace Web
