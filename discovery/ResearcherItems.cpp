// The vocabulary of collection data: from XML events to items and back.

#include "discovery/ResearcherItems.h"

#include "discovery/DefaultExplorerDataParser.h"
#include "discovery/DiscoveryLog.h"
#include "discovery/DiscoveryRepository.h"
#include "discovery/ItemMemory.h"
#include "discovery/Researcher.h"
#include "ozf/plugin/CurrentException.h"

#include <memory>
#include <ostream>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <vector>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

namespace
{

constexpr char SOURCE[] = "Researcher";

constexpr char ITEMS_TAG[] = "DiscoveredItems";
constexpr char FILTER_DATA_TAG[] = "FilterData";
constexpr char ITEM_TAG[] = "DISCOVERED";
constexpr char WRITTEN_ITEM_TAG[] = "Discovered"; // not ITEM_TAG: see writeXml
constexpr char STATUS_TAG[] = "StatusMsg";
constexpr char POLICY_TAG[] = "TQUPolicy";
constexpr char EXPLORER_DATA_TAG[] = "ExplorerData";
constexpr char NAME[] = "Name";

constexpr char IGNORING[] = "Ignoring Unknown Tag";

// One explorer's data, or one thing's, has tens of names.
constexpr DocumentLimits COLLECTION_LIMITS = {
    .elementNames = 10'000, .attributes = 10'000, .parserMemory = 64UL * 1024 * 1024};

// What an item takes without what belongs to it, its place in the list included.
constexpr std::size_t ITEM_SIZE = sizeof(DiscoveredItem) + sizeof(void*) * 3;

std::string nameOf(AttributeList const& attributes)
{
  std::string name;
  XmlInterface::getAttribute(attributes, NAME, name);
  return name;
}

// Where the reading of a document stands.
class DiscoverySetContext final : public XmlObjParseContext
{
public:
  DiscoverySetContext(XMLCh const* rootTag, DocumentTally& tally)
      : XmlObjParseContext(rootTag, tally)
  {
  }

  enum Node
  {
    ITEMS = 0,
    FILTER_DATA = 1,
    ITEM = 2,
    QUERY_DESCRIPTION = 3
  };

  // The object being read; an item starts, and its description ends, here.
  template <class Item>
  bool open(Node node, XMLCh const* name, AttributeList& attributes)
  {
    Item* item = nullptr;
    std::unique_ptr<XmlObjParseContext> context(xmlCreateObject(name, attributes, this, item));
    m_subInterface.reset(item);
    if (item == nullptr)
      return false;
    noteBuilt(sizeof(Item));
    m_facts = 0;
    m_nodes.push_back(node);
    m_subContext = std::move(context);
    return true;
  }

  // The context of an item is as new after its end, and the items of a document
  // stand at one depth under one name, so one serves them all; but not those
  // inside unknown elements, which stand deeper.
  bool openItem(XMLCh const* name, AttributeList& attributes)
  {
    if (m_itemContext == nullptr || m_unknown > 0)
      return open<DiscoveredItem>(ITEM, name, attributes);
    std::string itemName = nameOf(attributes);
    noteBuilt(ITEM_SIZE + itemName.size());
    m_subInterface.reset(new (m_itemMemory) DiscoveredItem(std::move(itemName)));
    m_facts = 0;
    m_nodes.push_back(ITEM);
    m_subContext = std::move(m_itemContext);
    return true;
  }

  void closeObject()
  {
    if (m_nodes.back() == ITEM && m_unknown == 0)
      m_itemContext = std::move(m_subContext);
    m_subContext.reset();
    m_nodes.pop_back();
  }

  bool inObject() const
  {
    return !m_nodes.empty() && (m_nodes.back() == ITEM || m_nodes.back() == QUERY_DESCRIPTION);
  }

  void checkObject(char const* operation) const
  {
    OZF_ASSERT(m_subContext != nullptr, "ctxt->m_subContext", SOURCE, operation);
    OZF_ASSERT(m_subInterface, "ctxt->m_subInterface", SOURCE, operation);
  }

  AutoDereference<CollectionItem> m_subInterface;
  ItemMemory m_itemMemory; // of all but the first
  std::unique_ptr<XmlObjParseContext> m_subContext;
  std::unique_ptr<XmlObjParseContext> m_itemContext; // of the last item, for the next one
  std::vector<Node> m_nodes;
  int m_unknown = 0;       // elements open that are in m_nodes by none of their names
  std::size_t m_facts = 0; // attributes and elements of the item so far
};

// Where the reading of one item stands.
class DiscoveredDataContext final : public XmlObjParseContext
{
public:
  using XmlObjParseContext::XmlObjParseContext;

