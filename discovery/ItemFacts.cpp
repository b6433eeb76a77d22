#include "discovery/ItemFacts.h"

#include "discovery/CapturedText.h"

#include <memory>
#include <sstream>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

namespace
{

class FactReader : public XmlDocumentInterface
{
public:
  bool read(std::string const& text) { return parseBuffer("<facts>" + text + "</facts>"); }

  // Whether there is text between elements, which no fact can hold.
  bool mixed() const noexcept { return m_mixed; }
  ItemFacts take() noexcept { return std::move(m_facts); }

  int xmlStartElement(XmlObjParseContext* context, XMLCh const* name, AttributeList&) override
  {
    noteText(*context);
    m_path.push_back(OzfString(std::u16string_view(name)).str());
    m_leaf = true;
    return 1;
  }

  int xmlEndElement(XmlObjParseContext* context, XMLCh const*) override
  {
    if (m_leaf && m_path.size() > 1)
      add(joined(), context->text().str());
    else
      noteText(*context);
    context->clearText();
    m_leaf = false;
    m_path.pop_back();
    return 1;
  }

private:
  void noteText(XmlObjParseContext& context)
  {
    m_mixed = m_mixed || context.text().str().find_first_not_of(" \t\r\n") != std::string::npos;
    context.clearText();
  }

  void add(std::string name, std::string value)
  {
    m_bytes += sizeOfFact(name, value);
    if (m_bytes > MOST_OF_FACTS)
      refuseTooLarge("more than " + std::to_string(MOST_OF_FACTS >> 20) +
                     " MiB of facts in one item");
    m_facts.emplace_back(std::move(name), std::move(value));
  }

  std::string joined() const
  {
    std::string text = m_path[1]; // the first is our own
    for (std::size_t i = 2; i < m_path.size(); ++i)
      text += '.' + m_path[i];
    return text;
  }

  std::vector<std::string> m_path;
  ItemFacts m_facts;
  std::size_t m_bytes = 0; // that the facts take
  bool m_leaf = false;
  bool m_mixed = false;
};

// False when there is text between the elements, or no telling them apart, or
// when they are too much.
bool readFacts(std::string const& captured, ItemFacts& facts)
{
  auto reader = std::make_unique<FactReader>();
  bool read = reader->read(captured);
  if (std::string xml; !read && !reader->wasTooLarge() && withoutAttributes(captured, xml))
  {
    reader = std::make_unique<FactReader>();
    read = reader->read(xml);
  }
  if (!read || reader->mixed())
    return false;
  facts = reader->take();
  return true;
}

} // namespace

std::size_t sizeOfFact(std::string const& name, std::string const& value)
{
  return sizeof(ItemFacts::value_type) + name.size() + value.size();
}

void readItemFacts(DiscoveredItem const& item, ItemFacts& facts, std::string& text)
{
  facts.clear();
  text.clear();
  AutoDereference<ExplorerData> const data(item.getExplorerData());
  if (!data)
    return;
  std::ostringstream captured;
  data->writeXml(captured, XmlStr::UTF_8);
  if (!readFacts(captured.str(), facts))
    text = captured.str();
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
