// A document whose root element is one object of the vocabulary.

#pragma once

#include "ozf/sync/AutoDereference.h"
#include "ozf/xml/XmlDocumentInterface.h"

#include <memory>
#include <sstream>
#include <string>

namespace Quillon::Tessarine::Ozf
{

template <class Object>
class ObjectDocument : public XmlDocumentInterface
{
public:
  AutoDereference<Object> object; // null when the root makes none
  bool complete = false;          // its end tag was told
  int afterEnd = 0;               // events that came later

  explicit ObjectDocument(std::string const& xml) { parsed = parseBuffer(xml); }
  bool parsed;

  int xmlStartElement(XmlObjParseContext* context, XMLCh const* name,
                      AttributeList& attributes) override
  {
    afterEnd += complete;
    if (object)
      return object->xmlStartElement(m_context.get(), name, attributes);
    Object* made = nullptr;
    m_context.reset(xmlCreateObject(name, attributes, context, made));
    object.reset(made);
    return 1;
  }
  int xmlCharacters(XmlObjParseContext*, XMLCh const* chars, unsigned long length) override
  {
    afterEnd += complete;
    return object ? object->xmlCharacters(m_context.get(), chars, length) : 1;
  }
  int xmlEndElement(XmlObjParseContext*, XMLCh const* name) override
  {
    afterEnd += complete;
    if (object && object->xmlEndElement(m_context.get(), name) == 0)
      complete = true;
    return 1;
  }

private:
  std::unique_ptr<XmlObjParseContext> m_context;
};

inline std::string xmlOf(XmlInterface const& object, XmlStr::Encoding encoding = XmlStr::UTF_8)
{
  std::ostringstream os;
  object.writeXml(os, encoding);
  return os.str();
}

} // namespace Quillon::Tessarine::Ozf