  enum Node
  {
    STATUS = 0,
    POLICY = 1,
    EXPLORER_DATA = 2
  };

  template <class Object>
  void open(Node node, XMLCh const* name, AttributeList& attributes)
  {
    Object* object = nullptr;
    m_subContext.reset(xmlCreateObject(name, attributes, this, object));
    m_object.reset(object);
    m_subInterface = object;
    m_nodes.push_back(node);
  }

  void checkChild(char const* operation) const
  {
    OZF_ASSERT(m_subContext != nullptr, "ctxt->m_subContext", SOURCE, operation);
    OZF_ASSERT(m_subInterface != nullptr, "ctxt->m_subInterface", SOURCE, operation);
  }

  AutoDereference<OZFRefCounted> m_object; // keeps m_subInterface alive
  XmlInterface* m_subInterface = nullptr;
  std::unique_ptr<XmlObjParseContext> m_subContext;
  std::vector<Node> m_nodes;
};

// Asked for at every event; comparing types costs less than a cast that may fail.
template <class Context>
Context& contextOf(XmlObjParseContext* context, char const* operation)
{
  static_assert(std::is_final_v<Context>);
  OZF_ASSERT(context != nullptr && typeid(*context) == typeid(Context), "ctxt", SOURCE, operation);
  return static_cast<Context&>(*context);
}

// Every explorer's data can be read, if only as text: plug-ins may be missing
// on the host that reads.
AutoDereference<ExplorerDataParser> parserOf(OzfString const& explorerName)
{
  DiscoveryRepository& repository = getDiscoveryRepository();
  auto parser = repository.getRegisteredExplorerParser(explorerName);
  if (!parser)
    parser = repository.getRegisteredExplorerParser(DFLT_EXPLORER_DATA_PARSER);
  if (!parser)
    parser.reset(new DefaultExplorerDataParser);
  return parser;
}

void writeNamedStart(std::ostream& os, char const* tag, OzfString const& name,
                     XmlStr::Encoding encoding)
{
  os << '<' << tag << ' ' << NAME << "=\"" << XmlStr(name, encoding) << "\">";
}

} // namespace

// ---- the document ----

XmlObjParseContext* AuthSubIterator::getObjParseContext(XMLCh const* rootTag)
{
  m_tally = DocumentTally();
  m_itemCount = 0;
  return new DiscoverySetContext(rootTag, m_tally);
}

DocumentLimits AuthSubIterator::limits() const { return COLLECTION_LIMITS; }

// Whoever keeps no item is not charged for those that have gone.
void AuthSubIterator::finishItem(AutoDereference<CollectionItem> item)
{
  if (m_keepsItems)
    m_items->push_back(std::move(item));
  else
    m_tally.built = 0;
  ++m_itemCount;
}

int AuthSubIterator::xmlStartElement(XmlObjParseContext* context, XMLCh const* name,
                                     AttributeList& attributes)
{
  constexpr char const* OPERATION = "AuthSubIterator::xmlStartElement";
  using Context = DiscoverySetContext;
  auto& ctxt = contextOf<Context>(context, OPERATION);
  if (ctxt.inObject())
  {
    ctxt.checkObject(OPERATION);
    ctxt.m_facts += 1 + attributes.getLength();
    if (ctxt.m_facts > MOST_FACTS)
      refuseTooLarge("more than " + std::to_string(MOST_FACTS) +
                     " attributes and elements in one item");
    return ctxt.m_subInterface->xmlStartElement(ctxt.m_subContext.get(), name, attributes);
  }

  auto const is = [name](char const* tag) { return XmlObjParseContext::cmptag(name, tag); };
  bool known = false;
  if (ctxt.m_nodes.empty())
  {
    // Only as the document element: what stands in a foreign document is not
    // meant for us.
    if (ctxt.m_unknown == 0 && (is(ITEMS_TAG) || is(FILTER_DATA_TAG)))
    {
      ctxt.m_nodes.push_back(is(ITEMS_TAG) ? Context::ITEMS : Context::FILTER_DATA);
      known = true;
    }
  }
  else if (ctxt.m_nodes.back() == Context::ITEMS)
    known = is(ITEM_TAG) && ctxt.openItem(name, attributes);
  else
    known = is(OzfQuery::QUERY_DESCRIPTION_TAG) &&
            ctxt.open<FilterItem>(Context::QUERY_DESCRIPTION, name, attributes);
  if (ctxt.inObject() && m_itemCount == MOST_ITEMS)
    refuseTooLarge("more than " + std::to_string(MOST_ITEMS) + " items");
  if (known)
    return 1;

  ++ctxt.m_unknown;
  if (ctxt.noteIgnored())
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, IGNORING);
  return XmlDocumentInterface::xmlStartElement(context, name, attributes);
}

