// Repositories for tests, and explorers registered with them.

#pragma once

#include "discovery/DiscDB.h"
#include "discovery/DiscoveryFramework.h"
#include "discovery/DiscoveryRepository.h"
#include "tests/support/FakeExplorers.h"
#include "tests/support/TempDir.h"

#include <gtest/gtest.h>

namespace tqtest
{

// A repository whose role is given; it is the process's own in every other
// respect, but not the singleton, so that tests can have several.
class TestRepository : public DiscoveryRepository
{
public:
  explicit TestRepository(bool onMaster = false) : m_onMaster(onMaster) {}
  bool isGenericDSOnMaster() const override { return m_onMaster; }

private:
  bool m_onMaster;
};

// With a product root of its own, on a client of the host "master".
struct RepositoryTesting : testing::Test
{
  TempDir root;
  void SetUp() override
  {
    setenv("TESSARINE_ROOT", root.path().c_str(), 1);
    std::filesystem::create_directories(root / "etc");
    writeText(root / "etc/tq.conf", "SERVER = master\nCLIENT_NAME = here\n");
  }

  static void push(DiscoveryRepository& repository, ExplorerPush* explorer, unsigned priority,
                   std::string const& subject, std::string const& authority,
                   AuthorityType type = AT_TQUCLIENT)
  {
    repository.registerExplorer(new Subject(subject), explorer, priority,
                                new Authority(authority, type));
  }
  static void pull(DiscoveryRepository& repository, ExplorerPull* explorer, unsigned priority,
                   std::string const& subject, std::string const& authority,
                   AuthorityType type = AT_TQUCLIENT, bool fromCache = true)
  {
    repository.registerExplorer(new Subject(subject), explorer, priority,
                                new Authority(authority, type), fromCache);
  }
  static std::vector<std::string> names(DiscoveryRepository::Snapshot const& entries)
  {
    std::vector<std::string> result;
    for (auto const& entry : *entries)
      result.push_back(entry->getExplorer()->getExplorerName());
    return result;
  }
};

// This host is the master and its process the discovery service, without an
// ORB: its own database answers.
class LocalMaster
{
public:
  explicit LocalMaster(TempDir const& root)
  {
    std::filesystem::create_directories(root / "etc");
    writeText(root / "etc/tq.conf", "CLIENT_NAME = here\nSERVER = here\n");
    getDiscoveryDBDatabase()->init("");
    m_framework.reset(new DiscoveryFramework("", DST_GENERIC, nullptr, false));
    getDiscoveryRepository().setDiscoveryFramework(m_framework.get());
  }
  ~LocalMaster() { getDiscoveryRepository().setDiscoveryFramework(nullptr); }
  LocalMaster(LocalMaster const&) = delete;
  LocalMaster& operator=(LocalMaster const&) = delete;

  static void store(DiscoveryQuery query, std::string const& subject, Authority const& authority,
                    std::string const& payload)
  {
    AutoDereference<Discovery> discovery;
    getDiscoveryRepository().newDiscovery(
        discovery, query, Subject(subject), authority,
        CollectionAttributes(CT_POINT_IN_TIME, CS_CENTRALREPOSITORY, OzfObjTime::now(),
                             OzfObjTime(3600), 1));
    ASSERT_EQ(DS_SUCCESS, discovery->open(OM_UPDATE, ""));
    ASSERT_NE(0, discovery->getCollectionData()->writeCollection(payload.size(), payload.data()));
    ASSERT_EQ(DS_SUCCESS, discovery->persist());
  }

private:
  AutoDereference<DiscoveryFramework> m_framework;
};

} // namespace tqtest
