// Discoveries for tests of the file database.

#pragma once

#include "discovery/DiscDB.h"
#include "discovery/DiscDBDiscovery.h"
#include "tests/support/TempDir.h"

#include <filesystem>
#include <string>

namespace records
{

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

// A new discovery for the directory; it stays valid for an hour.
inline AutoDereference<DBDiscovery> make(std::string const& directory, std::string const& authority,
                                         std::string const& subject, unsigned priority,
                                         AuthorityType type = AT_TQUCLIENT)
{
  AutoDereference<DBDiscovery> discovery(
      new DBDiscovery(OzfPathname(directory), new DBCollectionData(OzfPathname(directory + "/")),
                      DQ_DISCOVERY_DATA));
  discovery->setAuthority(new Authority(authority, type));
  discovery->setSubject(new Subject(subject));
  discovery->setAttributes(new CollectionAttributes(CT_REAL_TIME, CS_CENTRALREPOSITORY,
                                                    OzfObjTime::now(), OzfObjTime(3600), priority));
  return discovery;
}

// Opens, writes and persists; the status of the first step that fails.
inline DiscoveryStatus store(DBDiscovery& discovery, std::string const& payload)
{
  if (DiscoveryStatus const status = discovery.open(OM_UPDATE, ""); status != DS_SUCCESS)
    return status;
  if (discovery.getCollectionData()->writeCollection(payload.size(), payload.data()) == 0)
    return DS_LOGIC_ERROR;
  return discovery.persist();
}

inline DiscoveryStatus store(std::string const& directory, std::string const& authority,
                             std::string const& subject, unsigned priority,
                             std::string const& payload, AuthorityType type = AT_TQUCLIENT)
{
  return store(*make(directory, authority, subject, priority, type), payload);
}

inline std::string payloadOf(Discovery& discovery)
{
  if (discovery.open(OM_READ, "") != DS_SUCCESS)
    return "(cannot be opened)";
  std::string all;
  char buffer[100];
  for (long n; (n = discovery.getCollectionData()->readCollection(sizeof buffer, buffer)) > 0;)
    all.append(buffer, static_cast<std::size_t>(n));
  return all;
}

inline std::string xmlOf(Discovery const& discovery)
{
  std::ostringstream os;
  discovery.writeXml(os, XmlStr::UTF_8);
  return os.str();
}

// A metadata document that expired or will expire at the time given.
inline std::string document(std::string const& expires, unsigned priority = 1,
                            std::string const& authority = "hostA",
                            std::string const& subject = "hostB", int type = 2)
{
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?><DiscoveryData><DiscoveryAuthority Name=\"" +
         authority + "\" Type=\"" + std::to_string(type) +
         "\"></DiscoveryAuthority><DiscoverySubject Name=\"" + subject +
         "\"></DiscoverySubject><DiscoveryAttributes Type=\"1\" Storage=\"1\"><Priority>" +
         std::to_string(priority) + "</Priority><ExpiresTime>" + expires +
         "</ExpiresTime></DiscoveryAttributes></DiscoveryData>";
}

inline constexpr char PAST[] = "2001-02-03T04:05:06.000007Z";
inline constexpr char FUTURE[] = "2999-02-03T04:05:06.000007Z";

// The process's database in a directory of its own, emptied for each test.
class Database
{
public:
  Database()
  {
    static TempDir const root;
    static bool const ready = []
    {
      setenv("TESSARINE_ROOT", root.path().c_str(), 1);
      getDiscoveryDBDatabase()->init("");
      return true;
    }();
    EXPECT_TRUE(ready);
    for (auto const& entry : std::filesystem::directory_iterator(path()))
      std::filesystem::remove_all(entry.path());
  }

  std::string path() const { return getDiscoveryDBDatabase()->getDirectory(); }
  std::string operator/(std::string const& name) const { return path() + "/" + name; }
};

} // namespace records
