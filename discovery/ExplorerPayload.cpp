#include "discovery/ExplorerPayload.h"

#include "discovery/DiscoveryLog.h"

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

namespace
{

constexpr char SOURCE[] = "ExplorerPayload";
constexpr auto ENCODING = XmlStr::UTF_8;

} // namespace

DiscoveredItems::DiscoveredItems(Explorer const& explorer) : m_explorer(explorer)
{
  XmlStr::xmlProlog(m_text, ENCODING) << "<DiscoveredItems>";
}

void DiscoveredItems::beginItem(std::string const& name)
{
  m_text << "<DISCOVERED Name=\"" << XmlStr(name, ENCODING) << "\">";
  m_explorer.appendExplorerDataStartTag(m_text, ENCODING);
}

void DiscoveredItems::add(char const* element, std::optional<std::string> const& value)
{
  if (!value)
    return;
  XmlStr::appendStart(m_text, element) << XmlStr(*value, ENCODING);
  XmlStr::appendEnd(m_text, element);
}

void DiscoveredItems::endItem()
{
  m_explorer.appendExplorerDataEndTag(m_text);
  XmlStr::appendEnd(m_text, "DISCOVERED");
}

std::string DiscoveredItems::finish()
{
  XmlStr::appendEnd(m_text, "DiscoveredItems") << '\n';
  return m_text.str();
}

char const* unitOf(OzfQuery::Type type) { return type == OzfQuery::Type::SIZE ? "bytes" : ""; }

std::string filterDocument(OzfQuery const& query)
{
  std::ostringstream text;
  XmlStr::xmlProlog(text, ENCODING) << "<FilterData>";
  query.writeXml(text, ENCODING) << "</FilterData>\n";
  return text.str();
}

char const* describe(DiscoveryStatus status)
{
  switch (status)
  {
  case DS_SUCCESS:
    return "success";
  case DS_NONE_FOUND:
    return "none found";
  case DS_OPEN_FAILED:
    return "opening failed";
  case DS_COM_ERROR:
    return "communication failed";
  case DS_DATA_EXISTS:
    return "data of higher priority exists";
  default:
    return "internal error";
  }
}

DiscoveryStatus store(DiscoveryFactory const& factory, DiscoveryQuery query, Subject const& subject,
                      Authority const& authority, CollectionAttributes const& attributes,
                      std::string const& document, char const* operation)
{
  AutoDereference<Discovery> discovery;
  factory.newDiscovery(discovery, query, subject, authority, attributes);

  char const* step = "open";
  DiscoveryStatus status = discovery->open(OM_UPDATE, "");
  if (status == DS_SUCCESS)
  {
    step = "write";
    if (discovery->getCollectionData()->writeCollection(document.size(), document.data()) == 0)
      status = DS_LOGIC_ERROR;
  }
  if (status == DS_SUCCESS)
  {
    step = "persist";
    status = discovery->persist();
  }
  if (status != DS_SUCCESS)
    OZF_LOG(getOzfLogger(), 1, SOURCE, operation,
            "Cannot " << step << " the discovery of " << authority.getName() << " about "
                      << subject.getName() << ": " << describe(status));
  return status;
}

DiscoveryStatus storeWithFilters(DiscoveryFactory const& factory, Subject const& subject,
                                 Authority const& authority, CollectionAttributes const& attributes,
                                 std::string const& document, std::string const& filters,
                                 char const* operation)
{
  auto const data =
      store(factory, DQ_DISCOVERY_DATA, subject, authority, attributes, document, operation);
  auto const filter = store(factory, DQ_FILTER_DATA, subject, filterAuthority(authority),
                            attributes, filters, operation);
  return data != DS_SUCCESS ? data : filter;
}

Authority filterAuthority(Authority const& authority)
{
  return Authority(authority.getName().str(), AT_EXTSRC, authority.getStatusMsg());
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
