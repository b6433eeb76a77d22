// What stands in a collection: from XML events to items and back.

#include "discovery/ResearcherItems.h"

#include "discovery/DefaultExplorerDataParser.h"
#include "discovery/DiscoveryLog.h"
#include "discovery/DiscoveryRepository.h"
#include "ozf/plugin/CurrentException.h"
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

constexpr char WRITTEN_ITEM_TAG[] = "Discovered"; // is read as DISCOVERED
constexpr char STATUS_TAG[] = "StatusMsg";
constexpr char POLICY_TAG[] = "TQUPolicy";
constexpr char EXPLORER_DATA_TAG[] = "ExplorerData";
constexpr char NAME[] = "Name";

constexpr char IGNORING[] = "Ignoring Unknown Tag";

std::string nameOf(AttributeList const& attributes)
{
  std::string name;
  XmlInterface::getAttribute(attributes, NAME, name);
  return name;
}

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

CollectionItem::CollectionItem() = default;
CollectionItem::~CollectionItem() = default;

DiscoveredItem::DiscoveredItem(std::string name) : m_name(std::move(name)) {}

DiscoveredItem::~DiscoveredItem() = default;

ExplorerData* DiscoveredItem::getExplorerData() const
{
  return AutoDereference<ExplorerData>(m_explorerData).release();
}

int DiscoveredItem::xmlStartElement(XmlObjParseContext* context, XMLCh const* name,
                                    AttributeList& attributes)
{
  constexpr char const* OPERATION = "DiscoveredItem::xmlStartElement";
  using Context = DiscoveredDataContext;
  auto& ctxt = exactContext<Context>(context, SOURCE, OPERATION);
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
  auto& ctxt = exactContext<Context>(context, SOURCE, OPERATION);
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
  auto& ctxt = exactContext<DiscoveredDataContext>(context, SOURCE, OPERATION);
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
