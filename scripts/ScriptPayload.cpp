#include "scripts/ScriptPayload.h"

#include "ozf/base/AsciiCase.h"
#include "ozf/base/MetadataConverter.h"
#include "ozf/base/OzfObjTime.h"
#include "ozf/xml/QueryNumber.h"
#include "ozf/xml/XmlStr.h"

#include <algorithm>
#include <map>
#include <sstream>

namespace Quillon::Tessarine::Ozf::Scripts
{

namespace
{

constexpr auto ENCODING = XmlStr::UTF_8;

using Type = OzfQuery::Type;

struct LessIgnoringCase
{
  bool operator()(std::string const& a, std::string const& b) const
  {
    return compareIgnoringCase(a, b) < 0;
  }
};

// Why the value is none of that kind; null when it is one.
char const* mistakeIn(std::string const& value, Type kind)
{
  switch (kind)
  {
  case Type::NUMBER:
  case Type::SIZE:
  case Type::DURATION:
    return parseQueryNumber(value) ? nullptr : "no number";
  case Type::BOOLEAN:
    return value == "true" || value == "false" ? nullptr : "neither true nor false";
  case Type::TIME:
  {
    OzfObjTime time;
    return MetadataConverter::convert(value, time, false) ? nullptr
                                                          : "no time as 2026-01-01T10:00:00Z";
  }
  default:
    return nullptr;
  }
}

} // namespace

std::string itemsDocument(std::string const& explorer, std::string const& subject,
                          std::vector<ScriptItem> const& items)
{
  std::ostringstream text;
  XmlStr::xmlProlog(text, ENCODING) << "<DiscoveredItems>";
  for (ScriptItem const& item : items)
  {
    text << "<DISCOVERED Name=\"" << XmlStr(item.name.empty() ? subject : item.name, ENCODING)
         << "\"><ExplorerData Name=\"" << XmlStr(explorer, ENCODING) << "\">";
    for (ScriptFact const& fact : item.facts)
    {
      XmlStr::appendStart(text, fact.name.c_str()) << XmlStr(fact.value, ENCODING);
      XmlStr::appendEnd(text, fact.name.c_str());
    }
    text << "</ExplorerData></DISCOVERED>";
  }
  text << "</DiscoveredItems>\n";
  return text.str();
}

AutoDereference<OzfQuery> describeItems(std::vector<OzfQuery::Attribute> const& described,
                                        std::vector<ScriptItem> const& items)
{
  std::map<std::string, Type, LessIgnoringCase> kinds;
  std::vector<std::string const*> order;
  for (ScriptItem const& item : items)
    for (ScriptFact const& fact : item.facts)
    {
      auto const [kind, isNew] = kinds.try_emplace(fact.name, fact.kind);
      if (isNew)
        order.push_back(&fact.name);
      else if (kind->second != fact.kind)
        kind->second = Type::TEXT;
    }
  AutoDereference<OzfQuery> query(new OzfQuery);
  for (OzfQuery::Attribute const& attribute : described)
  {
    query->addAttribute(attribute);
    kinds.erase(attribute.name.str());
  }
  for (std::string const* const name : order)
    if (auto const kind = kinds.find(*name); kind != kinds.end())
      query->addAttribute({*name, kind->second, {}, {}});
  return query;
}

bool obeysDescription(std::vector<OzfQuery::Attribute> const& described,
                      std::vector<ScriptItem> const& items, std::string& mistake)
{
  std::map<std::string, Type, LessIgnoringCase> kinds;
  for (OzfQuery::Attribute const& attribute : described)
    kinds.emplace(attribute.name.str(), attribute.type);
  for (std::size_t number = 0; number < items.size(); ++number)
    for (ScriptFact const& fact : items[number].facts)
    {
      auto const kind = kinds.find(fact.name);
      char const* const wrong = kind == kinds.end() ? nullptr : mistakeIn(fact.value, kind->second);
      if (wrong == nullptr)
        continue;
      mistake = "item " + std::to_string(number + 1) + ": the fact " + fact.name + " is " + wrong +
                ", as which it is described: \"" + fact.value.substr(0, 80) + "\"";
      return false;
    }
  return true;
}

} // namespace Quillon::Tessarine::Ozf::Scripts
