#include "ozf/xml/XmlObjParseContext.h"

namespace Quillon::Tessarine::Ozf
{

XmlObjParseContext::XmlObjParseContext(XMLCh const* name, XmlObjParseContext const* parent)
    : m_name(name),
      m_parent(parent),
      m_depth(parent != nullptr ? parent->m_depth : &m_ownDepth),
      m_openedAt(*m_depth)
{
}

XmlObjParseContext::~XmlObjParseContext() = default;

bool XmlObjParseContext::isEndTag(XMLCh const* name) const
{
  return *m_depth == m_openedAt && m_name == name;
}

OzfString XmlObjParseContext::text() const { return OzfString(std::u16string_view(m_text)); }

void XmlObjParseContext::appendText(XMLCh const* chars, unsigned long length)
{
  m_text.append(chars, length);
}

bool XmlObjParseContext::cmptag(XMLCh const* name, char const* tag)
{
  while (*tag != '\0' && *name == static_cast<unsigned char>(*tag))
  {
    ++name;
    ++tag;
  }
  return *tag == '\0' && *name == u'\0';
}

} // namespace Quillon::Tessarine::Ozf