int AuthSubIterator::xmlEndElement(XmlObjParseContext* context, XMLCh const* name)
{
  constexpr char const* OPERATION = "AuthSubIterator::xmlEndElement";
  auto& ctxt = contextOf<DiscoverySetContext>(context, OPERATION);
  if (ctxt.inObject())
  {
    ctxt.checkObject(OPERATION);
    if (ctxt.m_subInterface->xmlEndElement(ctxt.m_subContext.get(), name) != 0)
      return 1;
    finishItem(std::move(ctxt.m_subInterface));
    ctxt.closeObject();
    return 1;
  }
  if (ctxt.m_unknown > 0 || ctxt.m_nodes.empty())
  {
    if (ctxt.m_unknown > 0)
      --ctxt.m_unknown;
    if (ctxt.noteIgnored())
      OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, IGNORING);
    return XmlDocumentInterface::xmlEndElement(context, name);
  }
  OZF_ASSERT(ctxt.isEndTag(name), "ctxt->isEndTag(name)", SOURCE, OPERATION);
  ctxt.m_nodes.pop_back();
  return 0;
}

int AuthSubIterator::xmlCharacters(XmlObjParseContext* context, XMLCh const* chars,
                                   unsigned long length)
{
  constexpr char const* OPERATION = "AuthSubIterator::xmlCharacters";
  auto& ctxt = contextOf<DiscoverySetContext>(context, OPERATION);
  if (!ctxt.inObject())
    return 1;
  ctxt.checkObject(OPERATION);
  return ctxt.m_subInterface->xmlCharacters(ctxt.m_subContext.get(), chars, length);
}

std::ostream& AuthSubIterator::writeXml(std::ostream& os, XmlStr::Encoding) const { return os; }

// ---- items ----

CollectionItem::CollectionItem() = default;
CollectionItem::~CollectionItem() = default;

DiscoveredItem::DiscoveredItem(std::string name) : m_name(std::move(name)) {}

DiscoveredItem::~DiscoveredItem() = default;

void* DiscoveredItem::operator new(std::size_t size) { return ItemMemory::allocateSingle(size); }

void* DiscoveredItem::operator new(std::size_t size, ItemMemory& memory)
{
  return memory.allocate(size);
}

void DiscoveredItem::operator delete(void* item) noexcept { ItemMemory::free(item); }

void DiscoveredItem::operator delete(void* item, ItemMemory&) noexcept { ItemMemory::free(item); }

ExplorerData* DiscoveredItem::getExplorerData() const
{
  return AutoDereference<ExplorerData>(m_explorerData).release();
}

int DiscoveredItem::xmlStartElement(XmlObjParseContext* context, XMLCh const* name,
                                    AttributeList& attributes)
{
  constexpr char const* OPERATION = "DiscoveredItem::xmlStartElement";
  using Context = DiscoveredDataContext;
  auto& ctxt = contextOf<Context>(context, OPERATION);
  if (!ctxt.m_nodes.empty())
  {
    switch (ctxt.m_nodes.back())
    {
    case Context::STATUS:
    case Context::POLICY:
    case Context::EXPLORER_DATA:
      ctxt.checkChild(OPERATION);
      return ctxt.m_subInterface->xmlStartElement(ctxt.m_subContext.get(), name, attributes);
    }
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, IGNORING);
    return XmlDocumentInterface::xmlStartElement(context, name, attributes);
  }

  auto const is = [name](char const* tag) { return XmlObjParseContext::cmptag(name, tag); };
  if (is(STATUS_TAG))
    ctxt.open<StatusMsg>(Context::STATUS, name, attributes);
  else if (is(POLICY_TAG))
    ctxt.open<TquPolicy>(Context::POLICY, name, attributes);
  else if (is(EXPLORER_DATA_TAG))
  {
    OzfString const explorerName = attribute(attributes, NAME).value_or(OzfString());
    ctxt.m_nodes.push_back(Context::EXPLORER_DATA);
    m_parser = parserOf(explorerName);
    m_explorerName = explorerName;
    ctxt.m_subContext.reset(m_parser->getParseContext(explorerName, name, context));
    ctxt.m_object = m_parser;
    ctxt.m_subInterface = m_parser.get();
  }
  else
    return XmlDocumentInterface::xmlStartElement(context, name, attributes);
  return 1;
}

