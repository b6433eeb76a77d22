// Items and facts as Discoveries gives them.

#include "discovery/Discoveries.h"
#include "ozf/base/AsciiCase.h"
#include "ozf/base/MetadataConverter.h"
#include "ozf/xml/QueryNumber.h"

#include <algorithm>
#include <cmath>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

namespace
{

using Kind = OzfQuery::Type;

// Null when it is not described.
OzfQuery::Attribute const* describedAs(AutoDereference<OzfQuery> const& description,
                                       std::string_view fact)
{
  if (description)
    for (OzfQuery::Attribute const& attribute : description->attributes())
      if (equalIgnoringCase(attribute.name.str(), fact))
        return &attribute;
  return nullptr;
}

} // namespace

std::string const& FoundFact::text() const noexcept
{
  static std::string const NONE;
  return m_value == nullptr ? NONE : *m_value;
}

bool FoundFact::isOf(std::initializer_list<OzfQuery::Type> kinds) const
{
  return m_value != nullptr &&
         (m_attribute == nullptr ||
          std::find(kinds.begin(), kinds.end(), m_attribute->type) != kinds.end());
}

std::optional<double> FoundFact::number() const
{
  if (!isOf({Kind::NUMBER, Kind::SIZE, Kind::DURATION}))
    return std::nullopt;
  auto const number = parseQueryNumber(*m_value);
  return number ? std::optional(static_cast<double>(*number)) : std::nullopt;
}

std::optional<std::uint64_t> FoundFact::bytes() const
{
  if (!isOf({Kind::SIZE}))
    return std::nullopt;
  constexpr long double BEYOND = 18446744073709551616.0L; // 2^64
  auto const number = parseQueryNumber(*m_value);
  if (!number || !(*number >= 0 && *number < BEYOND))
    return std::nullopt;
  return static_cast<std::uint64_t>(*number);
}

std::optional<double> FoundFact::seconds() const
{
  return isOf({Kind::DURATION}) ? number() : std::nullopt;
}

std::optional<OzfObjTime> FoundFact::time() const
{
  OzfObjTime time;
  if (!isOf({Kind::TIME}) || !MetadataConverter::convert(*m_value, time, false))
    return std::nullopt;
  return time;
}

std::optional<bool> FoundFact::flag() const
{
  if (!isOf({Kind::BOOLEAN}) || (*m_value != "true" && *m_value != "false"))
    return std::nullopt;
  return *m_value == "true";
}

FoundItem::FoundItem(std::shared_ptr<Origin const> origin, DiscoveredItem const& item)
    : m_origin(std::move(origin)), m_name(item.getName())
{
  if (StatusMsg const* const status = item.getStatusMsg())
    m_complaint =
        status->text().empty() ? "status " + std::to_string(status->code()) : status->text().str();
  readItemFacts(item, m_facts, m_text);
}

FoundFact FoundItem::operator[](std::string_view fact) const
{
  auto const found =
      std::find_if(m_facts.begin(), m_facts.end(),
                   [fact](auto const& each) { return equalIgnoringCase(each.first, fact); });
  if (found == m_facts.end())
    return {nullptr, nullptr};
  return {&found->second, describedAs(m_origin->description, fact)};
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
