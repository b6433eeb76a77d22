// A discovery service inside the test's own process: a real ORB on a loopback
// port, a product root of its own, and whatever explorers the test registers.

#pragma once

#include "discovery/DiscoveryFramework.h"
#include "discovery/DiscoveryRepository.h"
#include "ozf/base/OzfHostname.h"
#include "ozf/config/Configuration.h"
#include "ozf/orb/Orb.h"
#include "ozf/sync/AceReactor.h"
#include "tests/support/FreePort.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace tqtest
{

namespace ozf = Quillon::Tessarine::Ozf;
namespace svc = Quillon::Tessarine::Ozf::DiscoverySvc;

// Waits for a condition, not for a time.
template <class Condition>
bool eventually(Condition condition, std::chrono::seconds deadline = std::chrono::seconds(60))
{
  auto const end = std::chrono::steady_clock::now() + deadline;
  while (!condition())
  {
    if (std::chrono::steady_clock::now() > end)
      return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

class Service
{
public:
  // name: this host's own. master: the value of SERVER, none when empty.
  explicit Service(std::string const& name = "here", std::string const& master = "here")
      : m_name(name), m_port(freePort())
  {
    setenv("TESSARINE_ROOT", m_root.path().c_str(), 1);
    std::filesystem::create_directories(m_root / "etc");
    configure(master);
    // Settles the role by this configuration.
    m_framework.reset(new svc::DiscoveryFramework("", svc::DST_GENERIC, &m_orb, true));
    svc::getDiscoveryRepository().setDiscoveryFramework(m_framework.get());
    svc::getDiscoveryRepository().isMaster();
  }
  ~Service() { stop(); }
  Service(Service const&) = delete;
  Service& operator=(Service const&) = delete;

  void configure(std::string const& master)
  {
    std::string text = "CLIENT_NAME = " + m_name + "\nHOST_ADDRESS." + m_name +
                       " = 127.0.0.1\nORB_BIND = 127.0.0.1\nORB_PORT.DiscoveryService = " +
                       std::to_string(m_port) + "\n";
    if (!master.empty())
      text += "SERVER = " + master + "\n";
    writeText(m_root / "etc/tq.conf", text);
    ozf::reloadConfiguration();
  }

  // Brings the ORB up and makes the framework; explorers that are registered
  // before are started by it.
  void start()
  {
    ASSERT_TRUE(m_orb.init());
    ASSERT_EQ(0, m_orb.run(0));
    ozf::setAceReactor(m_orb.getReactor());
    m_framework->init(nullptr);
    m_started = true;
  }

  void stop()
  {
    if (m_started)
    {
      m_started = false;
      m_framework->shutdown();
      m_framework->fini();
    }
    ozf::setAceReactor(nullptr);
    m_orb.shutdown();
  }

  // For tests that shut the framework down themselves: stop only stops the ORB.
  void leaveFrameworkToTest() { m_started = false; }

  // A reference obtained as a client obtains it.
  svc::Remote::DiscoveryService_var connect()
  {
    ozf::OzfHostname host;
    host.setHostname(m_name);
    return svc::getDiscoveryRepository().connectToRemoteDiscoveryService(host, "DiscoveryService");
  }

  std::string database() const { return m_root / "db/discovery"; }
  TempDir& root() { return m_root; }
  ozf::Orb& orb() { return m_orb; }
  svc::DiscoveryFramework& framework() { return *m_framework; }
  unsigned short port() const { return m_port; }

  // Stores a discovery as an explorer of this host does.
  static svc::DiscoveryStatus store(std::string const& subject, std::string const& authority,
                                    svc::AuthorityType type = svc::AT_TQUCLIENT,
                                    std::string const& payload = "<x/>", unsigned priority = 1)
  {
    using namespace svc;
    ozf::AutoDereference<Discovery> discovery;
    getDiscoveryRepository().newDiscovery(
        discovery, DQ_DISCOVERY_DATA, Subject(subject), Authority(authority, type),
        CollectionAttributes(CT_POINT_IN_TIME, CS_CENTRALREPOSITORY, ozf::OzfObjTime(1000),
                             ozf::OzfObjTime(3600), priority));
    DiscoveryStatus const opened = discovery->open(OM_UPDATE, "");
    if (opened != DS_SUCCESS)
      return opened;
    if (!discovery->getCollectionData()->writeCollection(payload.size(), payload.data()))
      return DS_OPEN_FAILED;
    return discovery->persist();
  }

  // A wire record with usable values.
  static svc::Remote::Discovery record(char const* subject, char const* authority,
                                       svc::AuthorityType type = svc::AT_TQUCLIENT,
                                       int priority = 1)
  {
    svc::Remote::Discovery wire;
    wire.queryType = svc::DQ_DISCOVERY_DATA;
    wire.subject = subject;
    wire.authority = authority;
    wire.authType = type;
    wire.attributes.colType = svc::CT_POINT_IN_TIME;
    wire.attributes.colStorage = svc::CS_CENTRALREPOSITORY;
    wire.attributes.priority = priority;
    wire.attributes.timeToLive = 3600;
    wire.attributes.discoveryTime = 1000;
    wire.sourceHost = "";
    wire.sourceServiceName = "";
    return wire;
  }

private:
  TempDir m_root;
  std::string m_name;
  unsigned short m_port;
  ozf::Orb m_orb{0, "", "DiscoveryService", 1, 1024};
  ozf::AutoDereference<svc::DiscoveryFramework> m_framework;
  bool m_started = false;
};

// A service that has started, and a connection to it.
struct ServiceTest : testing::Test
{
  Service host;
  svc::Remote::DiscoveryService_var service;
  LogCapture log;

  void SetUp() override
  {
    host.start();
    service = host.connect();
    ASSERT_FALSE(CORBA::is_nil(service)) << log.text();
  }
};

} // namespace tqtest
