#include "discovery/OwnCollections_i.h"

#include "discovery/AnnouncementState.h"
#include "discovery/DiscDBMem.h"
#include "discovery/DiscoveryLog.h"
#include "discovery/DiscoveryRepository.h"
#include "discovery/DiscoveryServant.h"
#include "discovery/ExplorerRemotePull.h"
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

// Tells of the state at the moment when it is asked. Not in the registry, where it
// would come before others and keep them from being read.
class StateExplorer : public virtual ExplorerPull
{
public:
  void startExploration(EngineContext const&, Authority const&, Subject const&,
                        AutoDereference<OZFRefCounted>&, DiscoveryFactory*) override
  {
  }
  void stopExploration(Authority const&, Subject const&, AutoDereference<OZFRefCounted>&) override
  {
  }
  char const* getExplorerName() const override { return ANNOUNCEMENT_AUTHORITY; }

  bool collectionRequested(DiscoveryQuery, Authority const&, Subject const&,
                           AutoDereference<OZFRefCounted>&, char const*,
                           CollectionData* target) override
  {
    OzfHostname local;
    local.setLocal();
    AnnouncementState::Now const now = getAnnouncementState().now();
    std::ostringstream text;
    XmlStr::xmlProlog(text, XmlStr::UTF_8)
        << "<DiscoveredItems><DISCOVERED Name=\""
        << XmlStr(OzfString(local.exportNarrow()), XmlStr::UTF_8) << "\">";
    appendExplorerDataStartTag(text, XmlStr::UTF_8);
    add(text, "Role", getDiscoveryRepository().isGenericDSOnMaster() ? "master" : "client");
    add(text, "State", nameOf(now.phase));
    add(text, "NextTry", now.next);
    add(text, "LastTry", now.last);
    if (!now.reason.empty())
      add(text, "Reason", now.reason);
    appendExplorerDataEndTag(text);
    text << "</DISCOVERED></DiscoveredItems>\n";
    std::string const document = text.str();
    return target->writeCollection(document.size(), document.data()) != 0;
  }

private:
  static void add(std::ostream& os, char const* fact, std::string const& value)
  {
    XmlStr::appendStart(os, fact) << XmlStr(value, XmlStr::UTF_8);
    XmlStr::appendEnd(os, fact);
  }

  static void add(std::ostream& os, char const* fact, OzfObjTime const& time)
  {
    std::string text;
    if (!time.isZero() && MetadataConverter::convert(time, text, false))
      add(os, fact, text);
  }
};

AutoDereference<ExplorerWrapper> stateEntry(std::string const& subject)
{
  AutoDereference<ExplorerPull> const explorer(new StateExplorer);
  return AutoDereference<ExplorerWrapper>(
      new ExplorerWrapper(explorer.get(), 0, new Subject(subject),
                          new Authority(ANNOUNCEMENT_AUTHORITY, AT_TQUCLIENT)));
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
  PeerPlace place = takeIteratorPlace(OPERATION);
  iterator = CollectionDataIterator::_nil();
  if (!areUsableNames(record.subject, record.authority))
    return DS_LOGIC_ERROR;
  std::string const subject = Subject(record.subject.in()).getName().str();
  std::string const authority(record.authority);
  auto const entry =
      authority == ANNOUNCEMENT_AUTHORITY ? stateEntry(subject) : findOwn(subject, authority);
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
  return serve(discovery, filter, std::move(place), iterator);
}

} // namespace Remote

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
