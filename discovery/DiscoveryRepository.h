// The hub of the service: the registry of explorers and parsers, the creation
// of discoveries, queries, and the two timers.
//
// A plug-in's entry point gets it to register with: that is what
// registerExplorer and registerExplorerParser are for. Readers of discoveries
// use discovery/Researcher.h. The rest is the service's own.
//
// Its operations may be called from any thread. The recursive lock guards the
// registry, the parsers and the plug-in limit; it is held while a registration
// is written to the cache and while parsers are loaded. Queries and timers do
// not take it: they work on snapshots of the sets.

#pragma once

#include "discovery/CachedRegistrations.h"
#include "discovery/DiscoveryRepositoryEntries.h"
#include "discovery/Peers.h"
#include "discovery/Registrations.h"
#include "ozf/base/OzfHostname.h"
#include "ozf/sync/OZFBlockUntil.h"
#include "ozf/sync/OzfLockable.h"

#include <DiscoveryServiceC.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <sys/types.h>
#include <utility>

namespace Quillon::Tessarine::Ozf
{
class Orb;
}

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

class DiscoveryFramework;

class TQ_EXPORT DiscoveryRepository : public virtual DiscoveryFactory, protected virtual OzfLockable
{
public:
  class DiscoveryTimerBase;
  class ExplorerPushTimer;
  class ExplorerRegisterTimer;

  using Snapshot = Registrations::Snapshot;

  DiscoveryRepository();
  explicit DiscoveryRepository(Peers& peers); // not owned; keeps them up to date
  ~DiscoveryRepository() override;

  // Creation and queries.

  void newDiscovery(AutoDereference<Discovery>& discovery, DiscoveryQuery query,
                    Subject const& subject, Authority const& authority,
                    CollectionAttributes const& attributes) const override;

  // The discoveries whose names match the patterns ('*' is the wildcard), with
  // one reference for the caller. On the master's generic service: matching
  // pull explorers (never for AT_REMOTEPULL), then the database. Elsewhere the
  // master is asked, which blocks for the request time-out at worst. Null,
  // with a log line, when nothing could be queried.
  virtual DiscoveryIterator* queryDiscoveries(DiscoveryQuery query, std::string const& subject,
                                              std::string const& authority, AuthorityType type);

  // Discoveries to be produced by the first pull explorer that matches both
  // patterns and by every entry after it in the set's order; null when none
  // matches.
  DiscoveryIterator* findPullExplorer(DiscoveryQuery query, Snapshot const& pullExplorers,
                                      std::string const& subject, std::string const& authority);

  // The roles of this process: whether the host is the master, as it was found
  // on first use, which may ask the system's resolver; whether the process is
  // a discovery service (type 1) or only reads (type 0). All but isMaster
  // assert that there is a framework.

  virtual bool isMaster() const;
  virtual bool isGenericDS() const;
  virtual bool isGenericDSOnMaster() const;
  virtual unsigned getDSType() const;

  // The configured master's name; left empty, with a log line, when there is
  // none.
  virtual void getMasterServerName(OzfHostname& master) const;

  // Timers and explorers.

  // Moves the next firing of the push timer to a random delay of up to 59
  // seconds; nothing without a push timer. Anybody may ask for it, as often as
  // he likes, so it is left where it is while a firing moved before is yet to
  // come, and for five minutes after that unless it would come sooner: the next
  // pass is within a minute of every call, whoever else calls.
  virtual void triggerPushTimer();

  // A new authority with the local host's name and type AT_EXTSRC; the
  // caller's.
  virtual Authority* getLocalAuthority() const;

  // Tell each explorer, on this thread; what one throws is logged. One whose run is late
  // is told to stop when that has returned, if that is before the process ends.
  virtual void startExplorers(ExplorerSet explorers, EngineContext const& context);
  virtual void stopExplorers(ExplorerSet const& explorers);

  // Set a new timer in the place of the present one, on the framework's
  // reactor, and return at once; nothing once the repository shuts down. The
  // push timer fires at once and then every 5 seconds, for the push explorers
  // registered now. The register timer fires after up to 300 seconds, and
  // again every 300 seconds until the master knows this host's pull explorers;
  // then it starts the push timer.
  virtual void startPushTimer();
  virtual void startRegisterTimer();

  // Asks the master's service; null with a log line on every failure. At most
  // 20 calls may be in progress in the process.
  virtual DiscoveryIterator* queryRemoteDiscoveries(DiscoveryQuery query,
                                                    std::string const& subject,
                                                    std::string const& authority,
                                                    AuthorityType type);

  // The registry.
  //
  // Its lock is always taken before the plug-in loader's, never after it: a
  // plug-in's entry point registers while the loader holds its own. The loader
  // sees to that itself.

  // Take subject and authority over (a null authority means the local one) and
  // add a reference to the explorer. A push registration must be of higher
  // priority than an entry of the same identity in either set to replace it; a
  // pull registration replaces an entry of the same priority too. The loser is
  // dropped silently. fromCache keeps a registration that was read from the
  // pull-explorer cache from being written there again.
  //
  // An explorer of another host (RemoteExplorerPull) whose subject is this
  // host's name never replaces what this process registered for itself, unless
  // it comes from the cache.
  void registerExplorer(Subject const* subject, ExplorerPush const* explorer,
                        unsigned const& priority, Authority const* authority);
  Registration registerExplorer(Subject const* subject, ExplorerPull const* explorer,
                                unsigned const& priority, Authority const* authority,
                                bool fromCache);

