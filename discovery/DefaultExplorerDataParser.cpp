#include "discovery/DefaultExplorerDataParser.h"

#include "discovery/DiscoveryLog.h"

#include <cstddef>
#include <ostream>
#include <typeinfo>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

namespace
{

constexpr char SOURCE[] = "DefaultExplorerDataParser";

// What most explorers write of one thing fits in. It is no larger than what a
// thread's allocator has at hand again at once: the text moves out of it when it
// is complete, for items are kept by the ten thousand.
constexpr std::size_t FIRST_CAPACITY = 1000;

class DefaultExplorerParserContext final : public XmlObjParseContext
{
public:
  DefaultExplorerParserContext(OzfString const& explorerName, XMLCh const* elementName,
                               XmlObjParseContext const* parent)
      : XmlObjParseContext(elementName, parent), m_data(new DefaultExplorerData(explorerName))
  {
    m_data->text().reserve(FIRST_CAPACITY);
  }

  AutoDereference<DefaultExplorerData> const& data() const noexcept { return m_data; }

  // Moves the character data since the last tag into the captured text.
  void captureText()
  {
    if (!hasText())
      return;
    XmlStr::append(m_data->text(), rawText(), XmlStr::UTF_8);
    clearText();
  }

private:
  AutoDereference<DefaultExplorerData> m_data;
};

DefaultExplorerParserContext& ownContext(XmlObjParseContext* context, char const* operation)
{
  // Asked for at every tag; comparing types costs less than a cast that may fail.
  OZF_ASSERT(context != nullptr && typeid(*context) == typeid(DefaultExplorerParserContext),
             "NULL != parserContext", SOURCE, operation);
  return static_cast<DefaultExplorerParserContext&>(*context);
}

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
  captured += '<';
  appendUtf8(captured, name);
  for (XMLSize_t i = 0; i < attributes.getLength(); ++i)
  {
    captured += " \"";
    appendUtf8(captured, attributes.getName(i));
    captured += "\"=\"";
    appendUtf8(captured, attributes.getValue(i));
    captured += '"';
  }
  captured += '>';
  return 1;
}

int DefaultExplorerDataParser::xmlEndElement(XmlObjParseContext* context, XMLCh const* name)
{
  auto& own = ownContext(context, "DefaultExplorerDataParser::xmlEndElement");
  own.captureText();
  if (own.isEndTag(name))
    return 0;
  std::string& captured = own.data()->text();
  captured += "</";
  appendUtf8(captured, name);
  captured += '>';
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
  own.data()->text().shrink_to_fit();
  return AutoDereference<DefaultExplorerData>(own.data()).release();
}

char const* DefaultExplorerDataParser::getExplorerParserName() const
{
  return DFLT_EXPLORER_DATA_PARSER;
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
