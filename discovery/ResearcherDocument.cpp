// The document of a collection: from XML events to the list of items.

#include "discovery/DiscoveryLog.h"
#include "discovery/Researcher.h"
#include "ozf/xml/ExactContext.h"

#include <memory>
#include <ostream>
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

constexpr char IGNORING[] = "Ignoring Unknown Tag";

// One explorer's data, or one thing's, has tens of names.
constexpr DocumentLimits COLLECTION_LIMITS = {
    .elementNames = 10'000, .attributes = 10'000, .parserMemory = 64UL * 1024 * 1024};

// What an item takes without what belongs to it, its place in the list included.
constexpr std::size_t ITEM_SIZE = sizeof(DiscoveredItem) + sizeof(void*) * 3;

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
    std::string itemName;
    XmlInterface::getAttribute(attributes, "Name", itemName);
    noteBuilt(ITEM_SIZE + itemName.size());
    m_subInterface.reset(new DiscoveredItem(std::move(itemName)));
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
  std::unique_ptr<XmlObjParseContext> m_subContext;
  std::unique_ptr<XmlObjParseContext> m_itemContext; // of the last item, for the next one
  std::vector<Node> m_nodes;
  int m_unknown = 0;       // elements open that are in m_nodes by none of their names
  std::size_t m_facts = 0; // attributes and elements of the item so far
};

} // namespace

XmlObjParseContext* AuthSubIterator::getObjParseContext(XMLCh const* rootTag)
{
  m_tally = DocumentTally();
  m_itemCount = 0;
  return new DiscoverySetContext(rootTag, m_tally);
}

DocumentLimits AuthSubIterator::limits() const { return COLLECTION_LIMITS; }

// A reader that keeps no item is not charged for those it let go.
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
  auto& ctxt = exactContext<Context>(context, SOURCE, OPERATION);
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
  auto& ctxt = exactContext<DiscoverySetContext>(context, SOURCE, OPERATION);
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
  auto& ctxt = exactContext<DiscoverySetContext>(context, SOURCE, OPERATION);
  if (!ctxt.inObject())
    return 1;
  ctxt.checkObject(OPERATION);
  return ctxt.m_subInterface->xmlCharacters(ctxt.m_subContext.get(), chars, length);
}

std::ostream& AuthSubIterator::writeXml(std::ostream& os, XmlStr::Encoding) const { return os; }

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
