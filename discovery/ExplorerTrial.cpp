#include "discovery/ExplorerTrial.h"

#include "discovery/ExplorerCall.h"
#include "discovery/ExplorerPayload.h"
#include "discovery/FilterDataName.h"
#include "discovery/FilterParameters.h"
#include "discovery/Researcher.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <map>
#include <sstream>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

namespace
{

constexpr char SOURCE[] = "ExplorerTrial";

// A payload in memory.
class TrialData : public CollectionData
{
public:
  int open(OpenMode mode, char const*) override
  {
    if (mode == OM_UPDATE)
      m_text.clear();
    m_position = 0;
    return 1;
  }

  long readCollection(unsigned long len, void* buf) const override
  {
    std::size_t const count = std::min<std::size_t>(len, m_text.size() - m_position);
    std::memcpy(buf, m_text.data() + m_position, count);
    m_position += count;
    return static_cast<long>(count);
  }

  long writeCollection(unsigned long len, void const* buf) const override
  {
    m_text.append(static_cast<char const*>(buf), len);
    return 1;
  }

  std::string const& text() const noexcept { return m_text; }

private:
  mutable std::string m_text;
  mutable std::size_t m_position = 0;
};

std::string nameOf(ExplorerWrapper const& entry)
{
  return "The explorer " + entry.getAuthority()->getName().str();
}

std::string nameOf(TrialRecord const& record)
{
  return std::string(record.attributes.empty() ? "The discovery of " : "The filter data of ") +
         record.authority;
}

// Whether the value can be read as what it is described as.
bool obeys(FoundFact const& fact)
{
  if (fact.description() == nullptr)
    return true;
  switch (fact.description()->type)
  {
  case OzfQuery::Type::TEXT:
    return true;
  case OzfQuery::Type::BOOLEAN:
    return fact.flag().has_value();
  case OzfQuery::Type::TIME:
    return fact.time().has_value();
  case OzfQuery::Type::SIZE:
    return fact.bytes().has_value();
  default:
    return fact.number().has_value();
  }
}

} // namespace

// A discovery that is kept when it is persisted.
class ExplorerTrial::Kept : public Discovery
{
public:
  using Discoveries = std::deque<AutoDereference<Kept>>;

  Kept(DiscoveryQuery query, Discoveries& persisted)
      : Discovery(new TrialData, query), m_persisted(persisted)
  {
  }

  DiscoveryStatus persist() override
  {
    m_persisted.push_back(AutoDereference<Kept>::retain(this));
    return DS_SUCCESS;
  }

  DiscoveryStatus open(OpenMode mode, char const* name) override
  {
    getCollectionData()->open(mode, name);
    return DS_SUCCESS;
  }

  std::string const& document() const
  {
    return static_cast<TrialData const*>(getCollectionData())->text();
  }

private:
  Discoveries& m_persisted;
};

class ExplorerTrial::Store : public DiscoveryFactory
{
public:
  void newDiscovery(AutoDereference<Discovery>& discovery, DiscoveryQuery query,
                    Subject const& subject, Authority const& authority,
                    CollectionAttributes const& attributes) const override
  {
    discovery.reset(new Kept(query, persisted));
    discovery->setSubject(new Subject(subject));
    discovery->setAuthority(new Authority(authority));
    discovery->setAttributes(new CollectionAttributes(attributes));
  }

  mutable Kept::Discoveries persisted;
};

namespace
{

// Gives discoveries to the research API.
template <class Some>
class Given : public virtual DiscoveryIterator
{
public:
  explicit Given(std::deque<AutoDereference<Some>> discoveries)
      : DiscoveryIterator(AT_ANYANDALL, "*", "*"), m_discoveries(std::move(discoveries))
  {
  }

  Discovery* getNext() override
  {
    if (m_discoveries.empty())
      return nullptr;
    Discovery* const next = m_discoveries.front().release();
    m_discoveries.pop_front();
    return next;
  }

private:
  std::deque<AutoDereference<Some>> m_discoveries;
};

} // namespace

