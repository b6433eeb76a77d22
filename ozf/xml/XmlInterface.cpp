#include "ozf/xml/XmlInterface.h"

namespace Quillon::Tessarine::Ozf
{

namespace
{

// The value of the attribute, null when the element has none of that name.
XMLCh const* find(AttributeList const& attributes, char const* name)
{
  XMLSize_t const count = attributes.getLength();
  for (XMLSize_t i = 0; i < count; ++i)
    if (XmlObjParseContext::cmptag(attributes.getName(i), name))
      return attributes.getValue(i);
  return nullptr;
}

} // namespace

int XmlInterface::xmlCharacters(XmlObjParseContext* context, XMLCh const* chars,
                                unsigned long length)
{
  context->appendText(chars, length);
  return 1;
}

int XmlInterface::xmlStartElement(XmlObjParseContext*, XMLCh const*, AttributeList&) { return 1; }

int XmlInterface::xmlEndElement(XmlObjParseContext* context, XMLCh const* name)
{
  return context->isEndTag(name) ? 0 : 1;
}

std::ostream& XmlInterface::writeXml(std::ostream& os, XmlStr::Encoding) const { return os; }

std::optional<OzfString> XmlInterface::attribute(AttributeList const& attributes, char const* name)
{
  XMLCh const* const value = find(attributes, name);
  return value != nullptr ? std::optional<OzfString>(std::u16string_view(value)) : std::nullopt;
}

bool XmlInterface::getAttribute(AttributeList const& attributes, char const* name,
                                std::string& value)
{
  XMLCh const* const found = find(attributes, name);
  if (found == nullptr)
    return false;
  value.clear();
  appendUtf8(value, found);
  return true;
}

} // namespace Quillon::Tessarine::Ozf
