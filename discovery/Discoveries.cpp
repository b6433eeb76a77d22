#include "discovery/Discoveries.h"

#include "discovery/DiscoveryRepository.h"
#include "discovery/FilterDataName.h"
#include "discovery/FilterDescription.h"
#include "discovery/FilterParameters.h"
#include "discovery/Researcher.h"
#include "ozf/base/Uri.h"
#include "ozf/base/Wildcard.h"
#include "ozf/config/Configuration.h"
#include "ozf/config/ConfigurationKeys.h"
#include "ozf/config/HostAddresses.h"
#include "ozf/config/HostRole.h"
#include "ozf/tls/CurrentTls.h"

#include <deque>
#include <map>
#include <mutex>
#include <utility>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

namespace
{

using Fault = DiscoveryProblem::Fault;
using Problems = std::vector<DiscoveryProblem>;

// A host that is away costs a time-out for each of its collections.
constexpr std::size_t MOST_FAILURES_IN_A_ROW = 20;

std::string printable(std::string const& text) { return Uri::percentEncode(text, URI_SHOWN); }

// The research API, up as long as one of these is there.
class Research
{
public:
  Research()
  {
    std::lock_guard const guard(mutex());
    if (s_count++ == 0)
      initDiscoveryResearch();
  }
  ~Research()
  {
    std::lock_guard const guard(mutex());
    if (--s_count == 0)
      deinitDiscoveryResearch();
  }
  Research(Research const&) = delete;
  Research& operator=(Research const&) = delete;

private:
  static std::mutex& mutex()
  {
    static std::mutex one;
    return one;
  }
  static inline unsigned s_count = 0;
};

// The product's own pages hold eight bytes, or nine records.
void choosePageSizes()
{
  for (auto const& [key, value] : {std::pair{configKey("COLLECTION_PAGE_SIZE").name, "65536"},
                                   {configKey("DISCOVERY_PAGE_SIZE").name, "500"}})
    if (getConfiguration()->find(key) == nullptr)
      overrideConfiguration(key, value);
}

bool canBeFound(std::string const& host, std::string& reason)
{
  for (std::string const& one : getHostAddresses(host))
    if (!resolveHost(one, reason).empty())
      return true;
  return false;
}

// What keeps the configuration from naming a master; empty when nothing does.
std::string mistakeOf(Configuration const& configuration)
{
  if (!configuration.readable())
    return "cannot read the configuration " + configuration.path();
  std::string const* const server = configuration.find(configKey("SERVER"));
  if (server == nullptr || server->empty())
    return "there is no SERVER in " + configuration.path();
  return mistakeOfTls(configuration);
}

std::string masterOf(Configuration const& configuration)
{
  return configuration.word(configKey("SERVER"));
}

DiscoveryProblem whyNotAsked()
{
  std::string const master = masterOf(*getConfiguration());
  std::string reason;
  if (!canBeFound(master, reason))
    return {Fault::CONFIGURATION, "SERVER = " + printable(master) +
                                      " names a host that cannot be found (" + reason +
                                      "), and there is no HOST_ADDRESS for it"};
  return {Fault::MASTER, "the master " + printable(master) +
                             " could not be asked: is its service running, and may this host read "
                             "there? The log tells more"};
}

// What is known of the discovery that is read.
struct InHand
{
  std::shared_ptr<FoundItem::Origin const> origin;
  bool onDemand = false; // the explorer has applied the query
  bool had = false;      // its bytes, to their end
};

// The payload of a discovery, and whether it can be had.
class WatchedData : public CollectionData
{
public:
  WatchedData(AutoDereference<Discovery> discovery, InHand& inHand)
      : m_discovery(std::move(discovery)), m_inHand(inHand)
  {
  }

  int open(OpenMode mode, char const* name) override
  {
    CollectionData* const data = m_discovery->getCollectionData();
    int const opened = data == nullptr || mode != OM_READ ? 0 : data->open(mode, name);
    m_inHand.had = opened != 0;
    return opened;
  }

  long readCollection(unsigned long len, void* buf) const override
  {
    long const count = m_discovery->getCollectionData()->readCollection(len, buf);
    m_inHand.had = m_inHand.had && count >= 0;
    return count;
  }

  long writeCollection(unsigned long, void const*) const override { return 0; }

private:
  AutoDereference<Discovery> const m_discovery;
  InHand& m_inHand;
};

class WatchedDiscovery : public Discovery
{
public:
  WatchedDiscovery(AutoDereference<Discovery> const& discovery, InHand& inHand)
      : Discovery(new WatchedData(discovery, inHand), discovery->getQuery())
  {
    setSubject(new Subject(*discovery->getSubject()));
    setAuthority(new Authority(*discovery->getAuthority()));
    if (discovery->getAttributes() != nullptr)
      setAttributes(new CollectionAttributes(*discovery->getAttributes()));
  }

