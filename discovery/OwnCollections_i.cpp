#include "discovery/OwnCollections_i.h"

#include "discovery/AnnouncementState.h"
#include "discovery/DiscDBMem.h"
#include "discovery/DiscoveryLog.h"
#include "discovery/DiscoveryRepository.h"
#include "discovery/DiscoveryServant.h"
#include "discovery/ExplorerRemotePull.h"
#include "discovery/ExplorerRuns.h"
#include "discovery/Peers.h"
#include "discovery/RemoteDBWire.h"
#include "ozf/base/MetadataConverter.h"
#include "ozf/orb/Orb.h"
#include "ozf/xml/XmlStr.h"

#include <algorithm>
#include <sstream>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

namespace
{

constexpr char SOURCE[] = "OwnCollections_i";

// Not in the registry, where it would come before others and keep them from being
// read. Tells of the state at the moment when it is asked.
class StateExplorer : public virtual ExplorerPull
{
public:
  using Write = void (*)(std::ostream& text, StateExplorer const& explorer);

  StateExplorer(char const* name, Write write) : m_name(name), m_write(write) {}

  void startExploration(EngineContext const&, Authority const&, Subject const&,
                        AutoDereference<OZFRefCounted>&, DiscoveryFactory*) override
  {
  }
  void stopExploration(Authority const&, Subject const&, AutoDereference<OZFRefCounted>&) override
  {
  }
  char const* getExplorerName() const override { return m_name; }

  bool collectionRequested(DiscoveryQuery, Authority const&, Subject const&,
                           AutoDereference<OZFRefCounted>&, char const*,
                           CollectionData* target) override
  {
    std::ostringstream text;
    XmlStr::xmlProlog(text, XmlStr::UTF_8) << "<DiscoveredItems>";
    m_write(text, *this);
    text << "</DiscoveredItems>\n";
    std::string const document = text.str();
    return target->writeCollection(document.size(), document.data()) != 0;
  }

private:
  char const* const m_name;
  Write const m_write;
};

// One item, from its construction to its end.
class StateItem
{
public:
  StateItem(std::ostream& text, StateExplorer const& explorer, std::string const& name)
      : m_text(text), m_explorer(explorer)
  {
    m_text << "<DISCOVERED Name=\"" << XmlStr(OzfString(name), XmlStr::UTF_8) << "\">";
    m_explorer.appendExplorerDataStartTag(m_text, XmlStr::UTF_8);
  }
  ~StateItem()
  {
    m_explorer.appendExplorerDataEndTag(m_text);
    m_text << "</DISCOVERED>";
  }
  StateItem(StateItem const&) = delete;
  StateItem& operator=(StateItem const&) = delete;

  void add(char const* fact, std::string const& value)
  {
    XmlStr::appendStart(m_text, fact) << XmlStr(value, XmlStr::UTF_8);
    XmlStr::appendEnd(m_text, fact);
  }

  void add(char const* fact, OzfObjTime const& time)
  {
    std::string text;
    if (!time.isZero() && MetadataConverter::convert(time, text, false))
      add(fact, text);
  }

