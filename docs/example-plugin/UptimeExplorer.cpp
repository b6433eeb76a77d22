// A plug-in with one push explorer: how long the host has been up.

#include "discovery/DiscoveryLog.h"
#include "discovery/DiscoveryRepository.h"
#include "discovery/Explorer.h"
#include "ozf/base/OzfHostname.h"
#include "ozf/xml/XmlStr.h"

#include <fstream>
#include <mutex>
#include <sstream>

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

namespace
{

constexpr char SOURCE[] = "UptimeExplorer";
constexpr char NAME[] = "uptime";
constexpr PollingInterval INTERVAL = 600; // seconds
constexpr unsigned PRIORITY = 10;

class UptimeExplorer : public virtual ExplorerPush
{
public:
  char const* getExplorerName() const override { return NAME; }
  PollingInterval getPollingInterval() override { return INTERVAL; }

  OzfObjTime getLastExplorationTime() override
  {
    std::lock_guard const guard(m_mutex);
    return m_lastExploration;
  }

  void setLastExplorationTime(OzfObjTime const& time) override
  {
    std::lock_guard const guard(m_mutex);
    m_lastExploration = time;
  }

  void explore(Authority const& authority, Subject const& subject,
               CollectionAttributes const& attributes, AutoDereference<OZFRefCounted>&,
               DiscoveryFactory* factory, DiscoveryResult& result) override
  {
    result.discStatus = DS_LOGIC_ERROR;
    result.retryInterval = INTERVAL;
    try
    {
      result.discStatus = store(document(subject), authority, subject, attributes, *factory);
    }
    catch (std::exception const& exception)
    {
      OZF_LOG(getOzfLogger(), 1, SOURCE, "UptimeExplorer::explore",
              "Explorer " << NAME << " failed: " << exception.what());
    }
  }

private:
  std::string document(Subject const& subject) const
  {
    constexpr auto ENCODING = XmlStr::UTF_8;
    std::ostringstream os;
    XmlStr::xmlProlog(os, ENCODING)
        << "<DiscoveredItems><DISCOVERED Name=\"" << XmlStr(subject.getName(), ENCODING) << "\">";
    appendExplorerDataStartTag(os, ENCODING);
    std::string seconds;
    if (std::ifstream("/proc/uptime") >> seconds) // a fact that is not known has no element
      os << "<Uptime>" << XmlStr(OzfString(seconds), ENCODING) << "</Uptime>";
    appendExplorerDataEndTag(os);
    os << "</DISCOVERED></DiscoveredItems>\n";
    return os.str();
  }

  static DiscoveryStatus store(std::string const& document, Authority const& authority,
                               Subject const& subject, CollectionAttributes const& attributes,
                               DiscoveryFactory const& factory)
  {
    AutoDereference<Discovery> discovery;
    factory.newDiscovery(discovery, DQ_DISCOVERY_DATA, subject, authority, attributes);
    if (auto const status = discovery->open(OM_UPDATE, ""); status != DS_SUCCESS)
      return status;
    if (!discovery->getCollectionData()->writeCollection(document.size(), document.data()))
      return DS_LOGIC_ERROR;
    return discovery->persist();
  }

  std::mutex m_mutex;
  OzfObjTime m_lastExploration; // guarded by m_mutex
};

} // namespace

extern "C" __attribute__((visibility("default"))) void
RegisterExplorers(DiscoveryRepository* repository)
{
  OzfHostname host;
  if (!host.setLocal())
    return;
  AutoDereference<ExplorerPush> const explorer(new UptimeExplorer);
  repository->registerExplorer(new Subject(host.exportNarrow()), explorer.get(), PRIORITY,
                               new Authority(NAME, AT_TQUCLIENT));
}
