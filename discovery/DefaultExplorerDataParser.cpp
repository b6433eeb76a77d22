#include "discovery/DefaultExplorerDataParser.h"

#include "discovery/DiscoveryLog.h"

#include <ostream>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

namespace
{

constexpr char SOURCE[] = "DefaultExplorerDataParser";

class DefaultExplorerParserContext : public XmlObjParseContext
{
public:
  DefaultExplorerParserContext(OzfString const& explorerName, XMLCh const* elementName,
                               XmlObjParseContext const* parent)
      : XmlObjParseContext(elementName, parent), m_data(new DefaultExplorerData(explorerName))
  {
  }

  AutoDereference<DefaultExplorerData> const& data() const noexcept { return m_data; }

  // Moves the character data since the last tag into the captured text.
  void captureText()
  {
    m_data->text() += XmlStr(text(), XmlStr::UTF_8).text();
    clearText();
  }

private:
  AutoDereference<DefaultExplorerData> m_data;
};

DefaultExplorerParserContext& ownContext(XmlObjParseContext* context, char const* operation)
{
  auto* const own = dynamic_cast<DefaultExplorerParserContext*>(context);
  OZF_ASSERT(own != nullptr, "NULL != parserContext", SOURCE, operation);
  return *own;
}

std::string toUtf8(XMLCh const* text) { return OzfString(std::u16string_view(text)).str(); }

} // namespace

std::ostream& DefaultExplorerData::writeXml(std::ostream& os, XmlStr::Encoding) const
{
  return os << m_text;
}

int DefaultExplorerDataParser::xmlStartElement(XmlObjParseContext* context, XMLCh const* name,
                                               AttributeList& attributes)
{
  auto& own = ownContext(context, "DefaultExplorerDataParser::xmlStartElement");
  own.captureText();
  std::string& captured = own.data()->text();
  captured += '<' + toUtf8(name);
  for (XMLSize_t i = 0; i < attributes.getLength(); ++i)
    captured +=
        " \"" + toUtf8(attributes.getName(i)) + "\"=\"" + toUtf8(attributes.getValue(i)) + '"';
  captured += '>';
  return 1;
}

int DefaultExplorerDataParser::xmlEndElement(XmlObjParseContext* context, XMLCh const* name)
{
  auto& own = ownContext(context, "DefaultExplorerDataParser::xmlEndElement");
  own.captureText();
  if (own.isEndTag(name))
    return 0;
  own.data()->text() += "</" + toUtf8(name) + '>';
  return 1;
}

std::ostream& DefaultExplorerDataParser::writeXml(std::ostream&, XmlStr::Encoding) const
{
  assertionFailed("SHOULD_NOT_GET_HERE", "DefaultExplorerDataParser::writeXml", SOURCE, __LINE__);
}

XmlObjParseContext* DefaultExplorerDataParser::getParseContext(OzfString const& explorerName,
                                                               XMLCh const* elementName,
                                                               XmlObjParseContext const* parent)
{
  return new DefaultExplorerParserContext(explorerName, elementName, parent);
}

ExplorerData* DefaultExplorerDataParser::getExplorerData(XmlObjParseContext* context)
{
  auto& own = ownContext(context, "DefaultExplorerDataParser::getExplorerData");
  return AutoDereference<DefaultExplorerData>(own.data()).release();
}

char const* DefaultExplorerDataParser::getExplorerParserName() const
{
  return DFLT_EXPLORER_DATA_PARSER;
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
