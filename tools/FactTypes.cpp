#include "tools/FactTypes.h"

#include "ozf/base/AsciiCase.h"
#include "ozf/xml/QueryNumber.h"
#include "tools/Format.h"
#include "tools/Output.h"

#include <charconv>
#include <cmath>
#include <cstring>
#include <langinfo.h>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;

namespace
{

// Facts of the product's own explorers, for those whose description is not
// stored or cannot be read.
OzfQuery::Attribute const* knownAttribute(std::string const& fact)
{
  static OzfQuery::Attribute const SIZE{"", OzfQuery::Type::SIZE, "bytes", ""};
  static OzfQuery::Attribute const NUMBER{"", OzfQuery::Type::NUMBER, "", ""};
  for (char const* name : {"Size", "Used", "Available", "Start", "SectorSize", "Memory", "Swap"})
    if (equalIgnoringCase(fact, name))
      return &SIZE;
  for (char const* name :
       {"Inodes", "InodesUsed", "Processors", "ProcessorSockets", "ProcessorCores", "Mtu", "Speed",
        "Port", "Packages", "StoredDiscoveries", "AnnouncedExplorers", "Priority"})
    if (equalIgnoringCase(fact, name))
      return &NUMBER;
  return nullptr;
}

// The value of a size or a duration, when people are shown it in a larger unit.
std::optional<std::uint64_t> magnitude(std::string const& value,
                                       OzfQuery::Attribute const* attribute)
{
  if (attribute == nullptr ||
      (attribute->type != OzfQuery::Type::SIZE && attribute->type != OzfQuery::Type::DURATION))
    return std::nullopt;
  auto const number = parseQueryNumber(value);
  constexpr long double MOST = 9.2e18L;
  if (!number || !std::isfinite(*number) || *number < 0 || *number >= MOST)
    return std::nullopt;
  return static_cast<std::uint64_t>(*number);
}

std::string formatMagnitude(std::uint64_t number, OzfQuery::Attribute const& attribute)
{
  return attribute.type == OzfQuery::Type::SIZE ? formatSize(number)
                                                : formatSpan(static_cast<std::int64_t>(number));
}

char const* arrow()
{
  return std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0 ? " \xE2\x86\x92 " : " -> ";
}

template <class Number>
bool readWhole(std::string const& text, Number& number)
{
  auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size();
}

} // namespace

OzfQuery::Attribute const* attributeOf(OzfQuery const& description, std::string const& fact)
{
  for (auto const& attribute : description.attributes())
    if (equalIgnoringCase(attribute.name.str(), fact))
      return &attribute;
  return description.attributes().empty() ? knownAttribute(fact) : nullptr;
}

bool isNumber(OzfQuery::Attribute const* attribute)
{
  return attribute != nullptr &&
         (attribute->type == OzfQuery::Type::SIZE || attribute->type == OzfQuery::Type::NUMBER ||
          attribute->type == OzfQuery::Type::DURATION);
}

std::string formatValue(std::string const& value, OzfQuery::Attribute const* attribute)
{
  auto const number = magnitude(value, attribute);
  return number ? formatMagnitude(*number, *attribute) : shown(value);
}

std::string formatChange(std::string const& before, std::string const& after,
                         OzfQuery::Attribute const* attribute)
{
  std::string const old = formatValue(before, attribute);
  std::string const now = formatValue(after, attribute);
  auto const from = magnitude(before, attribute);
  auto const to = magnitude(after, attribute);
  if (old != now || !from || !to || *from == *to)
    return old + arrow() + now;
  return now + " (" + (*to > *from ? '+' : '-') +
         formatMagnitude(*to > *from ? *to - *from : *from - *to, *attribute) + ')';
}

nlohmann::json valueToJson(std::string const& value, OzfQuery::Attribute const* attribute)
{
  if (attribute != nullptr && attribute->type == OzfQuery::Type::BOOLEAN &&
      (value == "true" || value == "false"))
    return value == "true";
  if (!isNumber(attribute))
    return value;
  // A share has its unit behind it, as the query language reads it.
  if (attribute->unit == OzfString("%") && value.ends_with('%'))
    return valueToJson(value.substr(0, value.size() - 1), attribute);
  std::uint64_t natural = 0;
  if (readWhole(value, natural))
    return natural;
  std::int64_t integer = 0;
  if (readWhole(value, integer))
    return integer;
  double number = 0;
  if (readWhole(value, number) && std::isfinite(number))
    return number;
  return value;
}

char const* typeName(OzfQuery::Type type)
{
  switch (type)
  {
  case OzfQuery::Type::TEXT:
    return "text";
  case OzfQuery::Type::NUMBER:
    return "number";
  case OzfQuery::Type::SIZE:
    return "size";
  case OzfQuery::Type::DURATION:
    return "duration";
  case OzfQuery::Type::TIME:
    return "time";
  case OzfQuery::Type::BOOLEAN:
    return "boolean";
  }
  return "text";
}

nlohmann::json toJson(OzfQuery::Attribute const& attribute)
{
  return {{"name", attribute.name.str()},
          {"type", typeName(attribute.type)},
          {"unit", attribute.unit.str()},
          {"description", attribute.description.str()}};
}

} // namespace tqdiscoctl
