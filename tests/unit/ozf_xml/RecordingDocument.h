// A document that writes down what it is told.

#pragma once

#include "ozf/xml/XmlDocumentInterface.h"

#include <functional>
#include <string>

namespace Quillon::Tessarine::Ozf
{

inline std::string narrowName(XMLCh const* name)
{
  return OzfString(std::u16string_view(name)).str();
}

// So many elements a, one in the other, with the text before each but the first.
inline std::string nestedElements(int depth, char const* text = "")
{
  std::string document;
  for (int i = 0; i < depth; ++i)
    document.append(i == 0 ? "" : text).append("<a>");
  for (int i = 0; i < depth; ++i)
    document += "</a>";
  return document;
}

// "(a)x/b:1" reads: a opened with text x before b closed, and 1 was answered.
class RecordingDocument : public XmlDocumentInterface
{
public:
  std::string events;
  std::function<void(std::string const& name)> onStart;

  int xmlStartElement(XmlObjParseContext*, XMLCh const* name, AttributeList& attributes) override
  {
    events += "(" + narrowName(name);
    for (XMLSize_t i = 0; i < attributes.getLength(); ++i)
      events += " " + narrowName(attributes.getName(i)) + "=" + narrowName(attributes.getValue(i));
    events += ")";
    if (onStart)
      onStart(narrowName(name));
    return 1;
  }

  int xmlCharacters(XmlObjParseContext*, XMLCh const* chars, unsigned long length) override
  {
    events += OzfString(std::u16string_view(chars, length)).str();
    return 1;
  }

  int xmlEndElement(XmlObjParseContext* context, XMLCh const* name) override
  {
    int const result = XmlDocumentInterface::xmlEndElement(context, name);
    events += "/" + narrowName(name) + ":" + std::to_string(result);
    return result;
  }
};

} // namespace Quillon::Tessarine::Ozf
