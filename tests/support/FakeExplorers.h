// Explorers that note what is asked of them.

#pragma once

#include "discovery/Explorer.h"

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace tqtest
{

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

// Names in the order of the calls; shared by several explorers.
class CallList
{
public:
  void add(std::string const& name)
  {
    std::lock_guard guard(m_mutex);
    m_names.push_back(name);
    m_changed.notify_all();
  }
  std::vector<std::string> names() const
  {
    std::lock_guard guard(m_mutex);
    return m_names;
  }
  template <class Predicate>
  bool waitFor(Predicate predicate, std::chrono::milliseconds deadline)
  {
    std::unique_lock guard(m_mutex);
    return m_changed.wait_for(guard, deadline, [&] { return predicate(m_names); });
  }

private:
  mutable std::mutex m_mutex;
  std::condition_variable m_changed;
  std::vector<std::string> m_names;
};

class FakePush : public virtual ExplorerPush
{
public:
  explicit FakePush(std::string name, CallList* calls = nullptr, PollingInterval interval = 0)
      : m_name(std::move(name)), m_calls(calls), m_interval(interval)
  {
  }

  void startExploration(EngineContext const&, Authority const&, Subject const&,
                        AutoDereference<OZFRefCounted>&, DiscoveryFactory*) override
  {
    note("start");
  }
  void stopExploration(Authority const&, Subject const&, AutoDereference<OZFRefCounted>&) override
  {
    note("stop");
  }
  char const* getExplorerName() const override { return m_name.c_str(); }

  void explore(Authority const& authority, Subject const& subject,
               CollectionAttributes const& attributes, AutoDereference<OZFRefCounted>&,
               DiscoveryFactory* factory, DiscoveryResult& result) override
  {
    note("explore");
    if (onExplore)
      onExplore(authority, subject, attributes, factory, result);
  }
  OzfObjTime getLastExplorationTime() override
  {
    std::lock_guard guard(m_mutex);
    return m_last;
  }
  void setLastExplorationTime(OzfObjTime const& time) override
  {
    std::lock_guard guard(m_mutex);
    m_last = time;
  }
  PollingInterval getPollingInterval() override { return m_interval; }

  std::function<void(Authority const&, Subject const&, CollectionAttributes const&,
                     DiscoveryFactory*, DiscoveryResult&)>
      onExplore;

private:
  void note(char const* call)
  {
    if (m_calls != nullptr)
      m_calls->add(std::string(call) + " " + m_name);
  }

  std::string m_name;
  CallList* m_calls;
  PollingInterval m_interval;
  std::mutex m_mutex;
  OzfObjTime m_last;
};

class FakePull : public virtual ExplorerPull
{
public:
  explicit FakePull(std::string name, CallList* calls = nullptr, std::string data = "<data/>")
      : m_name(std::move(name)), m_calls(calls), m_data(std::move(data))
  {
  }

  void startExploration(EngineContext const&, Authority const&, Subject const&,
                        AutoDereference<OZFRefCounted>&, DiscoveryFactory*) override
  {
    note("start");
  }
  void stopExploration(Authority const&, Subject const&, AutoDereference<OZFRefCounted>&) override
  {
    note("stop");
  }
  char const* getExplorerName() const override { return m_name.c_str(); }

  // Produces nothing when its data is empty.
  bool collectionRequested(DiscoveryQuery, Authority const&, Subject const&,
                           AutoDereference<OZFRefCounted>&, char const* filterText,
                           CollectionData* target) override
  {
    note("collect");
    lastFilter = filterText;
    if (m_data.empty())
      return false;
    return target->writeCollection(m_data.size(), m_data.data()) != 0;
  }

  std::string lastFilter;

private:
  void note(char const* call)
  {
    if (m_calls != nullptr)
      m_calls->add(std::string(call) + " " + m_name);
  }

  std::string m_name;
  CallList* m_calls;
  std::string m_data;
};

} // namespace tqtest