int DiscoveredItem::xmlEndElement(XmlObjParseContext* context, XMLCh const* name)
{
  constexpr char const* OPERATION = "DiscoveredItem::xmlEndElement";
  using Context = DiscoveredDataContext;
  auto& ctxt = contextOf<Context>(context, OPERATION);
  if (ctxt.m_nodes.empty())
  {
    if (ctxt.isEndTag(name))
      return 0;
    if (ctxt.noteIgnored())
      OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, IGNORING);
    return 1;
  }

  ctxt.checkChild(OPERATION);
  if (ctxt.m_subInterface->xmlEndElement(ctxt.m_subContext.get(), name) != 0)
    return 1;
  switch (ctxt.m_nodes.back())
  {
  case Context::STATUS:
    m_status = AutoDereference<StatusMsg>::retain(dynamic_cast<StatusMsg*>(ctxt.m_object.get()));
    break;
  case Context::POLICY:
    m_policy = AutoDereference<TquPolicy>::retain(dynamic_cast<TquPolicy*>(ctxt.m_object.get()));
    break;
  case Context::EXPLORER_DATA:
    m_explorerData.reset(m_parser->getExplorerData(ctxt.m_subContext.get()));
    break;
  default:
    assertionFailed("SHOULD_NOT_GET_HERE", OPERATION, SOURCE, __LINE__);
  }
  ctxt.m_subContext.reset();
  ctxt.m_subInterface = nullptr;
  ctxt.m_object.reset();
  ctxt.m_nodes.pop_back();
  return 1;
}

int DiscoveredItem::xmlCharacters(XmlObjParseContext* context, XMLCh const* chars,
                                  unsigned long length)
{
  constexpr char const* OPERATION = "DiscoveredItem::xmlCharacters";
  auto& ctxt = contextOf<DiscoveredDataContext>(context, OPERATION);
  if (ctxt.m_nodes.empty())
    return 1; // an item has no text of its own
  ctxt.checkChild(OPERATION);
  return ctxt.m_subInterface->xmlCharacters(ctxt.m_subContext.get(), chars, length);
}

std::ostream& DiscoveredItem::writeXml(std::ostream& os, XmlStr::Encoding encoding) const
{
  if (m_name.empty())
    XmlStr::appendStart(os, WRITTEN_ITEM_TAG);
  else
    writeNamedStart(os, WRITTEN_ITEM_TAG, m_name, encoding);
  if (m_status)
    m_status->writeXml(os, encoding);
  if (m_policy)
    m_policy->writeXml(os, encoding);
  if (m_explorerData)
  {
    writeNamedStart(os, EXPLORER_DATA_TAG, m_explorerName, encoding);
    callGuarded([&] { m_explorerData->writeXml(os, encoding); },
                [&](std::string const& reason)
                {
                  OZF_LOG(getOzfLogger(), 1, SOURCE, "DiscoveredItem::writeXml",
                          "The data of explorer " << m_explorerName
                                                  << " cannot be written: " << reason);
                  os.setstate(std::ios_base::failbit);
                });
    XmlStr::appendEnd(os, EXPLORER_DATA_TAG);
  }
  return XmlStr::appendEnd(os, WRITTEN_ITEM_TAG);
}

FilterItem::FilterItem(OzfQuery* query) : m_query(query) {}

FilterItem::~FilterItem() = default;

int FilterItem::xmlCharacters(XmlObjParseContext* context, XMLCh const* chars, unsigned long length)
{
  return m_query->xmlCharacters(context, chars, length);
}

int FilterItem::xmlStartElement(XmlObjParseContext* context, XMLCh const* name,
                                AttributeList& attributes)
{
  return m_query->xmlStartElement(context, name, attributes);
}

int FilterItem::xmlEndElement(XmlObjParseContext* context, XMLCh const* name)
{
  return m_query->xmlEndElement(context, name);
}

std::ostream& FilterItem::writeXml(std::ostream& os, XmlStr::Encoding encoding) const
{
  return m_query->writeXml(os, encoding);
}

XmlObjParseContext* xmlCreateObject(XMLCh const* name, AttributeList& attributes,
                                    XmlObjParseContext const* parent, DiscoveredItem*& object)
{
  auto context = std::make_unique<DiscoveredDataContext>(name, parent);
  object = new DiscoveredItem(nameOf(attributes));
  return context.release();
}

XmlObjParseContext* xmlCreateObject(XMLCh const* name, AttributeList& attributes,
                                    XmlObjParseContext const* parent, FilterItem*& object)
{
  object = nullptr;
  OzfQuery* query = nullptr;
  std::unique_ptr<XmlObjParseContext> context(xmlCreateObject(name, attributes, parent, query));
  if (query == nullptr)
    return nullptr;
  object = new FilterItem(query);
  return context.release();
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
