#include "tools/XmlText.h"

#include "ozf/xml/XmlDocumentInterface.h"

#include <sstream>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;

namespace
{

class Indenter : public XmlDocumentInterface
{
public:
  std::string text() const { return m_out.str(); }

  int xmlStartElement(XmlObjParseContext* context, XMLCh const* name,
                      AttributeList& attributes) override
  {
    writeText(*context);
    if (m_open)
      m_out << ">\n";
    indent();
    m_out << '<' << OzfString(std::u16string_view(name)).str();
    for (XMLSize_t i = 0; i < attributes.getLength(); ++i)
      m_out << ' ' << OzfString(std::u16string_view(attributes.getName(i))).str() << "=\""
            << XmlStr(std::u16string_view(attributes.getValue(i)), XmlStr::UTF_8) << '"';
    m_open = true;
    m_hadText = false;
    ++m_level;
    return 1;
  }

  int xmlEndElement(XmlObjParseContext* context, XMLCh const* name) override
  {
    writeText(*context);
    --m_level;
    if (m_open)
      m_out << "/>\n";
    else
    {
      if (!m_hadText)
        indent();
      m_out << "</" << OzfString(std::u16string_view(name)).str() << ">\n";
    }
    m_open = false;
    m_hadText = false;
    return 1;
  }

private:
  void indent() { m_out << std::string(2 * m_level, ' '); }

  void writeText(XmlObjParseContext& context)
  {
    std::string const collected = context.text().str();
    context.clearText();
    if (collected.find_first_not_of(" \t\r\n") == std::string::npos)
      return;
    if (m_open)
      m_out << '>';
    m_out << XmlStr(OzfString(collected), XmlStr::UTF_8);
    m_open = false;
    m_hadText = true;
  }

  std::ostringstream m_out;
  std::size_t m_level = 0;
  bool m_open = false;    // a start tag still lacks its '>'
  bool m_hadText = false; // text stands before the cursor on this line
};

} // namespace

bool indentXml(std::string const& text, std::string& result, std::string& reason)
{
  result.clear();
  Indenter indenter;
  if (!indenter.parseBuffer(std::string_view(text)))
  {
    reason = indenter.lastError();
    return false;
  }
  result = indenter.text();
  return true;
}

} // namespace tqdiscoctl
