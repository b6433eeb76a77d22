#include "discovery/Explorer.h"

#include "ozf/base/CodePage.h"

#include <ostream>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

namespace
{

constexpr char EXPLORER_DATA[] = "ExplorerData";

CodePage narrowPage()
{
  static CodePage const page = findCodePage("");
  return page;
}

} // namespace

void Explorer::startExploration(EngineContext const&, Authority const&, Subject const&,
                                AutoDereference<OZFRefCounted>&, DiscoveryFactory*)
{
}

void Explorer::stopExploration(Authority const&, Subject const&, AutoDereference<OZFRefCounted>&) {}

std::ostream& Explorer::appendExplorerDataStartTag(std::ostream& os,
                                                   XmlStr::Encoding encoding) const
{
  XmlStr const name(OzfString(getExplorerName(), narrowPage()), encoding);
  os << '<' << EXPLORER_DATA << " Name=\"";
  if (name.text() != nullptr)
    os << name.text();
  os << "\">";
  // Only now: a failed stream takes no more text, and the tag is closed even
  // when its name cannot be written.
  if (name.text() == nullptr)
    os.setstate(std::ios::failbit);
  return os;
}

void Explorer::appendExplorerDataEndTag(std::ostream& os) const
{
  XmlStr::appendEnd(os, EXPLORER_DATA);
}

bool ExplorerData::isParsed() const { return true; }

std::ostream& ExplorerData::writeXml(std::ostream& os, XmlStr::Encoding) const { return os; }

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
