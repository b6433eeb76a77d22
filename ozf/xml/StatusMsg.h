// A status message: a code, a severity and a text.

#pragma once

#include "ozf/base/Export.h"
#include "ozf/base/OzfString.h"
#include "ozf/sync/OZFRefCounted.h"
#include "ozf/xml/XmlInterface.h"

#include <string>

namespace Quillon::Tessarine::Ozf
{

// As XML: <STATUSMSG Code="13" Severity="2">text</STATUSMSG>. A message that
// was read keeps the name of the element that it was read from.
class OZF_EXPORT StatusMsg : public virtual OZFRefCounted, public XmlInterface
{
public:
  static constexpr char const* TAG = "STATUSMSG";

  enum Severity : unsigned
  {
    INFORMATION = 0,
    WARNING = 1,
    ERROR = 2
  };

  StatusMsg(unsigned code, Severity severity, OzfString text);

  unsigned code() const noexcept { return m_code; }
  Severity severity() const noexcept { return m_severity; }
  OzfString const& text() const noexcept { return m_text; }

  int xmlEndElement(XmlObjParseContext* context, XMLCh const* name) override;
  std::ostream& writeXml(std::ostream& os, XmlStr::Encoding encoding) const override;

private:
  friend OZF_EXPORT XmlObjParseContext* xmlCreateObject(XMLCh const*, AttributeList&,
                                                        XmlObjParseContext const*, StatusMsg*&);
  std::string m_tag = TAG;
  unsigned m_code;
  Severity m_severity;
  OzfString m_text;
};

// Starts reading a message from the element name: object becomes a new message
// with one reference for the caller. Returns the context for its events, which
// the caller owns. Attributes that are missing or not numbers read as 0.
OZF_EXPORT XmlObjParseContext* xmlCreateObject(XMLCh const* name, AttributeList& attributes,
                                               XmlObjParseContext const* parent,
                                               StatusMsg*& object);

} // namespace Quillon::Tessarine::Ozf
