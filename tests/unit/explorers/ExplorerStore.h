// A file database of a test's own, and a factory that stores there.

#pragma once

#include "discovery/DiscDB.h"
#include "discovery/DiscoveryFactory.h"
#include "tests/support/TempDir.h"

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace ExplorerTesting
{

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

struct Stored
{
  AuthorityType type;
  std::string authority;
  std::string subject;
  std::string payload;
};

// The database can be set up once a process, so tests in one process share it,
// emptied.
class Store : public DiscoveryFactory
{
public:
  Store()
  {
    static TempDir const root;
    static DiscoveryDBCreator* const database = []
    {
      setenv("TESSARINE_ROOT", root.path().c_str(), 1);
      getDiscoveryDBDatabase()->init("");
      return getDiscoveryDBDatabase();
    }();
    m_database = database;
    for (auto const& entry : std::filesystem::directory_iterator(database->getDirectory()))
      std::filesystem::remove_all(entry.path());
  }

  void newDiscovery(AutoDereference<Discovery>& discovery, DiscoveryQuery query,
                    Subject const& subject, Authority const& authority,
                    CollectionAttributes const& attributes) const override
  {
    discovery.reset(m_database->newDiscovery(query));
    discovery->setSubject(new Subject(subject));
    discovery->setAuthority(new Authority(authority));
    discovery->setAttributes(new CollectionAttributes(attributes));
    queries.push_back(query);
  }

  // Everything that can be read back.
  std::vector<Stored> records() const
  {
    std::vector<Stored> all;
    AutoDereference<DiscoveryIterator> const walk(m_database->getIterator(DQ_UNDEFINED));
    walk->setAuthority("*", AT_ANYANDALL);
    walk->setSubject("*");
    while (AutoDereference<Discovery> const record{walk->getNext()})
    {
      std::string payload(1U << 20U, '\0');
      EXPECT_EQ(DS_SUCCESS, record->open(OM_READ, ""));
      long const length =
          record->getCollectionData()->readCollection(payload.size(), payload.data());
      payload.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
      all.push_back({record->getAuthority()->getType(), record->getAuthority()->getName().str(),
                     record->getSubject()->getName().str(), payload});
    }
    return all;
  }

  Stored only(AuthorityType type) const
  {
    std::vector<Stored> found;
    for (auto const& record : records())
      if (record.type == type)
        found.push_back(record);
    EXPECT_EQ(1U, found.size());
    return found.empty() ? Stored{} : found.front();
  }

  // The data of that authority.
  Stored of(std::string const& authority) const
  {
    for (auto const& record : records())
      if (record.type == AT_TQUCLIENT && record.authority == authority)
        return record;
    ADD_FAILURE() << "nothing of " << authority;
    return Stored{};
  }

  mutable std::vector<DiscoveryQuery> queries; // of every record asked for

private:
  DiscoveryDBCreator* m_database;
};

inline CollectionAttributes attributes(ExplorerPriority priority = 10)
{
  return CollectionAttributes(CT_POINT_IN_TIME, CS_CENTRALREPOSITORY, OzfObjTime::now(),
                              OzfObjTime(300), priority);
}

inline DiscoveryResult explore(ExplorerPush& explorer, AuthorityType type,
                               DiscoveryFactory* factory, std::string const& subject = "backup-one",
                               ExplorerPriority priority = 10)
{
  AutoDereference<OZFRefCounted> context;
  DiscoveryResult result;
  explorer.explore(Authority(explorer.getExplorerName(), type), Subject(subject),
                   attributes(priority), context, factory, result);
  return result;
}

} // namespace ExplorerTesting
