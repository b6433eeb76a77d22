#include "ozf/xml/TquPolicy.h"

#include "ozf/log/Assertion.h"

#include <memory>
#include <ostream>
#include <utility>

namespace Quillon::Tessarine::Ozf
{

namespace
{

constexpr char SOURCE[] = "TquPolicy";

constexpr char NAME[] = "Name";
constexpr char TYPE[] = "Type";
constexpr char ATTRIBUTE_TAG[] = "Attribute";

class PolicyContext : public XmlObjParseContext
{
public:
  using XmlObjParseContext::XmlObjParseContext;

  unsigned depth = 0; // elements open inside the policy
  bool inAttribute = false;
  OzfString attributeName;
};

PolicyContext& contextOf(XmlObjParseContext* context, char const* operation)
{
  auto* const own = dynamic_cast<PolicyContext*>(context);
  OZF_ASSERT(own != nullptr, "context", SOURCE, operation);
  return *own;
}

OzfString valueOf(AttributeList const& attributes, char const* name)
{
  return XmlInterface::attribute(attributes, name).value_or(OzfString());
}

} // namespace

TquPolicy::TquPolicy(OzfString name, OzfString type)
    : m_name(std::move(name)), m_type(std::move(type))
{
}

void TquPolicy::addAttribute(OzfString name, OzfString value)
{
  m_attributes.emplace_back(std::move(name), std::move(value));
}

int TquPolicy::xmlCharacters(XmlObjParseContext* context, XMLCh const* chars, unsigned long length)
{
  auto const& own = contextOf(context, "TquPolicy::xmlCharacters");
  if (own.inAttribute && own.depth == 1)
    context->appendText(chars, length);
  return 1;
}

int TquPolicy::xmlStartElement(XmlObjParseContext* context, XMLCh const* name,
                               AttributeList& attributes)
{
  auto& own = contextOf(context, "TquPolicy::xmlStartElement");
  if (own.depth++ == 0 && XmlObjParseContext::cmptag(name, ATTRIBUTE_TAG))
  {
    own.inAttribute = true;
    own.attributeName = valueOf(attributes, NAME);
    own.clearText();
  }
  return 1;
}

int TquPolicy::xmlEndElement(XmlObjParseContext* context, XMLCh const*)
{
  auto& own = contextOf(context, "TquPolicy::xmlEndElement");
  if (own.depth == 0)
    return 0;
  if (--own.depth == 0 && own.inAttribute)
  {
    OzfString const text = own.text();
    own.noteBuilt(2 * sizeof(OzfString) + own.attributeName.size() + text.size());
    addAttribute(own.attributeName, text);
    own.inAttribute = false;
    own.clearText();
  }
  return 1;
}

std::ostream& TquPolicy::writeXml(std::ostream& os, XmlStr::Encoding encoding) const
{
  os << '<' << TAG << ' ' << NAME << "=\"" << XmlStr(m_name, encoding) << "\" " << TYPE << "=\""
     << XmlStr(m_type, encoding) << "\">";
  for (auto const& [name, value] : m_attributes)
  {
    os << '<' << ATTRIBUTE_TAG << ' ' << NAME << "=\"" << XmlStr(name, encoding) << "\">"
       << XmlStr(value, encoding);
    XmlStr::appendEnd(os, ATTRIBUTE_TAG);
  }
  return XmlStr::appendEnd(os, TAG);
}

XmlObjParseContext* xmlCreateObject(XMLCh const* name, AttributeList& attributes,
                                    XmlObjParseContext const* parent, TquPolicy*& object)
{
  auto context = std::make_unique<PolicyContext>(name, parent);
  OzfString policyName = valueOf(attributes, NAME);
  OzfString type = valueOf(attributes, TYPE);
  context->noteBuilt(sizeof(TquPolicy) + policyName.size() + type.size());
  object = new TquPolicy(std::move(policyName), std::move(type));
  return context.release();
}

} // namespace Quillon::Tessarine::Ozf
