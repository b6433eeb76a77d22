#include "tools/ItemJson.h"

#include "tools/Output.h"

#include <ostream>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;

namespace
{

// More names than any explorer has facts are those of somebody who makes them up.
constexpr std::size_t MOST_NAMES = 1000;

nlohmann::json nullIfEmpty(std::string const& text)
{
  return text.empty() ? nlohmann::json() : nlohmann::json(text);
}

} // namespace

OzfQuery const& Descriptions::of(Record const& record)
{
  if (m_known.find(record.authority) == nullptr)
    m_known.keep(record.authority, describe(record));
  return *m_known.find(record.authority);
}

nlohmann::json factsObject(Item::Facts const& facts, OzfQuery const& description)
{
  nlohmann::json result = nlohmann::json::object();
  std::set<std::string> repeated;
  for (auto const& [name, value] : facts)
  {
    nlohmann::json const fact = valueToJson(value, attributeOf(description, name));
    if (!result.contains(name))
      result[name] = fact;
    else if (repeated.insert(name).second)
      result[name] = nlohmann::json::array({result[name], fact});
    else
      result[name].push_back(fact);
  }
  return result;
}

nlohmann::json toJson(Item const& item, OzfQuery const& description, bool asList)
{
  nlohmann::json facts = nlohmann::json::array();
  if (asList)
    for (auto const& [name, value] : item.facts)
      facts.push_back({{"name", name}, {"value", value}});
  else
    facts = factsObject(item.facts, description);
  nlohmann::json result = {{"name", item.name}, {"facts", std::move(facts)}};
  result["status"] = nullptr;
  if (item.status)
    result["status"] = {{"code", item.status->code},
                        {"severity", item.status->severity},
                        {"text", item.status->text}};
  result["policy"] = nullIfEmpty(item.policy);
  result["text"] = nullIfEmpty(item.text);
  return result;
}

void CollectionPrinter::item(Record const& record, Item const& item)
{
  begin(record);
  OzfQuery const& description = m_descriptions.of(record);
  for (auto const& [name, value] : item.facts)
    if (m_facts.size() < MOST_NAMES && attributeOf(description, name) != nullptr)
      m_facts.insert(name);
  std::size_t const depth = m_array ? 6 : 4;
  m_os << (m_items++ == 0 ? "\n" : ",\n") << std::string(depth, ' ')
       << jsonText(toJson(item, description, m_asList), 2, depth);
}

void CollectionPrinter::end(Record const& record, Collection const& collection)
{
  begin(record);
  std::size_t const depth = m_array ? 4 : 2;
  m_os << (m_items == 0 ? "" : '\n' + std::string(depth, ' ')) << "],\n";
  nlohmann::json schema = nlohmann::json::object();
  for (std::string const& name : m_facts)
    if (auto const* const attribute = attributeOf(m_descriptions.of(record), name))
      schema[name] = {{"type", typeName(attribute->type)},
                      {"unit", attribute->unit.str()},
                      {"description", attribute->description.str()}};
  nlohmann::json attributes = nlohmann::json::array();
  for (auto const& attribute : collection.attributes)
    attributes.push_back(toJson(attribute));
  member("schema", schema, ",");
  member("attributes", attributes, ",");
  member("complete", collection.complete);
  m_os << std::string(depth - 2, ' ') << '}' << (m_array ? "" : "\n");
  m_open = false;
  m_items = 0;
  m_facts.clear();
}

void CollectionPrinter::finish()
{
  if (m_array)
    m_os << (m_collections == 0 ? "[]\n" : "\n]\n");
}

void CollectionPrinter::begin(Record const& record)
{
  if (m_open)
    return;
  m_open = true;
  if (m_array)
    m_os << (m_collections == 0 ? "[\n  " : ",\n  ");
  ++m_collections;
  m_os << "{\n";
  nlohmann::json const members = toJson(record);
  for (auto const& [name, value] : members.items())
    member(name.c_str(), value, ",");
  m_os << std::string(m_array ? 4 : 2, ' ') << "\"items\": [";
}

void CollectionPrinter::member(char const* name, nlohmann::json const& value, char const* behind)
{
  std::size_t const depth = m_array ? 4 : 2;
  m_os << std::string(depth, ' ') << '"' << name << "\": " << jsonText(value, 2, depth) << behind
       << '\n';
}

} // namespace tqdiscoctl
