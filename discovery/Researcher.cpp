#include "discovery/Researcher.h"

#include "discovery/DiscoveryFramework.h"
#include "discovery/DiscoveryLog.h"
#include "discovery/DiscoveryRepository.h"
#include "discovery/FilterParameters.h"
#include "ozf/base/FreeMemory.h"
#include "ozf/orb/Orb.h"
#include "ozf/plugin/CurrentException.h"

#include <ace/Recursive_Thread_Mutex.h>
#include <ace/Singleton.h>

#include <atomic>
#include <new>
#include <sstream>
#include <xercesc/util/OutOfMemoryException.hpp>
#include <xercesc/util/PlatformUtils.hpp>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

namespace
{

constexpr char SOURCE[] = "Researcher";

// A caller that reads one collection after the other uses the memory of the last
// for the next, unless they are as large as this.
constexpr std::size_t LARGE_COLLECTION = 64UL * 1024 * 1024; // bytes

struct OrbHolder
{
  std::atomic<Orb*> orb{nullptr};
};

OrbHolder& orbHolder() { return *ACE_Singleton<OrbHolder, ACE_Recursive_Thread_Mutex>::instance(); }

// What makes this process a reader of discoveries.
class DiscoveryResearcher
{
public:
  DiscoveryResearcher();
  ~DiscoveryResearcher();
  DiscoveryResearcher(DiscoveryResearcher const&) = delete;
  DiscoveryResearcher& operator=(DiscoveryResearcher const&) = delete;

private:
  Orb* m_orb;                    // handed in, may be null
  std::unique_ptr<Orb> m_ownOrb; // null when one was handed in
  AutoDereference<DiscoveryFramework> m_framework;
};

DiscoveryResearcher::DiscoveryResearcher() : m_orb(DiscoverySvc::getOrb())
{
  constexpr char const* OPERATION = "DiscoveryResearcher::DiscoveryResearcher";
  Orb* orb = m_orb;
  if (orb == nullptr)
  {
    // Each ORB of the process needs a name of its own.
    static std::atomic<unsigned> researchers{0};
    std::string const name = "researcher_" + std::to_string(++researchers);
    OZF_LOG(getOzfLogger(), 6, SOURCE, OPERATION,
            "DiscoveryResearcher::DiscoveryResearcher() .... new Orb(" << name << ")");
    m_ownOrb = std::make_unique<Orb>(1, "", name, 1, 1024);
    bool up = false;
    // Besides CORBA's own failures, those of the system: threads that it does
    // not give are exceptions.
    if (callGuarded([&] { up = m_ownOrb->init() && m_ownOrb->run(0) == 0; },
                    [&](std::string const& reason)
                    {
                      OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
                              "Failed to start the ORB " << name << ": " << reason);
                    }) &&
        !up)
      OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Failed to start the ORB " << name);
    orb = m_ownOrb.get();
  }
  m_framework.reset(new DiscoveryFramework("discovery", DST_NONE, orb, false));
  m_framework->init(nullptr);
}

DiscoveryResearcher::~DiscoveryResearcher()
{
  callGuarded(
      [this]
      {
        m_framework->shutdown();
        m_framework->fini();
      },
      [](std::string const& reason)
      {
        OZF_LOG(getOzfLogger(), 1, SOURCE, "DiscoveryResearcher::~DiscoveryResearcher",
                "Failed to shut the discovery framework down: " << reason);
      });
  // The repository outlives the ORB: it must not go on naming it.
  getDiscoveryRepository().setDiscoveryFramework(nullptr);
  if (m_ownOrb)
    m_ownOrb->shutdown();
}

// Unmanaged: at exit the ORB's own singletons may be gone before this one.
using ResearcherSingleton =
    ACE_Unmanaged_Singleton<DiscoveryResearcher, ACE_Recursive_Thread_Mutex>;

} // namespace

void setOrb(Orb* orb) { orbHolder().orb = orb; }

