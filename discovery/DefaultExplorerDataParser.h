// The parser for explorers that bring none of their own: it keeps what they
// wrote as text.

#pragma once

#include "discovery/Explorer.h"

#include <string>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// The inside of one ExplorerData element as text.
class TQ_EXPORT DefaultExplorerData : public virtual ExplorerData
{
public:
  explicit DefaultExplorerData(OzfString const& explorerName) : m_explorerName(explorerName) {}

  // The text as captured, whatever the encoding.
  std::ostream& writeXml(std::ostream& os, XmlStr::Encoding encoding) const override;

  // What the parser fills.
  std::string& text() noexcept { return m_text; }
  OzfString const& getExplorerName() const noexcept { return m_explorerName; }

private:
  std::string m_text;
  OzfString m_explorerName;
};

// Serves any number of parses at a time: what it reads lies in the context.
//
// The text is close to the XML that was read, but not the same: comments are
// gone, an element without content has two tags, and the names of attributes
// stand in double quotes like their values (<e "a"="1">). Readers rely on it.
class TQ_EXPORT DefaultExplorerDataParser : public virtual ExplorerDataParser
{
public:
  int xmlStartElement(XmlObjParseContext* context, XMLCh const* name,
                      AttributeList& attributes) override;
  int xmlEndElement(XmlObjParseContext* context, XMLCh const* name) override;

  // A parser has nothing to write: fails an assertion.
  std::ostream& writeXml(std::ostream& os, XmlStr::Encoding encoding) const override;

  XmlObjParseContext* getParseContext(OzfString const& explorerName, XMLCh const* elementName,
                                      XmlObjParseContext const* parent) override;
  ExplorerData* getExplorerData(XmlObjParseContext* context) override;
  char const* getExplorerParserName() const override;
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