  DiscoveryStatus persist() override { return DS_LOGIC_ERROR; }
  DiscoveryStatus open(OpenMode mode, char const* name) override
  {
    return getCollectionData()->open(mode, name) != 0 ? DS_SUCCESS : DS_OPEN_FAILED;
  }
};

// The description of an authority's facts, as hosts have stored it.
class Describer
{
public:
  AutoDereference<OzfQuery> of(std::string const& authority, std::string const& subject,
                               bool onDemand)
  {
    if (OzfQuery* const known = m_known.find(authority))
      return AutoDereference<OzfQuery>::retain(known);
    AutoDereference<OzfQuery> description(new FilterDescription(authority, subject));
    if (onDemand && description->attributes().empty())
      description.reset(new FilterDescription(authority + FILTER_DATA_SUFFIX, subject));
    // Where one host has none, another may.
    if (!description->attributes().empty() || ++m_withoutAny[authority] == MOST_ASKED)
    {
      m_withoutAny.erase(authority);
      m_known.keep(authority, description);
    }
    return description;
  }

private:
  static constexpr unsigned MOST_ASKED = 3; // hosts, of an authority that describes nothing

  KnownDescriptions m_known;
  std::map<std::string, unsigned> m_withoutAny;
};

// The discoveries that were asked for: a service may answer with more.
class WantedDiscoveries : public virtual DiscoveryIterator
{
public:
  // Takes the caller's reference to discoveries over. The others outlive it.
  WantedDiscoveries(DiscoveryIterator* discoveries, std::string const& authority,
                    std::string const& subject, Describer& descriptions, InHand& inHand)
      : DiscoveryIterator(AT_ANYANDALL, subject, authority),
        m_discoveries(discoveries),
        m_descriptions(descriptions),
        m_inHand(inHand)
  {
  }

  Discovery* getNext() override
  {
    while (AutoDereference<Discovery> const discovery{m_discoveries->getNext()})
      if (isWanted(*discovery))
      {
        take(*discovery);
        return new WatchedDiscovery(discovery, m_inHand);
      }
    if (m_discoveries->isIncomplete())
      setIncomplete();
    return nullptr;
  }

private:
  bool isWanted(Discovery const& discovery) const
  {
    Authority const* const authority = discovery.getAuthority();
    Subject const* const subject = discovery.getSubject();
    // The service's notes of which host has what explorer on demand are no discoveries.
    return authority != nullptr && subject != nullptr && authority->getType() != AT_REMOTEPULL &&
           wildcardcmp(printable(getAuthorityFilter()), authority->getName().str()) == 0 &&
           wildcardcmp(printable(getSubjectFilter()), subject->getName().str()) == 0;
  }

  void take(Discovery const& discovery)
  {
    auto const origin = std::make_shared<FoundItem::Origin>();
    origin->subject = discovery.getSubject()->getName().str();
    origin->authority = discovery.getAuthority()->getName().str();
    CollectionAttributes const* const attributes = discovery.getAttributes();
    bool const onDemand = attributes == nullptr || attributes->getDiscoveryTime().isZero();
    if (!onDemand)
    {
      origin->discovered = attributes->getDiscoveryTime();
      origin->expires = attributes->getExpiresTime();
    }
    origin->description = m_descriptions.of(origin->authority, origin->subject, onDemand);
    m_inHand = {origin, onDemand, false};
  }

  AutoDereference<DiscoveryIterator> const m_discoveries;
  Describer& m_descriptions;
  InHand& m_inHand;
};

// Makes items of a collection as it is read.
class ItemReader : public AuthSubIterator
{
public:
  ItemReader(DiscoveryIterator* discoveries, OzfQuery const& query, InHand const& inHand,
             std::deque<FoundItem>& items)
      : AuthSubIterator(discoveries), m_query(query), m_inHand(inHand), m_items(items)
  {
  }

  int xmlEndElement(XmlObjParseContext* context, XMLCh const* name) override
  {
    int const result = AuthSubIterator::xmlEndElement(context, name);
    for (auto const& each : itemsInHand())
      if (auto const* const item = dynamic_cast<DiscoveredItem const*>(each.get()))
        if (FoundItem found(m_inHand.origin, *item); m_inHand.onDemand || isAnswer(found))
          m_items.push_back(std::move(found));
    itemsInHand().clear();
    return result;
  }

private:
  bool isAnswer(FoundItem const& item) const
  {
    return m_query.evaluate(
        [&item](std::string_view name) -> std::optional<std::string>
        {
          FoundFact const fact = item[name];
          return fact ? std::optional(fact.text()) : std::nullopt;
        });
  }

  OzfQuery const& m_query;
  InHand const& m_inHand;
  std::deque<FoundItem>& m_items;
};

} // namespace

struct Discoveries::Session
{
  Session() : mistake(mistakeOf(*getConfiguration()))
  {
    if (!mistake.empty())
    {
      problems->push_back({Fault::CONFIGURATION, mistake});
      return;
    }
    choosePageSizes();
    research.emplace();
  }

  std::string mistake; // of the configuration
  std::optional<Research> research;
  Describer descriptions;
  std::shared_ptr<Problems> problems = std::make_shared<Problems>(); // of the last query
};