Orb* getOrb() { return orbHolder().orb; }

void initDiscoveryResearch() { ResearcherSingleton::instance(); }

void deinitDiscoveryResearch() { ResearcherSingleton::close(); }

AutoDereference<AuthSubIterator> getAuthSubIterator(DiscoveryQuery query,
                                                    std::string const& subject,
                                                    std::string const& authority,
                                                    AuthorityType type)
{
  static std::string const ALL = "*";
  DiscoveryIterator* const discoveries = getDiscoveryRepository().queryDiscoveries(
      query, subject.empty() ? ALL : subject, authority.empty() ? ALL : authority, type);
  if (discoveries == nullptr)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, "getAuthSubIterator",
            "Failed to get a handle to discoveries");
    return {};
  }
  return AutoDereference<AuthSubIterator>(new AuthSubIterator(discoveries));
}

// ---- one discovery ----

CollectionItemIterator::CollectionItemIterator(Authority const& authority, Subject const& subject,
                                               CollectionAttributes const* attributes,
                                               std::shared_ptr<CollectionItems const> items,
                                               bool parsed)
    : m_authority(authority), m_subject(subject), m_items(std::move(items)), m_parsed(parsed)
{
  if (attributes != nullptr)
    m_attributes = *attributes;
}

CollectionItemIterator::CollectionItemIterator(CollectionItemIterator const& other)
    : m_authority(other.m_authority),
      m_subject(other.m_subject),
      m_attributes(other.m_attributes),
      m_items(other.m_items),
      m_parsed(other.m_parsed),
      m_next(other.m_next)
{
}

CollectionItemIterator::~CollectionItemIterator() = default;

CollectionItem* CollectionItemIterator::getNextCollectionItem()
{
  if (m_next == m_items->size())
    return nullptr;
  return AutoDereference<CollectionItem>((*m_items)[m_next++]).release();
}

// ---- all discoveries ----

AuthSubIterator::AuthSubIterator(DiscoveryIterator* discoveries)
    : m_discoveries(discoveries), m_items(std::make_shared<CollectionItems>())
{
}

AuthSubIterator::~AuthSubIterator() = default;

CollectionItemIterator*
AuthSubIterator::getNextCollectionItemIterator(FilterParameters const* filter)
{
  constexpr char const* OPERATION = "AuthSubIterator::getNextCollectionItemIterator";
  for (;;)
  {
    AutoDereference<Discovery> const discovery(nextDiscovery());
    if (!discovery)
      return nullptr;
    if (discovery->getAuthority() == nullptr || discovery->getSubject() == nullptr)
    {
      OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
              "Ignoring a discovery without authority or subject");
      continue;
    }

    m_authority.emplace(*discovery->getAuthority());
    m_subject.emplace(*discovery->getSubject());
    m_attributes.reset();
    if (discovery->getAttributes() != nullptr)
      m_attributes = *discovery->getAttributes();
    m_items = std::make_shared<CollectionItems>();

    bool const parsed = parseDiscovery(discovery->getCollectionData(), filter);
    if (!parsed)
      OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Failed to parse discovery");
    return new CollectionItemIterator(*m_authority, *m_subject,
                                      m_attributes ? &*m_attributes : nullptr, m_items, parsed);
  }
}

// A store that runs out of memory throws, so that nobody takes that for the end
// of the list. Callers of the research API ask isIncomplete.
Discovery* AuthSubIterator::nextDiscovery()
{
  try
  {
    return m_discoveries->getNext();
  }
  catch (std::bad_alloc const&)
  {
    m_brokenOff = true;
    OZF_LOG(getOzfLogger(), 1, SOURCE, "AuthSubIterator::getNextCollectionItemIterator",
            "Out of memory reading the list of discoveries");
    return nullptr;
  }
}

bool AuthSubIterator::isIncomplete() const noexcept
{
  return m_brokenOff || m_discoveries->isIncomplete();
}

