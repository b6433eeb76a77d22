// Objects that are read from XML events and write themselves as XML.

#pragma once

#include "ozf/base/Export.h"
#include "ozf/xml/XmlObjParseContext.h"
#include "ozf/xml/XmlStr.h"

#include <iosfwd>
#include <optional>
#include <string>
#include <xercesc/sax/AttributeList.hpp>

namespace Quillon::Tessarine::Ozf
{

using xercesc::AttributeList;

// The calls come in document order on the parsing thread. The results of the
// event operations tell whether the object is complete: 0 at the end of the
// element that opened its context, non-zero otherwise.
class OZF_EXPORT XmlInterface
{
public:
  virtual ~XmlInterface() = default;

  // Default: the context collects the text.
  virtual int xmlCharacters(XmlObjParseContext* context, XMLCh const* chars, unsigned long length);

  // Default: ignores the element.
  virtual int xmlStartElement(XmlObjParseContext* context, XMLCh const* name,
                              AttributeList& attributes);

  // Default: 0 when the tag closes the context's element, else 1.
  virtual int xmlEndElement(XmlObjParseContext* context, XMLCh const* name);

  // Default: writes nothing. Returns os.
  virtual std::ostream& writeXml(std::ostream& os, XmlStr::Encoding encoding) const;

  // The value of an attribute, absent when the element has none of that name.
  static std::optional<OzfString> attribute(AttributeList const& attributes, char const* name);
  // The same, put into value, which stays as it is when there is none.
  static bool getAttribute(AttributeList const& attributes, char const* name, std::string& value);
};

} // namespace Quillon::Tessarine::Ozf
