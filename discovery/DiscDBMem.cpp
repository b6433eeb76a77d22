#include "discovery/DiscDBMem.h"

#include "discovery/DiscoveryLog.h"
#include "discovery/ExplorerCall.h"
#include "discovery/ExplorerPayload.h"
#include "discovery/ExplorerRuns.h"
#include "ozf/orb/Corba.h"

#include <ace/Recursive_Thread_Mutex.h>
#include <ace/Singleton.h>

#include <algorithm>
#include <limits>
#include <optional>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

namespace
{

constexpr char SOURCE[] = "DiscDB";

AutoDereference<ExplorerQuery> queryOf(AutoDereference<ExplorerQuery> const& query)
{
  return query;
}

AutoDereference<ExplorerQuery> queryOf(AutoDereference<ExplorerWrapper> const& entry)
{
  return AutoDereference<ExplorerQuery>(new ExplorerQuery(entry));
}

// What gives one after the other, and null at the end.
template <class Set>
auto walk(std::shared_ptr<Set const> const& set, typename Set::const_iterator first)
{
  return [set, next = first]() mutable
  { return next == set->end() ? AutoDereference<ExplorerQuery>() : queryOf(*next++); };
}

} // namespace

MemCollectionData::MemCollectionData(AutoDereference<ExplorerQuery> const& query,
                                     DiscoveryQuery kind)
    : m_kind(kind), m_query(query)
{
}

int MemCollectionData::open(OpenMode mode, char const* name)
{
  constexpr char OPERATION[] = "MemCollectionData::open";
  if (mode == OM_UPDATE)
    return 1;

  auto* const explorer = dynamic_cast<ExplorerPull*>(m_query->getEntry()->getExplorer());
  OZF_ASSERT(explorer != nullptr, "NULL != exp", SOURCE, OPERATION);
  OZF_ASSERT(name != nullptr, "filterParmaetersXml", SOURCE, OPERATION);

  std::shared_ptr<ExplorerRecord> const& record = m_query->getEntry()->getRecord();
  std::optional<ExplorerRun> run;
  if (record && !getExplorerRuns().mayRun(*record))
  {
    OZF_LOG(getOzfLogger(), 4, SOURCE, OPERATION,
            "Explorer " << record->name() << " is not asked: it is " << record->now().result);
    return 0;
  }
  if (record)
    run.emplace(record, ExplorerRuns::budgetOnRequest());

  // Explorers are plug-ins: what one throws is its failure, not the caller's.
  bool produced = false;
  try
  {
    produced =
        explorer->collectionRequested(m_kind, *m_query->getAuthority(), *m_query->getSubject(),
                                      m_query->getContext(), name, this);
  }
  catch (AssertionFailure const&)
  {
    throw;
  }
  catch (CORBA::Exception const& exception)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "Explorer " << nameForLog(*explorer) << " failed: " << corbaExceptionText(exception));
  }
  catch (abi::__forced_unwind const&)
  {
    throw; // of a thread that is cancelled
  }
  catch (...)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "Explorer " << nameForLog(*explorer) << " failed: " << currentExceptionText());
  }
  DiscoveryStatus const status = produced ? DS_SUCCESS : DS_OPEN_FAILED;
  m_query->getEntry()->noteRun(OzfObjTime::now(), status);
  if (run)
    run->finish(Explorers::describe(status), produced);
  m_position = 0;
  return produced ? 1 : 0;
}

long MemCollectionData::readCollection(unsigned long len, void* buf) const
{
  auto const wanted = std::min<unsigned long>(len, std::numeric_limits<long>::max());
  long const count = m_payload.read(m_position, wanted, buf);
  if (count > 0)
    m_position += static_cast<std::size_t>(count);
  return count;
}

long MemCollectionData::writeCollection(unsigned long len, void const* buf) const
{
  return m_payload.append(static_cast<char const*>(buf), len) ? 1 : 0;
}

MemDiscovery::MemDiscovery(CollectionData* data, DiscoveryQuery query) : Discovery(data, query) {}

DiscoveryStatus MemDiscovery::open(OpenMode mode, char const* name)
{
  return getCollectionData()->open(mode, name) != 0 ? DS_SUCCESS : DS_OPEN_FAILED;
}

DiscoveryStatus MemDiscovery::persist() { return DS_SUCCESS; }

MemDiscoveryIterator::MemDiscoveryIterator(ExplorerQuerySet const& queries, DiscoveryQuery kind)
    : DiscoveryIterator(AT_ANYANDALL, "", ""), m_kind(kind)
{
  auto const copy = std::make_shared<ExplorerQuerySet const>(queries);
  m_next = walk(copy, copy->begin());
}

MemDiscoveryIterator::MemDiscoveryIterator(ExplorerTail const& tail, DiscoveryQuery kind)
    : DiscoveryIterator(AT_ANYANDALL, "", ""),
      m_next(walk(tail.explorers, tail.first)),
      m_kind(kind)
{
}

Discovery* MemDiscoveryIterator::getNext()
{
  AutoDereference<ExplorerQuery> const query = m_next();
  if (!query)
    return nullptr;
  AutoDereference<Discovery> discovery(getDiscoveryMemDatbase()->newDiscovery(query, m_kind));
  OZF_ASSERT(discovery, "NULL != discovery", SOURCE, "MemDiscoveryIterator::getNext");
  discovery->setSubject(new Subject(*query->getSubject()));
  discovery->setAuthority(new Authority(*query->getAuthority()));
  return discovery.release();
}

Discovery* DiscoveryMemCreator::newDiscovery(AutoDereference<ExplorerQuery> const& query,
                                             DiscoveryQuery kind)
{
  return new MemDiscovery(new MemCollectionData(query, kind), kind);
}

DiscoveryIterator* DiscoveryMemCreator::getIterator(ExplorerQuerySet const& queries,
                                                    DiscoveryQuery kind) const
{
  return new MemDiscoveryIterator(queries, kind);
}

DiscoveryIterator* DiscoveryMemCreator::getIterator(ExplorerTail const& tail,
                                                    DiscoveryQuery kind) const
{
  return new MemDiscoveryIterator(tail, kind);
}

DiscoveryMemCreator* getDiscoveryMemDatbase()
{
  return ACE_Singleton<DiscoveryMemCreator, ACE_Recursive_Thread_Mutex>::instance();
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
