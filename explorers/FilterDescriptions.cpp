#include "explorers/FilterDescriptions.h"

#include <sstream>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

char const* unitOf(OzfQuery::Type type) { return type == OzfQuery::Type::SIZE ? "bytes" : ""; }

std::string filterDocument(OzfQuery const& query)
{
  std::ostringstream text;
  XmlStr::xmlProlog(text, XmlStr::UTF_8) << "<FilterData>";
  query.writeXml(text, XmlStr::UTF_8) << "</FilterData>\n";
  return text.str();
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