  template <class Number>
  void addNumber(char const* fact, Number number)
  {
    add(fact, std::to_string(number));
  }

private:
  std::ostream& m_text;
  StateExplorer const& m_explorer;
};

void writeAnnouncement(std::ostream& text, StateExplorer const& explorer)
{
  OzfHostname local;
  local.setLocal();
  AnnouncementState::Now const now = getAnnouncementState().now();
  StateItem item(text, explorer, local.exportNarrow());
  item.add("Role", getDiscoveryRepository().isGenericDSOnMaster() ? "master" : "client");
  item.add("State", nameOf(now.phase));
  item.add("NextTry", now.next);
  item.add("LastTry", now.last);
  if (!now.reason.empty())
    item.add("Reason", now.reason);
}

void writeExplorers(std::ostream& text, StateExplorer const& explorer)
{
  for (auto const& record : getExplorerRuns().all())
  {
    ExplorerRecord::Description const& what = record->description();
    ExplorerRecord::Now const now = record->now();
    StateItem item(text, explorer, what.authority);
    item.add("Kind", nameOf(what.kind));
    item.addNumber("Type", static_cast<int>(what.type));
    item.add("Subject", what.subject);
    item.addNumber("Priority", what.priority);
    item.add("Origin", what.origin);
    item.add("State", nameOf(now.state));
    item.add("LastRun", now.lastRun);
    item.add("LastSuccess", now.lastSuccess);
    if (now.took)
      item.addNumber("LastDuration", now.took->count());
    if (now.memory)
      item.addNumber("LastMemory", *now.memory);
    item.add("LastResult", now.result.empty() ? "not run" : now.result);
    item.add("InOrder", now.well ? "yes" : "no");
    item.addNumber("Runs", now.runs);
    item.addNumber("Failures", now.failures);
    item.addNumber("LateRuns", now.lateRuns);
  }
}

// What is under the authority but no explorer; null when it is none of these.
AutoDereference<ExplorerWrapper> stateEntry(std::string const& subject,
                                            std::string const& authority)
{
  AutoDereference<ExplorerPull> explorer;
  if (authority == ANNOUNCEMENT_AUTHORITY)
    explorer.reset(new StateExplorer(ANNOUNCEMENT_AUTHORITY, writeAnnouncement));
  else if (authority == EXPLORERS_AUTHORITY)
    explorer.reset(new StateExplorer(EXPLORERS_AUTHORITY, writeExplorers));
  else
    return {};
  return AutoDereference<ExplorerWrapper>(new ExplorerWrapper(
      explorer.get(), 0, new Subject(subject), new Authority(authority, AT_TQUCLIENT)));
}

// The entry of those very names that no other host has announced; null when there
// is none.
AutoDereference<ExplorerWrapper> findOwn(std::string const& subject, std::string const& authority)
{
  auto const explorers = getDiscoveryRepository().getPullExplorers();
  auto const found = std::find_if(explorers->begin(), explorers->end(),
                                  [&](AutoDereference<ExplorerWrapper> const& entry)
                                  {
                                    return entry->getSubject()->getName().str() == subject &&
                                           entry->getAuthority()->getName().str() == authority &&
                                           dynamic_cast<RemoteExplorerPull const*>(
                                               entry->getExplorer()) == nullptr;
                                  });
  return found == explorers->end() ? AutoDereference<ExplorerWrapper>() : *found;
}

} // namespace

PortableServer::ServantBase* newOwnCollectionsServant() { return new Remote::OwnCollections_i; }

namespace Remote
{

DiscoveryStatus OwnCollections_i::getCollectionData(Discovery const& record, char const* filter,
                                                    CollectionDataIterator_out iterator)
{
  constexpr char const* OPERATION = "OwnCollections_i::getCollectionData";
  AuditedCall const call{OPERATION, record.subject.in(), record.authority.in()};
  PeerPlace place = takeIteratorPlace(OPERATION, call);
  iterator = CollectionDataIterator::_nil();
  if (!areUsableNames(record.subject, record.authority))
    return DS_LOGIC_ERROR;
  std::string const subject = Subject(record.subject.in()).getName().str();
  std::string const authority(record.authority);
  auto entry = stateEntry(subject, authority);
  if (!entry)
    entry = findOwn(subject, authority);
  if (!entry)
  {
    OZF_LOG(getOzfLogger(), 4, SOURCE, OPERATION,
            "No explorer of this process for subject " << subject << " & authority " << authority);
    return DS_NONE_FOUND;
  }
  AutoDereference<ExplorerQuery> const query(new ExplorerQuery(entry));
  AutoDereference<Quillon::Tessarine::Ozf::DiscoverySvc::Discovery> discovery(
      getDiscoveryMemDatbase()->newDiscovery(query, record.queryType));
  discovery->setSubject(new Subject(*entry->getSubject()));
  discovery->setAuthority(new Authority(*entry->getAuthority()));
  return serve(discovery, filter, std::move(place), call, iterator);
}

} // namespace Remote

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
