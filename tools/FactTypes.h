// What kind of value a fact has, and how it is told to people and programs.

#pragma once

#include "ozf/xml/OzfQuery.h"

#include <nlohmann/json.hpp>
#include <string>

namespace tqdiscoctl
{

// What the description says of the fact; letter case does not count. Without
// any description what is known of the facts of the product's own explorers.
// Null when nothing is known; else not the caller's.
Quillon::Tessarine::Ozf::OzfQuery::Attribute const*
attributeOf(Quillon::Tessarine::Ozf::OzfQuery const& description, std::string const& fact);

// Whether its values are numbers, in whatever unit. attribute may be null.
bool isNumber(Quillon::Tessarine::Ozf::OzfQuery::Attribute const* attribute);

// A fact's value for people: sizes and durations with units.
std::string formatValue(std::string const& value,
                        Quillon::Tessarine::Ozf::OzfQuery::Attribute const* attribute);

// "15 GiB -> 16 GiB"; where both look the same to people, by how much it
// differs. The arrow is one character where the terminal can show it.
std::string formatChange(std::string const& before, std::string const& after,
                         Quillon::Tessarine::Ozf::OzfQuery::Attribute const* attribute);

// The same for programs: a number where the fact has numbers and the value
// reads as one, a boolean likewise, else the text.
nlohmann::json valueToJson(std::string const& value,
                           Quillon::Tessarine::Ozf::OzfQuery::Attribute const* attribute);

// "text", "size" and so on.
char const* typeName(Quillon::Tessarine::Ozf::OzfQuery::Type type);

nlohmann::json toJson(Quillon::Tessarine::Ozf::OzfQuery::Attribute const& attribute);

} // namespace tqdiscoctl