bool AuthSubIterator::parseDiscovery(CollectionData* data, FilterParameters const* filter)
{
  constexpr char const* OPERATION = "AuthSubIterator::parseDiscovery";
  if (data == nullptr)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Invalid collection data pointer");
    return false;
  }

  // It travels with the request to open, so that a store that has the data
  // from another host can let that host apply it.
  std::ostringstream filterText;
  if (filter != nullptr)
    filter->writeXml(filterText, XmlStr::UTF_8);
  if (data->open(OM_READ, filterText.str().c_str()) == 0)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Failed to read collection data");
    return false;
  }

  bool const parsed = parseCollection(*data);
  if (m_tally.ignored > XmlObjParseContext::MOST_IGNORED_TOLD)
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "Ignored " << m_tally.ignored - XmlObjParseContext::MOST_IGNORED_TOLD
                       << " more unknown tags of " << name());
  if (!parsed)
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Failed to parse the discovery stream");
  if (m_tally.built > LARGE_COLLECTION)
    m_items = std::shared_ptr<CollectionItems>(m_items.get(),
                                               [items = m_items](CollectionItems*) mutable
                                               {
                                                 items.reset();
                                                 returnFreeMemory();
                                               });
  return parsed;
}

// Reads the collection, which is open, and says why when it cannot.
bool AuthSubIterator::parseCollection(CollectionData& data)
{
  constexpr char const* OPERATION = "AuthSubIterator::parseDiscovery";
  std::u16string const systemId = u"sysid";
  m_tally = DocumentTally(); // of a document without even one element
  try
  {
    if (parse(DiscoverySetInputSource(data, systemId.c_str())))
      return true;
    if (wasTooLarge())
      OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
              "Gave up reading " << name() << ", " << lastError());
    else
      OZF_LOG(getOzfLogger(), 4, SOURCE, OPERATION, lastError());
    return false;
  }
  catch (AssertionFailure const&)
  {
    throw;
  }
  catch (xercesc::OutOfMemoryException const&)
  {
  }
  catch (std::bad_alloc const&)
  {
  }
  catch (abi::__forced_unwind const&)
  {
    throw; // of a thread that is cancelled
  }
  catch (...)
  {
    // Of a parser that a plug-in brought: a CORBA exception is no standard one.
    OZF_LOG(getOzfLogger(), 4, SOURCE, OPERATION, currentExceptionText());
    return false;
  }
  OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION, "Out of memory reading " << name());
  return false;
}

std::string AuthSubIterator::name() const
{
  if (!m_subject) // which is set after the authority
    return "a collection";
  return "the discovery of " + m_authority->getName().str() + " about " +
         m_subject->getName().str();
}

// ---- the stream ----

// The base takes memory from the XML machinery, which must be ready before.
DiscoverySetInputSource::DiscoverySetInputSource(CollectionData& data, XMLCh const* systemId)
    : xercesc::InputSource(systemId, (initializeXml(), xercesc::XMLPlatformUtils::fgMemoryManager)),
      m_data(data)
{
}

xercesc::BinInputStream* DiscoverySetInputSource::makeStream() const
{
  return new (getMemoryManager()) DiscoverySetBinInputStream(m_data);
}

XMLSize_t DiscoverySetBinInputStream::readBytes(XMLByte* buffer, XMLSize_t maxToRead)
{
  long const count = m_data->readCollection(maxToRead, buffer);
  if (count < 0)
  {
    // A parser that is still being set up, as it is at the first read, leaks
    // what it has when this raises. Without a byte there is no document anyway.
    if (m_position == 0)
      return 0;
    throw xercesc::XMLPlatformUtilsException(SOURCE, 0,
                                             xercesc::XMLExcepts::File_CouldNotReadFromFile);
  }
  m_position += static_cast<XMLFilePos>(count);
  return static_cast<XMLSize_t>(count);
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
