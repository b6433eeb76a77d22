#include "discovery/DefaultExplorerDataParser.h"

#include "discovery/DiscoveryLog.h"
#include "ozf/base/AsciiRun.h"

#include <array>
#include <cstddef>
#include <ostream>
#include <string_view>
#include <typeinfo>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

namespace
{

constexpr char SOURCE[] = "DefaultExplorerDataParser";

// What most explorers write of one thing fits in. With the rest of a context it
// is no larger than what a thread's allocator has at hand again at once.
constexpr std::size_t BUFFER_SIZE = 768;

// The captured text of one element on its way into the data: the pieces are
// short and many, and a string costs more with each than the piece itself.
class Capture
{
public:
  Capture(std::string& text, XmlObjParseContext& context) : m_text(text), m_context(context) {}

  void add(std::string_view piece)
  {
    makeRoom(piece.size());
    m_used += piece.copy(m_buffer.data() + m_used, piece.size());
  }

  void addUnescaped(std::u16string_view piece)
  {
    if (addPlain(piece, [](auto units) { return units >= 0x80; }))
      return;
    flush();
    std::size_t const before = m_text.size();
    appendUtf8(m_text, piece);
    m_context.noteBuilt(m_text.size() - before);
  }

  void addEscaped(std::u16string_view piece)
  {
    if (addPlain(piece, [](auto units) { return XmlStr::changes(units); }))
      return;
    flush();
    std::size_t const before = m_text.size();
    XmlStr::append(m_text, piece, XmlStr::UTF_8);
    m_context.noteBuilt(m_text.size() - before);
  }

  void flush()
  {
    m_context.noteBuilt(m_used);
    m_text.append(m_buffer.data(), m_used);
    m_used = 0;
  }

private:
  // False when the buffer is too small for that many.
  bool makeRoom(std::size_t size)
  {
    if (size > m_buffer.size() - m_used)
      flush();
    return size <= m_buffer.size();
  }

  template <class IsStrange>
  bool addPlain(std::u16string_view piece, IsStrange isStrange)
  {
    if (!makeRoom(piece.size()) || !narrowAscii(piece, m_buffer.data() + m_used, isStrange))
      return false;
    m_used += piece.size();
    return true;
  }

  std::string& m_text;
  XmlObjParseContext& m_context;
  std::size_t m_used = 0;
  std::array<char, BUFFER_SIZE> m_buffer;
};

class DefaultExplorerParserContext final : public XmlObjParseContext
{
public:
  DefaultExplorerParserContext(OzfString const& explorerName, XMLCh const* elementName,
                               XmlObjParseContext const* parent)
      : XmlObjParseContext(elementName, parent),
        m_data(new DefaultExplorerData(explorerName)),
        m_capture(m_data->text(), *this)
  {
    noteBuilt(sizeof(DefaultExplorerData) + explorerName.size());
  }

  AutoDereference<DefaultExplorerData> const& data() const noexcept { return m_data; }
  Capture& captured() noexcept { return m_capture; }

  // Moves the character data since the last tag into the captured text.
  void captureText()
  {
    if (!hasText())
      return;
    m_capture.addEscaped(rawText());
    clearText();
  }

private:
  AutoDereference<DefaultExplorerData> m_data;
  Capture m_capture;
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
  Capture& captured = own.captured();
  captured.add("<");
  captured.addUnescaped(name);
  for (XMLSize_t i = 0; i < attributes.getLength(); ++i)
  {
    captured.add(" \"");
    captured.addUnescaped(attributes.getName(i));
    captured.add("\"=\"");
    captured.addUnescaped(attributes.getValue(i));
    captured.add("\"");
  }
  captured.add(">");
  return 1;
}

int DefaultExplorerDataParser::xmlEndElement(XmlObjParseContext* context, XMLCh const* name)
{
  auto& own = ownContext(context, "DefaultExplorerDataParser::xmlEndElement");
  own.captureText();
  if (own.isEndTag(name))
    return 0;
  Capture& captured = own.captured();
  captured.add("</");
  captured.addUnescaped(name);
  captured.add(">");
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
  own.captured().flush();
  own.data()->text().shrink_to_fit();
  return AutoDereference<DefaultExplorerData>(own.data()).release();
}

char const* DefaultExplorerDataParser::getExplorerParserName() const
{
  return DFLT_EXPLORER_DATA_PARSER;
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
