#include "ozf/xml/StatusMsg.h"

#include "ozf/base/MetadataConverter.h"
#include "ozf/sync/AutoDereference.h"

#include <memory>
#include <ostream>

namespace Quillon::Tessarine::Ozf
{

namespace
{

constexpr char CODE[] = "Code";
constexpr char SEVERITY[] = "Severity";

unsigned numberAttribute(AttributeList const& attributes, char const* name)
{
  unsigned value = 0;
  if (auto const text = XmlInterface::attribute(attributes, name))
    MetadataConverter::convert(text->str(), value);
  return value;
}

} // namespace

StatusMsg::StatusMsg(unsigned code, Severity severity, OzfString text)
    : m_code(code), m_severity(severity), m_text(std::move(text))
{
}

int StatusMsg::xmlEndElement(XmlObjParseContext* context, XMLCh const* name)
{
  if (!context->isEndTag(name))
    return 1;
  m_text = context->text();
  context->noteBuilt(m_text.size());
  return 0;
}

std::ostream& StatusMsg::writeXml(std::ostream& os, XmlStr::Encoding encoding) const
{
  // std::to_string, since the stream may be set to hexadecimal or group digits.
  os << '<' << m_tag << ' ' << CODE << "=\"" << std::to_string(m_code) << "\" " << SEVERITY << "=\""
     << std::to_string(m_severity) << "\">" << XmlStr(m_text, encoding);
  return XmlStr::appendEnd(os, m_tag.c_str());
}

XmlObjParseContext* xmlCreateObject(XMLCh const* name, AttributeList& attributes,
                                    XmlObjParseContext const* parent, StatusMsg*& object)
{
  auto context = std::make_unique<XmlObjParseContext>(name, parent);
  AutoDereference<StatusMsg> message(new StatusMsg(
      numberAttribute(attributes, CODE),
      static_cast<StatusMsg::Severity>(numberAttribute(attributes, SEVERITY)), OzfString()));
  message->m_tag = OzfString(std::u16string_view(name)).str();
  context->noteBuilt(sizeof(StatusMsg));
  object = message.release();
  return context.release();
}

} // namespace Quillon::Tessarine::Ozf
