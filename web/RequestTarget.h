// What a request asks for, read from its first line as it came.

#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Web
{

// A mistake of whoever asks.
struct Mistake
{
  struct Place
  {
    std::size_t line;
    std::size_t column;
  };

  std::string detail;
  std::string parameter; // at fault, empty when none is
  std::optional<Place> place;
};

// "/api/v1/hosts/web%2F7?limit=5": the path is taken apart at its slashes before they are
// decoded. All names and values are UTF-8 without NUL.
class RequestTarget
{
public:
  // Nothing, with the mistake, when the text is none.
  static std::optional<RequestTarget> fromText(std::string_view text, Mistake& mistake);

  // "/" has one part, which is empty.
  std::vector<std::string> const& path() const noexcept { return m_path; }

  // Null when it is not given.
  std::string const* find(std::string_view name) const;

  // A parameter that is not among these; null when there is none.
  std::string const* unknownBeside(std::vector<std::string_view> const& known) const;

private:
  std::vector<std::string> m_path;
  std::vector<std::pair<std::string, std::string>> m_parameters;
};

// Percent-encoded text; nothing when an escape is none, or when what it comes to is no UTF-8
// or has a NUL. plusIsSpace: as forms write it.
std::optional<std::string> decoded(std::string_view text, bool plusIsSpace);

// Of which decoded makes the same text again.
std::string encoded(std::string_view text);

} // namespace Web
