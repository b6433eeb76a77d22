#include "ozf/xml/OzfDOMHandler.h"

#include "ozf/base/MetadataConverter.h"
#include "ozf/base/Trim.h"
#include "ozf/xml/XmlDocumentInterface.h"

#include <utility>

namespace Quillon::Tessarine::Ozf
{

namespace
{

// Only the element opened last can turn out to be without children, so one
// text is enough.
class LeafReader : public XmlDocumentInterface
{
public:
  using Values = std::map<std::string, std::string, std::less<>>;

  Values takeValues() { return std::move(m_values); }

private:
  int xmlStartElement(XmlObjParseContext* context, XMLCh const*, AttributeList&) override
  {
    context->clearText();
    m_isLeaf = true;
    return 1;
  }

  int xmlEndElement(XmlObjParseContext* context, XMLCh const* name) override
  {
    if (std::exchange(m_isLeaf, false))
      m_values.try_emplace(OzfString(std::u16string_view(name)).str(),
                           trimmed(context->text().str()));
    return XmlDocumentInterface::xmlEndElement(context, name);
  }

  Values m_values;
  bool m_isLeaf = false;
};

} // namespace

int OzfDOMHandler::parse(std::string const& text)
{
  LeafReader reader;
  m_values.clear();
  bool const read = reader.parseBuffer(std::string_view(text));
  m_lastError = reader.lastError();
  if (!read)
    return -1;
  m_values = reader.takeValues();
  return 0;
}

bool OzfDOMHandler::getValue(char const* name, OzfString& value) const
{
  auto const found = m_values.find(name);
  if (found == m_values.end())
    return false;
  value = found->second;
  return true;
}

bool OzfDOMHandler::getValue(char const* name, unsigned& value) const
{
  auto const found = m_values.find(name);
  return found != m_values.end() && MetadataConverter::convert(found->second, value);
}

} // namespace Quillon::Tessarine::Ozf
