// The vocabulary of an explorer: which facts it tells of each thing it finds.
// One table serves the payload, the description of what can be asked for, and
// the answer to a query, so that the three cannot drift apart. For the authors of
// explorers, with ExplorerPayload.h.

#pragma once

#include "ozf/base/AsciiCase.h"
#include "ozf/xml/OzfQuery.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

// One fact of a Thing, which is a struct of the explorer's.
template <class Thing>
struct Fact
{
  char const* name; // the element's and the attribute's
  OzfQuery::Type type;
  char const* description;
  std::optional<std::string> (*value)(Thing const&); // absent when not known
  char const* unit = nullptr;                        // null: that of the type
};

template <class Thing>
using Facts = std::span<Fact<Thing> const>;

// Values as the query language reads them.
inline std::optional<std::string> known(std::string const& text)
{
  return text.empty() ? std::nullopt : std::optional(text);
}

inline std::optional<std::string> known(std::optional<std::uint64_t> number)
{
  return number ? std::optional(std::to_string(*number)) : std::nullopt;
}

inline std::optional<std::string> known(std::optional<bool> flag)
{
  return flag ? std::optional<std::string>(*flag ? "true" : "false") : std::nullopt;
}

// The fact of that name, in whatever case the asker wrote it.
template <class Thing>
std::optional<std::string> valueOf(Facts<Thing> facts, Thing const& thing, std::string_view name)
{
  for (auto const& fact : facts)
    if (equalIgnoringCase(name, fact.name))
      return fact.value(thing);
  return std::nullopt;
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