// ---- the walk ----

class FoundItems::Walk
{
public:
  // keep keeps the research API up.
  Walk(std::shared_ptr<void> keep, std::shared_ptr<Problems> problems)
      : m_keep(std::move(keep)), m_problems(std::move(problems))
  {
  }

  void tell(DiscoveryProblem problem)
  {
    if (m_problems->size() < Discoveries::MOST_PROBLEMS)
      m_problems->push_back(std::move(problem));
  }

  void ask(std::string const& authority, std::string const& subject, std::string const& query,
           Describer& descriptions)
  {
    if (m_query.setQuery(query) != OzfQuery::QUERY_OK)
      return tell({Fault::QUERY, "the query cannot be understood: " + m_query.lastError()});
    if (!query.empty())
      m_parameters.emplace(nullptr, query.c_str());
    // Asked of the repository as getAuthSubIterator does, so that what need not be read
    // is not fetched.
    DiscoveryIterator* const discoveries = getDiscoveryRepository().queryDiscoveries(
        DQ_DISCOVERY_DATA, subject, authority, AT_ANYANDALL);
    if (discoveries == nullptr)
      return tell(whyNotAsked());
    m_reader.reset(new ItemReader(
        new WantedDiscoveries(discoveries, authority, subject, descriptions, m_inHand), m_query,
        m_inHand, m_items));
  }

  bool atEnd() const noexcept { return m_items.empty(); }
  FoundItem const& item() const noexcept { return m_items.front(); }

  void begin()
  {
    if (m_items.empty())
      readMore();
  }

  void next()
  {
    m_items.pop_front();
    begin();
  }

private:
  // The next discovery that has items.
  void readMore()
  {
    while (m_items.empty() && m_reader)
    {
      AutoDereference<CollectionItemIterator> const discovery(
          m_reader->getNextCollectionItemIterator(m_parameters ? &*m_parameters : nullptr));
      if (!discovery)
        end();
      else if (discovery->isParsed())
        m_failures = 0;
      else
        noteUnread(*discovery);
    }
  }

  void noteUnread(CollectionItemIterator const& discovery)
  {
    std::string const name = "what " + printable(discovery.getAuthority().getName().str()) +
                             " found about " + printable(discovery.getSubject().getName().str());
    if (m_inHand.had)
      tell({Fault::PAYLOAD, name + " cannot be read to its end; the log tells where"});
    else
      tell({Fault::MASTER, name + " could not be had of the host that has it; the log tells why"});
    if (++m_failures < MOST_FAILURES_IN_A_ROW)
      return;
    tell({Fault::MASTER,
          "gave up after " + std::to_string(MOST_FAILURES_IN_A_ROW) + " such failures in a row"});
    m_reader.reset();
  }

  void end()
  {
    if (m_reader->isIncomplete())
      tell({Fault::MASTER, "some discoveries may be missing: a disk or a host failed, as the log "
                           "tells"});
    m_reader.reset();
  }

  std::shared_ptr<void> const m_keep; // goes last
  std::shared_ptr<Problems> const m_problems;
  OzfQuery m_query;
  std::optional<FilterParameters> m_parameters;
  InHand m_inHand;
  std::deque<FoundItem> m_items;
  std::size_t m_failures = 0; // in a row
  AutoDereference<ItemReader> m_reader;
};

FoundItem const& FoundItems::Iterator::operator*() const { return m_walk->item(); }

FoundItems::Iterator& FoundItems::Iterator::operator++()
{
  m_walk->next();
  return *this;
}

bool FoundItems::Iterator::operator==(std::default_sentinel_t) const
{
  return m_walk == nullptr || m_walk->atEnd();
}

FoundItems::FoundItems(std::unique_ptr<Walk> walk) : m_walk(std::move(walk)) {}
FoundItems::~FoundItems() = default;
FoundItems::FoundItems(FoundItems&& other) noexcept = default;
FoundItems& FoundItems::operator=(FoundItems&& other) noexcept = default;

FoundItems::Iterator FoundItems::begin()
{
  m_walk->begin();
  return Iterator(m_walk.get());
}

// ---- the session ----

Discoveries::Discoveries() : m_session(std::make_shared<Session>()) {}
Discoveries::~Discoveries() = default;
Discoveries::Discoveries(Discoveries&& other) noexcept = default;
Discoveries& Discoveries::operator=(Discoveries&& other) noexcept = default;

FoundItems Discoveries::items(std::string const& authority, std::string const& subject,
                              std::string const& query)
{
  m_session->problems = std::make_shared<Problems>();
  auto walk = std::make_unique<FoundItems::Walk>(m_session, m_session->problems);
  if (m_session->mistake.empty())
    walk->ask(authority, subject, query, m_session->descriptions);
  else
    walk->tell({Fault::CONFIGURATION, m_session->mistake});
  return FoundItems(std::move(walk));
}

std::vector<DiscoveryProblem> const& Discoveries::problems() const noexcept
{
  return *m_session->problems;
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
