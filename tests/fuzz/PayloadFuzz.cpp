// What explorers write: a payload gives the same items however it arrives, a
// payload that breaks off gives the first of them, and items that are written
// again are read as the same.

#include "tests/fuzz/Fuzz.h"

#include "discovery/DefaultExplorerDataParser.h"
#include "discovery/DiscoveryRepository.h"
#include "discovery/FilterParameters.h"
#include "discovery/Researcher.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <vector>

namespace
{

using namespace fuzz;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

// ---- a parser as a plug-in brings it ----

constexpr char TREE_PARSER[] = "tree";

std::string utf8(XMLCh const* text) { return OzfString(std::u16string_view(text)).str(); }

class TreeData : public virtual ExplorerData
{
public:
  std::string text;
  std::ostream& writeXml(std::ostream& os, XmlStr::Encoding) const override { return os << text; }
};

class TreeContext : public XmlObjParseContext
{
public:
  using XmlObjParseContext::XmlObjParseContext;

  AutoDereference<TreeData> const data{new TreeData};

  void takeText()
  {
    data->text += XmlStr(text(), XmlStr::US_ASCII).text();
    clearText();
  }
};

// Keeps everything, attributes too, and has its own opinion of one element.
class TreeParser : public virtual ExplorerDataParser
{
public:
  int xmlStartElement(XmlObjParseContext* context, XMLCh const* name,
                      AttributeList& attributes) override
  {
    if (XmlObjParseContext::cmptag(name, "throw"))
      throw std::runtime_error("an element this parser does not like");
    TreeContext& own = contextOf(context);
    own.takeText();
    own.data->text += '<' + utf8(name);
    for (XMLSize_t i = 0; i < attributes.getLength(); ++i)
      own.data->text +=
          ' ' + utf8(attributes.getName(i)) + "=\"" +
          XmlStr(std::u16string_view(attributes.getValue(i)), XmlStr::US_ASCII).text() + '"';
    own.data->text += '>';
    return 1;
  }

  int xmlEndElement(XmlObjParseContext* context, XMLCh const* name) override
  {
    TreeContext& own = contextOf(context);
    own.takeText();
    if (own.isEndTag(name))
      return 0;
    own.data->text += "</" + utf8(name) + '>';
    return 1;
  }

  std::ostream& writeXml(std::ostream& os, XmlStr::Encoding) const override { return os; }

  XmlObjParseContext* getParseContext(OzfString const& explorer, XMLCh const* element,
                                      XmlObjParseContext const* parent) override
  {
    requireEqual(TREE_PARSER, explorer.str(), "a parser gets the data of its own explorer");
    return new TreeContext(element, parent);
  }

  ExplorerData* getExplorerData(XmlObjParseContext* context) override
  {
    return AutoDereference<TreeData>(contextOf(context).data).release();
  }

  char const* getExplorerParserName() const override { return TREE_PARSER; }

private:
  static TreeContext& contextOf(XmlObjParseContext* context)
  {
    auto* const own = dynamic_cast<TreeContext*>(context);
    require(own != nullptr, "a parser gets its own contexts");
    return *own;
  }
};

// ---- one discovery with a payload ----

class Payload : public CollectionData
{
public:
  Payload(std::string_view text, std::size_t piece) : m_text(text), m_piece(piece) {}

  int open(OpenMode, char const*) override
  {
    m_position = 0;
    return 1;
  }

  long readCollection(unsigned long length, void* buffer) const override
  {
    std::size_t const count =
        std::min({static_cast<std::size_t>(length), m_piece, m_text.size() - m_position});
    std::memcpy(buffer, m_text.data() + m_position, count);
    m_position += count;
    return static_cast<long>(count);
  }

