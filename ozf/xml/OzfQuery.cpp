#include "ozf/xml/OzfQuery.h"

#include "ozf/log/Assertion.h"
#include "ozf/xml/QueryExpression.h"

#include <memory>
#include <ostream>
#include <utility>

namespace Quillon::Tessarine::Ozf
{

namespace
{

constexpr char SOURCE[] = "OzfQuery";

constexpr char ATTRIBUTE_TAG[] = "Attribute";
constexpr char NAME[] = "Name";
constexpr char TYPE[] = "Type";
constexpr char UNIT[] = "Unit";
constexpr char DESCRIPTION[] = "Description";

// In the list and in the index, the texts apart.
constexpr std::size_t ATTRIBUTE_SIZE = sizeof(OzfQuery::Attribute) + 96;

constexpr std::pair<char const*, OzfQuery::Type> TYPES[] = {
    {"text", OzfQuery::Type::TEXT}, {"number", OzfQuery::Type::NUMBER},
    {"size", OzfQuery::Type::SIZE}, {"duration", OzfQuery::Type::DURATION},
    {"time", OzfQuery::Type::TIME}, {"boolean", OzfQuery::Type::BOOLEAN},
};

// A type that this release does not know is read as text, which every value
// can be compared as.
OzfQuery::Type typeOf(std::string_view name)
{
  for (auto const& [text, type] : TYPES)
    if (name == text)
      return type;
  return OzfQuery::Type::TEXT;
}

char const* nameOf(OzfQuery::Type type)
{
  for (auto const& [text, candidate] : TYPES)
    if (candidate == type)
      return text;
  return TYPES[0].first;
}

class DescriptionContext : public XmlObjParseContext
{
public:
  using XmlObjParseContext::XmlObjParseContext;

  unsigned depth = 0; // elements open inside the description
};

DescriptionContext& contextOf(XmlObjParseContext* context, char const* operation)
{
  auto* const own = dynamic_cast<DescriptionContext*>(context);
  OZF_ASSERT(own != nullptr, "context", SOURCE, operation);
  return *own;
}

bool isBlank(std::string const& text)
{
  return text.find_first_not_of(" \t\n\v\f\r") == std::string::npos;
}

} // namespace

OzfQuery::OzfQuery() = default;

OzfQuery::~OzfQuery() = default;

OzfQuery::Attribute const* OzfQuery::findAttribute(std::string const& name) const
{
  auto const found = m_index.find(name);
  return found == m_index.end() ? nullptr : &m_attributes[found->second];
}

bool OzfQuery::addAttribute(Attribute attribute)
{
  if (attribute.name.empty() ||
      !m_index.try_emplace(attribute.name.str(), m_attributes.size()).second)
    return false;
  m_attributes.push_back(std::move(attribute));
  return true;
}

void OzfQuery::merge(OzfQuery const& other)
{
  if (&other == this)
    return;
  for (Attribute const& attribute : other.m_attributes)
    addAttribute(attribute);
}

int OzfQuery::setQuery(OzfString const& text)
{
  m_lastError.clear();
  if (text.size() > MAX_TEXT)
  {
    m_lastError = "the query has " + std::to_string(text.size()) + " bytes; expected at most " +
                  std::to_string(MAX_TEXT);
    return QUERY_TOO_LONG;
  }
  std::shared_ptr<QueryNode const> expression;
  if (!isBlank(text.str()))
  {
    ParsedQuery parsed = parseQuery(text.str());
    if (parsed.result != QUERY_OK)
    {
      m_lastError = std::move(parsed.error);
      return parsed.result;
    }
    expression = std::make_shared<QueryNode const>(std::move(parsed.expression));
  }
  m_text = text;
  m_expression = std::move(expression);
  return QUERY_OK;
}

bool OzfQuery::evaluate(Lookup const& lookup) const
{
  return m_expression == nullptr || evaluateQuery(*m_expression, lookup);
}

// A description has no text.
int OzfQuery::xmlCharacters(XmlObjParseContext*, XMLCh const*, unsigned long) { return 1; }

int OzfQuery::xmlStartElement(XmlObjParseContext* context, XMLCh const* name,
                              AttributeList& attributes)
{
  auto& own = contextOf(context, "OzfQuery::xmlStartElement");
  if (own.depth++ > 0 || !XmlObjParseContext::cmptag(name, ATTRIBUTE_TAG))
    return 1;
  auto const value = [&attributes](char const* attributeName)
  { return attribute(attributes, attributeName).value_or(OzfString()); };
  Attribute described{value(NAME), typeOf(value(TYPE).str()), value(UNIT), value(DESCRIPTION)};
  own.noteBuilt(ATTRIBUTE_SIZE + 2 * described.name.size() + described.unit.size() +
                described.description.size());
  addAttribute(std::move(described));
  return 1;
}

int OzfQuery::xmlEndElement(XmlObjParseContext* context, XMLCh const*)
{
  auto& own = contextOf(context, "OzfQuery::xmlEndElement");
  if (own.depth == 0)
    return 0;
  --own.depth;
  return 1;
}

std::ostream& OzfQuery::writeXml(std::ostream& os, XmlStr::Encoding encoding) const
{
  XmlStr::appendStart(os, QUERY_DESCRIPTION_TAG);
  for (Attribute const& attribute : m_attributes)
  {
    os << '<' << ATTRIBUTE_TAG << ' ' << NAME << "=\"" << XmlStr(attribute.name, encoding) << "\" "
       << TYPE << "=\"" << nameOf(attribute.type) << '"';
    if (!attribute.unit.empty())
      os << ' ' << UNIT << "=\"" << XmlStr(attribute.unit, encoding) << '"';
    if (!attribute.description.empty())
      os << ' ' << DESCRIPTION << "=\"" << XmlStr(attribute.description, encoding) << '"';
    os << "/>";
  }
  return XmlStr::appendEnd(os, QUERY_DESCRIPTION_TAG);
}

XmlObjParseContext* xmlCreateObject(XMLCh const* name, AttributeList&,
                                    XmlObjParseContext const* parent, OzfQuery*& object)
{
  object = nullptr;
  if (!XmlObjParseContext::cmptag(name, OzfQuery::QUERY_DESCRIPTION_TAG))
    return nullptr;
  auto context = std::make_unique<DescriptionContext>(name, parent);
  context->noteBuilt(sizeof(OzfQuery));
  object = new OzfQuery;
  return context.release();
}

} // namespace Quillon::Tessarine::Ozf