ExplorerTrial::ExplorerTrial(Register registerExplorers)
    : m_repository(std::make_unique<DiscoveryRepository>())
{
  registerExplorers(m_repository.get());
}

ExplorerTrial::~ExplorerTrial() = default;

void ExplorerTrial::run(std::string const& query)
{
  m_records.clear();
  m_mistakes.clear();
  auto const pushes = m_repository->getPushExplorers();
  auto const pulls = m_repository->getPullExplorers();
  if (pushes->empty() && pulls->empty())
    complain("No explorer was registered");

  Store store;
  EngineContext const context = EngineContext::isolated();
  m_repository->startExplorers(*pushes, context);
  m_repository->startExplorers(*pulls, context);
  for (auto const& entry : *pushes)
    explore(*entry, store);
  for (auto const& entry : *pulls)
    collect(*entry, query, store);
  m_repository->stopExplorers(*pushes);
  m_repository->stopExplorers(*pulls);
  read(store);
  for (TrialRecord const& record : m_records)
    judge(record);
}

void ExplorerTrial::explore(ExplorerWrapper& entry, Store& store)
{
  auto* const explorer = dynamic_cast<ExplorerPush*>(entry.getExplorer());
  OZF_ASSERT(explorer != nullptr, "NULL != exp", SOURCE, "ExplorerTrial::explore");
  std::size_t const before = store.persisted.size();
  DiscoveryResult result{DS_SUCCESS, 0};
  bool const returned = callGuarded(
      [&]
      {
        auto const now = OzfObjTime::now();
        explorer->setLastExplorationTime(now);
        OzfObjTime const interval(static_cast<std::int64_t>(explorer->getPollingInterval()));
        CollectionAttributes const attributes(CT_POINT_IN_TIME, CS_CENTRALREPOSITORY, now, interval,
                                              entry.getPriority());
        explorer->explore(*entry.getAuthority(), *entry.getSubject(), attributes,
                          entry.getContext(), &store, result);
      },
      [&](std::string const& reason)
      { complain(nameOf(entry) + " threw an exception: " + reason); });
  if (!returned)
    return;
  if (!isSuccess(result))
    complain(nameOf(entry) + " reported a failure: " + Explorers::describe(result.discStatus));
  else if (store.persisted.size() == before)
    complain(nameOf(entry) + " reported success and stored nothing");
}

void ExplorerTrial::collect(ExplorerWrapper& entry, std::string const& query, Store& store)
{
  auto* const explorer = dynamic_cast<ExplorerPull*>(entry.getExplorer());
  OZF_ASSERT(explorer != nullptr, "NULL != exp", SOURCE, "ExplorerTrial::collect");
  std::ostringstream filter;
  if (!query.empty())
    FilterParameters(nullptr, query.c_str()).writeXml(filter, XmlStr::UTF_8);
  AutoDereference<Discovery> discovery;
  store.newDiscovery(discovery, DQ_DISCOVERY_DATA, *entry.getSubject(), *entry.getAuthority(),
                     CollectionAttributes(CT_POINT_IN_TIME, CS_CENTRALREPOSITORY, OzfObjTime::now(),
                                          OzfObjTime(), entry.getPriority()));
  bool produced = false;
  bool const returned = callGuarded(
      [&]
      {
        produced = explorer->collectionRequested(
            DQ_DISCOVERY_DATA, *entry.getAuthority(), *entry.getSubject(), entry.getContext(),
            filter.str().c_str(), discovery->getCollectionData());
      },
      [&](std::string const& reason)
      { complain(nameOf(entry) + " threw an exception: " + reason); });
  if (produced)
    discovery->persist();
  else if (returned)
    complain(nameOf(entry) + " produced nothing");
}

