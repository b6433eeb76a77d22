// A plug-in with one push explorer: how long the host has been up.

#include "discovery/DiscoveryRepository.h"
#include "discovery/ExplorerPayload.h"
#include "discovery/TimedExplorer.h"
#include "ozf/base/OzfHostname.h"

#include <fstream>

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers;

namespace
{

constexpr char NAME[] = "uptime";
constexpr PollingInterval INTERVAL = 600; // seconds
constexpr ExplorerPriority PRIORITY = 10;

// What is collected, and what is told of it: the facts that are written, and what can
// be asked for.
struct Uptime
{
  std::string seconds; // empty when it is not known
};

constexpr Fact<Uptime> FACTS[] = {
    {"Uptime", OzfQuery::Type::DURATION, "How long the host has been up",
     [](Uptime const& uptime) { return known(uptime.seconds); }, "seconds"},
};

Uptime collectUptime()
{
  Uptime uptime;
  std::ifstream("/proc/uptime") >> uptime.seconds;
  return uptime;
}

// The base looks after the times and the result of a run, and what run throws.
class UptimeExplorer : public TimedExplorer
{
public:
  UptimeExplorer() : TimedExplorer(INTERVAL) {}
  char const* getExplorerName() const override { return NAME; }

protected:
  DiscoveryStatus run(Authority const& authority, Subject const& subject,
                      CollectionAttributes const& attributes,
                      DiscoveryFactory const& factory) override
  {
    Facts<Uptime> const facts(FACTS);
    DiscoveredItems items(*this);
    items.addItem(subject.getName().str(), facts, collectUptime());
    return storeWithFilters(factory, subject, authority, attributes, items.finish(),
                            filterDocument(facts), "UptimeExplorer::explore");
  }
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