  long writeCollection(unsigned long, void const*) const override { return 0; }

private:
  std::string_view m_text;
  std::size_t m_piece;
  mutable std::size_t m_position = 0;
};

class Found : public Discovery
{
public:
  Found(std::string_view text, std::size_t piece)
      : Discovery(new Payload(text, piece), DQ_DISCOVERY_DATA)
  {
    setAuthority(new Authority("filesystem", AT_TQUCLIENT));
    setSubject(new Subject("host"));
  }
  DiscoveryStatus persist() override { return DS_LOGIC_ERROR; }
  DiscoveryStatus open(OpenMode, char const*) override { return DS_LOGIC_ERROR; }
};

class OneDiscovery : public DiscoveryIterator
{
public:
  OneDiscovery(std::string_view text, std::size_t piece)
      : DiscoveryIterator(AT_ANYANDALL, "*", "*"), m_discovery(new Found(text, piece))
  {
  }
  Discovery* getNext() override { return m_discovery.release(); }

private:
  AutoDereference<Discovery> m_discovery;
};

// ---- reading ----

struct Items
{
  std::vector<AutoDereference<CollectionItem>> items;
  bool parsed = false;
};

Items readItems(std::string_view text, std::size_t piece)
{
  AutoDereference<AuthSubIterator> const discoveries(
      new AuthSubIterator(new OneDiscovery(text, piece)));
  AutoDereference<CollectionItemIterator> const found(
      discoveries->getNextCollectionItemIterator(nullptr));
  require(bool(found), "a discovery gives an iterator, whatever it holds");
  Items result;
  result.parsed = found->isParsed();
  while (AutoDereference<CollectionItem> item{found->getNextCollectionItem()})
    result.items.push_back(item);
  require(discoveries->getNextCollectionItemIterator(nullptr) == nullptr,
          "one discovery is one discovery");
  return result;
}

std::string describe(OzfQuery const& query)
{
  std::string text = "description";
  for (auto const& attribute : query.attributes())
    text += " [" + attribute.name.str() + ' ' + std::to_string(static_cast<int>(attribute.type)) +
            ' ' + attribute.unit.str() + ' ' + attribute.description.str() + ']';
  return text;
}

std::string describe(CollectionItem const& item)
{
  if (auto const* const filter = dynamic_cast<FilterItem const*>(&item))
    return describe(filter->getQuery());
  auto const* const found = dynamic_cast<DiscoveredItem const*>(&item);
  require(found != nullptr, "an item is one of two kinds");
  std::string text = "item [" + found->getName() + ']';
  if (StatusMsg const* const status = found->getStatusMsg())
    text += " status " + std::to_string(status->code()) + ' ' + std::to_string(status->severity()) +
            " [" + status->text().str() + ']';
  if (TquPolicy const* const policy = found->getPolicy())
  {
    text += " policy [" + policy->name().str() + ' ' + policy->type().str() + ']';
    for (auto const& [name, value] : policy->attributes())
      text += " [" + name.str() + '=' + value.str() + ']';
  }
  AutoDereference<ExplorerData> const data(found->getExplorerData());
  if (data)
    text += " data [" + written(*data, XmlStr::UTF_8) + ']';
  return text;
}

std::string describe(Items const& items)
{
  std::string text;
  for (auto const& item : items.items)
    text += describe(*item) + '\n';
  return text;
}

// ---- properties ----

// What is read of a payload with a mistake may be less when more of it is at
// hand: its bytes are looked at before its elements.
void checkBeginning(Items const& whole, Items const& other, char const* property)
{
  std::string const expected = describe(whole);
  std::string const actual = describe(other);
  require(expected.starts_with(actual) || (!whole.parsed && actual.starts_with(expected)), property,
          "expected: " + expected + "\n  actual: " + actual);
}

// What the default parser keeps is no XML when an element had attributes: it
// puts their names in quotes. It is UTF-8 whatever the encoding asked for.
bool canBeReadAgain(DiscoveredItem const& item, XmlStr::Encoding encoding)
{
  AutoDereference<ExplorerData> const data(item.getExplorerData());
  if (dynamic_cast<DefaultExplorerData const*>(data.get()) == nullptr)
    return true;
  std::string const text = written(*data, encoding);
  bool const ascii = std::none_of(text.begin(), text.end(), [](char c) { return (c & 0x80) != 0; });
  return text.find('"') == std::string::npos && (ascii || encoding == XmlStr::UTF_8);
}

// Items are written under another name than the one readers look for.
std::string asRead(std::string text)
{
  static std::string const START = "<Discovered";
  static std::string const END = "</Discovered>";
  require(text.starts_with(START) && text.ends_with(END), "an item is written as Discovered", text);
  text.replace(text.size() - END.size(), END.size(), "</DISCOVERED>");
  return text.replace(0, START.size(), "<DISCOVERED");
}

void checkWritten(Items const& items, XmlStr::Encoding encoding)
{
  Items kept;
  std::string body;
  char const* root = "DiscoveredItems";
  for (auto const& item : items.items)
  {
    if (auto const* const found = dynamic_cast<DiscoveredItem const*>(item.get()))
    {
      if (!canBeReadAgain(*found, encoding))
        continue;
      body += asRead(written(*found, encoding));
    }
    else
    {
      root = "FilterData";
      body += written(*item, encoding);
    }
    kept.items.push_back(item);
  }
  std::ostringstream document;
  XmlStr::xmlProlog(document, encoding) << '<' << root << '>' << body << "</" << root << '>';
  Items const again = readItems(document.str(), document.str().size());
  require(again.parsed, "items that were written can be read", document.str());
  requireEqual(describe(kept), describe(again), "items that were written are read as the same");
}

// Descriptions of several explorers become one.
void checkMerged(Items const& items)
{
  AutoDereference<OzfQuery> const merged(new OzfQuery);
  for (auto const& item : items.items)
    if (auto const* const filter = dynamic_cast<FilterItem const*>(item.get()))
    {
      merged->merge(filter->getQuery());
      std::string const once = describe(*merged);
      merged->merge(filter->getQuery());
      requireEqual(once, describe(*merged), "merging twice is merging once");
      for (auto const& attribute : filter->getQuery().attributes())
        require(merged->findAttribute(attribute.name.str()) != nullptr,
                "a merged description has every attribute", attribute.name.str());
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
  prepare();
  AutoDereference<ExplorerDataParser> const tree(new TreeParser);
  getDiscoveryRepository().registerExplorerParser(TREE_PARSER, tree.get());
  AutoDereference<ExplorerDataParser> const usual(new DefaultExplorerDataParser);
  getDiscoveryRepository().registerExplorerParser(DFLT_EXPLORER_DATA_PARSER, usual.get());
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
  std::string_view const text = textOf(data, size);
  std::uint32_t const choice = choiceOf(text);

  Items const items = readItems(text, size);
  std::string const described = describe(items);

  Items const pieces = readItems(text, 1 + choice % 7);
  require(items.parsed == pieces.parsed, "a payload is read however it arrives");
  checkBeginning(items, pieces, "a payload in pieces gives the same items");
  if (items.parsed)
    requireEqual(described, describe(pieces), "a payload in pieces gives the same items");
  if (size != 0)
    checkBeginning(items, readItems(text.substr(0, choice % size), size),
                   "a payload that breaks off gives the first items");

  for (XmlStr::Encoding const encoding : ENCODINGS)
    checkWritten(items, encoding);
  checkMerged(items);
  return 0;
}
