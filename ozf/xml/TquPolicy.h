// The policy under which something was found: a name, a type and attributes.

#pragma once

#include "ozf/base/Export.h"
#include "ozf/base/OzfString.h"
#include "ozf/sync/OZFRefCounted.h"
#include "ozf/xml/XmlInterface.h"

#include <utility>
#include <vector>

namespace Quillon::Tessarine::Ozf
{

// As XML:
//
//   <TQUPolicy Name="nightly" Type="full"><Attribute Name="k">v</Attribute></TQUPolicy>
//
// Unknown elements are skipped when it is read, with everything in them.
class OZF_EXPORT TquPolicy : public virtual OZFRefCounted, public XmlInterface
{
public:
  static constexpr char const* TAG = "TQUPolicy";

  TquPolicy(OzfString name, OzfString type);

  using Attributes = std::vector<std::pair<OzfString, OzfString>>; // name and value

  OzfString const& name() const noexcept { return m_name; }
  OzfString const& type() const noexcept { return m_type; }
  Attributes const& attributes() const noexcept { return m_attributes; } // in document order

  void addAttribute(OzfString name, OzfString value);

  int xmlCharacters(XmlObjParseContext* context, XMLCh const* chars, unsigned long length) override;
  int xmlStartElement(XmlObjParseContext* context, XMLCh const* name,
                      AttributeList& attributes) override;
  int xmlEndElement(XmlObjParseContext* context, XMLCh const* name) override;
  std::ostream& writeXml(std::ostream& os, XmlStr::Encoding encoding) const override;

private:
  OzfString m_name;
  OzfString m_type;
  Attributes m_attributes;
};

// Starts reading a policy from the element name: object becomes a new policy
// with one reference for the caller. Returns the context for its events, which
// the caller owns. Name and type are empty when their attributes are missing.
OZF_EXPORT XmlObjParseContext* xmlCreateObject(XMLCh const* name, AttributeList& attributes,
                                               XmlObjParseContext const* parent,
                                               TquPolicy*& object);

} // namespace Quillon::Tessarine::Ozf
