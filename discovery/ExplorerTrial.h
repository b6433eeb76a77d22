// Runs explorers without a service, for the tests of those who write them:
//
//   ExplorerTrial trial(RegisterExplorers);
//   trial.run();
//   for (auto const& mistake : trial.mistakes())
//     std::cerr << mistake << '\n';
//   assert(trial.data("uptime")->items.at(0)["Uptime"].seconds());

#pragma once

#include "discovery/Discoveries.h"
#include "discovery/DiscoveryRepository.h"

#include <memory>
#include <string>
#include <vector>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// What an explorer would have stored, or given to who asked.
struct TrialRecord
{
  std::string subject;
  std::string authority;
  AuthorityType type;
  DiscoveryQuery query;
  ExplorerPriority priority;
  std::string document; // as it was written

  // What a reader gets of it: what was found, or what can be asked for.
  bool complete = false; // the document was read to its end
  std::vector<FoundItem> items;
  std::vector<OzfQuery::Attribute> attributes;
};

// One thread at a time.
class TQ_EXPORT ExplorerTrial
{
public:
  using Register = void (*)(DiscoveryRepository*);

  // Calls the entry point of a plug-in; what it registers is known to this trial
  // alone.
  explicit ExplorerTrial(Register registerExplorers);
  ~ExplorerTrial();
  ExplorerTrial(ExplorerTrial const&) = delete;
  ExplorerTrial& operator=(ExplorerTrial const&) = delete;

  // As a service does, on this thread: starts every explorer, lets each push explorer
  // explore and each pull explorer produce its collection, once with the query
  // (docs/query-language.md), and stops them. What an earlier run left is dropped.
  void run(std::string const& query = {});

  // In the order in which they were stored.
  std::vector<TrialRecord> const& records() const noexcept { return m_records; }

  // The discovery data, or the filter data, that was stored last under the authority;
  // null when there is none.
  TrialRecord const* data(std::string const& authority) const;
  TrialRecord const* filters(std::string const& authority) const;

  // What a service would log, or its readers stumble over, as complete sentences: an
  // explorer that throws, reports a failure or stores nothing; a document that cannot be
  // read; an item without facts; a value that is not of the kind that is described;
  // discovery data and filter data that would take each other's place.
  std::vector<std::string> const& mistakes() const noexcept { return m_mistakes; }

private:
  class Kept;
  class Store;

  void explore(ExplorerWrapper& entry, Store& store);
  void collect(ExplorerWrapper& entry, std::string const& query, Store& store);
  void read(Store& store);
  void judge(TrialRecord const& record);
  TrialRecord const* find(std::string const& authority, bool isFilterData) const;
  void complain(std::string mistake) { m_mistakes.push_back(std::move(mistake)); }

  std::unique_ptr<DiscoveryRepository> const m_repository;
  std::vector<TrialRecord> m_records;
  std::vector<std::string> m_mistakes;
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
