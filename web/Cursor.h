// Where a list goes on.

#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace Web
{

// The last record of a page. It stays good when records come and go, that one too.
struct Cursor
{
  std::string master;
  std::string subject;
  std::string authority;
  int type = 0;
  bool onDemand = false;

  static std::optional<Cursor> fromText(std::string_view text);
  std::string text() const;
};

} // namespace Web