// Twice, since what a fact is may be told after it.
void ExplorerTrial::read(Store& store)
{
  std::vector<AutoDereference<CollectionItemIterator>> collections;
  AutoDereference<AuthSubIterator> const reader(
      new AuthSubIterator(new Given<Kept>(store.persisted)));
  while (AutoDereference<CollectionItemIterator> const collection{
      reader->getNextCollectionItemIterator(nullptr)})
    collections.push_back(collection);

  std::map<std::string, AutoDereference<OzfQuery>> descriptions;
  std::vector<std::vector<AutoDereference<CollectionItem>>> all;
  for (auto const& collection : collections)
  {
    auto& items = all.emplace_back();
    std::string const authority = collection->getAuthority().getName().str();
    while (AutoDereference<CollectionItem> const item{collection->getNextCollectionItem()})
    {
      items.push_back(item);
      if (auto const* const filter = dynamic_cast<FilterItem const*>(item.get()))
      {
        auto& description = descriptions[authority];
        if (!description)
          description.reset(new OzfQuery);
        description->merge(filter->getQuery());
      }
    }
  }

  for (std::size_t number = 0; number < collections.size(); ++number)
  {
    CollectionItemIterator const& collection = *collections[number];
    Kept const& kept = *store.persisted[number];
    auto const origin = std::make_shared<FoundItem::Origin>();
    origin->subject = collection.getSubject().getName().str();
    origin->authority = collection.getAuthority().getName().str();
    origin->discovered = collection.getAttributes()->getDiscoveryTime();
    origin->expires = collection.getAttributes()->getExpiresTime();
    for (std::string const& name : {origin->authority, origin->authority + FILTER_DATA_SUFFIX})
      if (auto const known = descriptions.find(name);
          known != descriptions.end() && !origin->description)
        origin->description = known->second;
    TrialRecord record{origin->subject,
                       origin->authority,
                       collection.getAuthority().getType(),
                       kept.getQuery(),
                       collection.getAttributes()->getPriority(),
                       kept.document(),
                       collection.isParsed(),
                       {},
                       {}};
    for (auto const& item : all[number])
      if (auto const* const found = dynamic_cast<DiscoveredItem const*>(item.get()))
        record.items.emplace_back(origin, *found);
      else if (auto const* const filter = dynamic_cast<FilterItem const*>(item.get()))
        record.attributes.insert(record.attributes.end(), filter->getQuery().attributes().begin(),
                                 filter->getQuery().attributes().end());
    m_records.push_back(std::move(record));
  }
}

void ExplorerTrial::judge(TrialRecord const& record)
{
  if (!record.complete)
    complain(nameOf(record) + " cannot be read to its end");
  for (TrialRecord const& other : m_records)
    if (&other < &record && other.type == record.type && other.query != record.query &&
        other.authority == record.authority && other.subject == record.subject)
      complain(nameOf(record) + " takes the place of what was stored of the same authority, "
                                "subject and type before");
  for (FoundItem const& item : record.items)
  {
    if (item.facts().empty())
      complain(nameOf(record) + ": the item " + item.name() + " has no facts");
    for (auto const& [name, value] : item.facts())
      if (FoundFact const fact = item[name]; !obeys(fact))
        complain(nameOf(record) + ": the item " + item.name() + " has the fact " + name +
                 ", which is not of the kind that is described: \"" + fact.text() + "\"");
  }
}

TrialRecord const* ExplorerTrial::find(std::string const& authority, bool isFilterData) const
{
  auto const found = std::find_if(m_records.rbegin(), m_records.rend(),
                                  [&](TrialRecord const& record) {
                                    return record.authority == authority &&
                                           (record.query == DQ_FILTER_DATA) == isFilterData;
                                  });
  return found == m_records.rend() ? nullptr : &*found;
}

TrialRecord const* ExplorerTrial::data(std::string const& authority) const
{
  return find(authority, false);
}

TrialRecord const* ExplorerTrial::filters(std::string const& authority) const
{
  return find(authority, true);
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