  // Registrations of other hosts that arrive while the service starts: what the
  // cache restores would win over them, though it is older. So they wait while
  // a hold lives, which the framework makes before the service can be called.
  class AnnouncementHold
  {
  public:
    explicit AnnouncementHold(DiscoveryRepository& repository);
    ~AnnouncementHold();
    AnnouncementHold(AnnouncementHold const&) = delete;
    AnnouncementHold& operator=(AnnouncementHold const&) = delete;

  private:
    DiscoveryRepository& m_repository;
  };

  // Returns when there is no hold, or false after the limit, which is well below
  // the time-out of the caller.
  bool awaitAnnouncements(std::chrono::milliseconds limit = std::chrono::seconds(20));

  // Keeps the first parser of a name; adds a reference.
  void registerExplorerParser(OzfString const& name, ExplorerDataParser const* parser);

  // The parser of that name, null when there is none. The first call loads the
  // parsers of all plug-ins.
  AutoDereference<ExplorerDataParser> getRegisteredExplorerParser(OzfString const& name);

  // Restricts plug-in loading to the libraries named; null or empty lifts it.
  void limitExplorerPlugins(std::list<std::string> const* names);
  std::list<std::string> getExplorerPluginLimit() const;

  // Loads the plug-ins, starts the explorers and the timer of this role. A
  // plug-in that cannot be loaded is logged and passed over.
  void loadExplorers();

  // Loads the parsers of all plug-ins, once; nothing after that.
  void loadExplorerParsers();

  // Writes one pull registration into the local database, failures are logged. A
  // new record beyond the bounds of CachedRegistrations is not written, which a
  // log line tells.
  void persistToDisk(AutoDereference<ExplorerWrapper>& entry);

  // Registers what the pull-explorer cache holds.
  void loadPullExplorerCache();

  // Takes explorers of other hosts out whose registrations were in that cache and have been
  // removed from it since, as by an operator; none while the directory of the database is not the
  // one of the first call. Looks at a few hundred at each call, at all of them in turn. Brief; one
  // thread.
  void dropForgotten();

  // Whether there is a '*' in the text.
  static bool stringContainsWildcard(std::string const& text);

  // The registry as it stands; a snapshot does not change.
  Snapshot getPushExplorers() const;
  Snapshot getPullExplorers() const;

  // The framework, with a counted reference; the accessors assert that there
  // is one. Set it before other threads use the repository, and null only when
  // none does any more: reading it takes no lock. A new framework makes a
  // repository that was shut down usable again.
  void setDiscoveryFramework(DiscoveryFramework const* framework);
  Orb* getOrb() const;           // not the caller's
  Orb* findOrb() const noexcept; // null when there is no framework or no ORB
  std::string getOrbServiceName() const;
  std::string getDSName() const;

  // Other hosts.

  // A reference to the discovery service of the host, the caller's; nil with a
  // log line when it cannot be had. Blocks for the request time-out at worst.
  Remote::DiscoveryService_ptr connectToRemoteDiscoveryService(OzfHostname const& host,
                                                               char const* serviceName) const;

  // The names of the hosts whose volumes or file systems are known. Reads all
  // those collections, one after the other, those on demand from their hosts:
  // blocks for the request time-out for every host that does not answer, and
  // longer for a slow one. Shutting the repository down ends it after the one
  // in hand, without the names of the others.
  std::set<OzfString> getDiscoveredClientList();

  // The end.

  // How the shutdown waits for a refresh of the clients; who refreshes says so
  // once, before the first time.
  void setRefreshWait(std::function<void()> wait);

  // Once for each framework: waits for a refresh in progress, stops timers, waiting for a pass in
  // progress, and explorers, and empties the registry. Late explorers are not waited
  // for; a line names each that it leaves.
  void shutdown();
  bool isShuttingDown() const noexcept { return m_peers.isShuttingDown(); }

  // After shutdown: waits for every object registered with the repository's
  // barrier. The end of the repository itself does not wait: a barrier with
  // objects left is theirs from then on.
  void fini();
  OZFBlockUntil& getBarrier() noexcept { return *m_barrier; }

private:
  // Goes on with the pass that the entry before next holds up, and with the reactor, on
  // another thread; the shutdown does not wait for the held timer any more.
  void passOn(ExplorerPushTimer& held, ExplorerSet::const_iterator next, OzfObjTime const& fired);
  void stopExplorer(ExplorerWrapper& entry);

  Registrations m_registrations;
  CachedRegistrations m_cachedRegistrations;
  std::size_t m_nextAnnounced = 0;                      // of the pull explorers, to be looked at
  std::optional<std::pair<dev_t, ino_t>> m_announcedIn; // the directory of their announcements
  AutoDereference<DiscoveryFramework> m_discoveryFramework;
  std::unique_ptr<Peers> m_ownPeers; // of any but the process's one repository
  Peers& m_peers;
  std::mutex m_timersMutex; // the three below
  std::function<void()> m_waitForRefresh;
  AutoDereference<ExplorerPushTimer> m_pushTimer;
  AutoDereference<ExplorerRegisterTimer> m_registerTimer;
  std::unique_ptr<OZFBlockUntil> m_barrier = std::make_unique<OZFBlockUntil>();
  bool m_parsersLoaded = false;
  std::map<OzfString, AutoDereference<ExplorerDataParser>> m_parsers;
  std::list<std::string> m_pluginLimit;
  std::mutex m_holdMutex; // nothing else is locked under it
  std::condition_variable m_holdOver;
  int m_holds = 0;
};

// The process's one repository, made on first use.
TQ_EXPORT DiscoveryRepository& getDiscoveryRepository();

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
