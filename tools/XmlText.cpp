#include "tools/XmlText.h"

#include "ozf/base/Display.h"
#include "ozf/xml/XmlDocumentInterface.h"

#include <algorithm>
#include <sstream>
#include <utility>
#include <vector>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;

namespace
{

bool isBlank(std::string const& text)
{
  return text.find_first_not_of(" \t\r\n") == std::string::npos;
}

// Deeper lines stand no further in: a payload of many small elements that lie
// deep would be little else than indentation.
constexpr std::size_t MOST_LEVELS = 32;

// Asks of a document nothing but that it is one.
class AnyDocument : public XmlDocumentInterface
{
public:
  int xmlStartElement(XmlObjParseContext* context, XMLCh const*, AttributeList&) override
  {
    context->clearText();
    return 1;
  }
  int xmlEndElement(XmlObjParseContext* context, XMLCh const*) override
  {
    context->clearText();
    return 1;
  }
};

// Tells which elements have text beside other elements; in the order of their
// start tags.
class MixedElements : public XmlDocumentInterface
{
public:
  std::vector<bool> take() { return std::move(m_mixed); }

  int xmlStartElement(XmlObjParseContext* context, XMLCh const*, AttributeList&) override
  {
    if (!m_open.empty())
    {
      note(*context);
      m_open.back().elements = true;
    }
    m_open.push_back({m_mixed.size()});
    m_mixed.push_back(false);
    return 1;
  }

  int xmlEndElement(XmlObjParseContext* context, XMLCh const*) override
  {
    note(*context);
    Element const& element = m_open.back();
    m_mixed[element.number] = element.elements && element.text;
    m_open.pop_back();
    return 1;
  }

private:
  struct Element
  {
    std::size_t number;
    bool elements = false;
    bool text = false;
  };

  void note(XmlObjParseContext& context)
  {
    m_open.back().text = m_open.back().text || !isBlank(context.text().str());
    context.clearText();
  }

  std::vector<bool> m_mixed;
  std::vector<Element> m_open;
};

// An element a line, but those with text beside elements as they are: there
// every blank and line break counts.
class Indenter : public XmlDocumentInterface
{
public:
  explicit Indenter(std::vector<bool> mixed) : m_mixed(std::move(mixed)) {}

  std::string text() const { return m_out.str(); }

  int xmlStartElement(XmlObjParseContext* context, XMLCh const* name,
                      AttributeList& attributes) override
  {
    writeText(*context);
    if (m_open)
      m_out << (inMixed() ? ">" : ">\n");
    if (!inMixed())
      indent();
    m_out << '<' << OzfString(std::u16string_view(name)).str();
    for (XMLSize_t i = 0; i < attributes.getLength(); ++i)
      m_out << ' ' << OzfString(std::u16string_view(attributes.getName(i))).str() << "=\""
            << XmlStr(std::u16string_view(attributes.getValue(i)), XmlStr::UTF_8) << '"';
    m_open = true;
    m_hadText = false;
    ++m_level;
    if (!inMixed() && m_mixed[m_number])
      m_mixedLevel = m_level;
    ++m_number;
    return 1;
  }

  int xmlEndElement(XmlObjParseContext* context, XMLCh const* name) override
  {
    writeText(*context);
    bool const asItIs = inMixed();
    if (m_mixedLevel == m_level)
      m_mixedLevel = 0;
    --m_level;
    if (m_open)
      m_out << "/>";
    else
    {
      if (!m_hadText && !asItIs)
        indent();
      m_out << "</" << OzfString(std::u16string_view(name)).str() << '>';
    }
    if (!inMixed())
      m_out << '\n';
    m_open = false;
    m_hadText = false;
    return 1;
  }

private:
  bool inMixed() const noexcept { return m_mixedLevel != 0; }

  void indent() { m_out << std::string(2 * std::min(m_level, MOST_LEVELS), ' '); }

  void writeText(XmlObjParseContext& context)
  {
    std::string const collected = context.text().str();
    context.clearText();
    if (collected.empty() || (!inMixed() && isBlank(collected)))
      return;
    if (m_open)
      m_out << '>';
    writeCharacters(collected);
    m_open = false;
    m_hadText = true;
  }

  // In text, line breaks and tabs stand for themselves.
  void writeCharacters(std::string const& text)
  {
    std::size_t begin = 0;
    while (begin < text.size())
    {
      std::size_t const end = std::min(text.find_first_of("\t\n", begin), text.size());
      m_out << XmlStr(OzfString(text.substr(begin, end - begin)), XmlStr::UTF_8);
      if (end < text.size())
        m_out << text[end];
      begin = end + 1;
    }
  }

  std::vector<bool> const m_mixed;
  std::ostringstream m_out;
  std::size_t m_number = 0; // of the next start tag
  std::size_t m_level = 0;
  std::size_t m_mixedLevel = 0; // within the outermost such element
  bool m_open = false;          // a start tag still lacks its '>'
  bool m_hadText = false;       // text stands before the cursor on this line
};

// What may not be shown as references, which say the same. It stands in texts and
// values alone: no name holds it.
std::string presentable(std::string const& text)
{
  std::string result;
  for (std::size_t begin = 0; begin <= text.size();)
  {
    std::size_t const end = std::min(text.find_first_of("\t\n", begin), text.size());
    result += displayText(std::string_view(text).substr(begin, end - begin),
                          [](std::string& shownText, std::string_view, char32_t character) {
                            shownText +=
                                "&#" + std::to_string(static_cast<unsigned>(character)) + ';';
                          });
    if (end < text.size())
      result += text[end];
    begin = end + 1;
  }
  return result;
}

} // namespace

bool isXml(std::string const& text, std::string& reason)
{
  AnyDocument document;
  if (document.parseBuffer(std::string_view(text)))
    return true;
  reason = document.lastError();
  return false;
}

bool indentXml(std::string const& text, std::string& result, std::string& reason)
{
  result.clear();
  MixedElements mixed;
  if (!mixed.parseBuffer(std::string_view(text)))
  {
    reason = mixed.lastError();
    return false;
  }
  Indenter indenter(mixed.take());
  if (!indenter.parseBuffer(std::string_view(text)))
  {
    reason = indenter.lastError();
    return false;
  }
  result = presentable(indenter.text());
  return true;
}

} // namespace tqdiscoctl
