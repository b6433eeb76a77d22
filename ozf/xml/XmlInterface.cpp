#include "ozf/xml/XmlInterface.h"

namespace Quillon::Tessarine::Ozf
{

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
  for (XMLSize_t i = 0; i < attributes.getLength(); ++i)
    if (XmlObjParseContext::cmptag(attributes.getName(i), name))
      return OzfString(std::u16string_view(attributes.getValue(i)));
  return std::nullopt;
}

} // namespace Quillon::Tessarine::Ozf
