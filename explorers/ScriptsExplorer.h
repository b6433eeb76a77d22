// "scripts": the facts that scripts find.

#pragma once

#include "discovery/Explorer.h"
#include "discovery/ExplorerGroup.h"
#include "explorers/ScriptWorkers.h"

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

inline constexpr char const* SCRIPTS = "scripts";

// Stands for all scripts of a folder. Each is an explorer to who writes it and to who
// reads what it found, with an authority, an interval and filter data of its own; in
// the registry, where a registration can neither be taken back nor have every name
// (Register.cpp), there is this one for all.
//
// It looks at the folder in every pass of the push timer, gives the scripts that are due
// to threads of its own, and stores what came back since the last pass. So no pass
// waits for a script.
class ScriptsExplorer : public virtual ExplorerPush, public ExplorerGroup
{
public:
  using Clock = std::chrono::steady_clock;

  // Who has the authority already, in words; empty when nobody has.
  using Owner = std::function<std::string(std::string const& authority)>;

  ScriptsExplorer(std::string folder, Owner owner,
                  std::function<Clock::time_point()> clock = Clock::now);

  char const* getExplorerName() const override { return SCRIPTS; }
  PollingInterval getPollingInterval() override { return 0; } // in every pass

  void explore(Authority const& authority, Subject const& subject,
               CollectionAttributes const& attributes, AutoDereference<OZFRefCounted>& context,
               DiscoveryFactory* factory, DiscoveryResult& result) override;
  void stopExploration(Authority const& authority, Subject const& subject,
                       AutoDereference<OZFRefCounted>& context) override;

  // A time of zero, at the start or when somebody asks for new data, makes all scripts
  // due.
  OzfObjTime getLastExplorationTime() override;
  void setLastExplorationTime(OzfObjTime const& time) override;

  bool standsFor(std::string const& authority) override;
  void makeDue(std::string const& authority) override;

private:
  struct Script
  {
    Scripts::ScriptFile file;
    Scripts::Sidecar sidecar;
    bool examined = false; // and good, with its sidecar
    bool usable = false;
    bool busy = false; // waits for a thread, runs, or waits to be stored
    bool ran = false;
    Clock::time_point due;
    std::shared_ptr<ExplorerRecord> record; // of this very file and sidecar
  };

  void look(std::string const& subject);
  void complain(std::set<std::string>& present, std::string const& mistake);
  std::string ownerOf(Scripts::ScriptFile const& file,
                      std::vector<Scripts::ScriptFile> const& all) const;
  void begin(std::string const& subject);
  void takeResults();
  void plan(Script& script, std::string const& subject);
  DiscoveryStatus storeResults(Subject const& subject, DiscoveryFactory const& factory);
  DiscoveryStatus store(ScriptResult const& result, Subject const& subject,
                        DiscoveryFactory const& factory) const;

  std::string const m_folder;
  Owner const m_owner;
  std::function<Clock::time_point()> const m_clock;

  // Of the push timer's thread.
  std::map<std::string, Script> m_scripts; // by path
  std::set<std::string> m_mistakes;        // that were told
  std::vector<ScriptResult> m_results;     // to be stored
  Clock::time_point m_storeAgain;

  std::mutex m_mutex; // the four below
  OzfObjTime m_lastExploration;
  bool m_allDue = false;
  std::set<std::string> m_names; // of the scripts, in lower case
  std::set<std::string> m_due;   // likewise

  ScriptWorkers m_workers;
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
