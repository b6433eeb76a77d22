#include "bench/Records.h"

#include "bench/Bench.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace tqbench
{
namespace
{

constexpr std::int64_t ONE_YEAR = 365LL * 24 * 3600;

void writeFile(std::string const& path, std::string const& text)
{
  std::ofstream out(path, std::ios::binary);
  out << text;
  out.close();
  require(!out.fail(), "cannot write a file of the database");
}

} // namespace

std::string const& payload()
{
  static std::string const text = []
  {
    std::string made;
    while (made.size() < 1024)
      made += "<Item Name=\"/export/home\"/>\n";
    made.resize(1024, '\n');
    return made;
  }();
  return text;
}

std::string subjectName(std::size_t number)
{
  char name[64];
  std::snprintf(name, sizeof name, "client-%06zu.example.net", number);
  return name;
}

std::string baseName(std::size_t number)
{
  return std::to_string(static_cast<int>(TYPE)) + ' ' + AUTHORITY + ' ' + subjectName(number);
}

void describe(Discovery& discovery, std::size_t number)
{
  discovery.setAuthority(new Authority(AUTHORITY, TYPE));
  discovery.setSubject(new Subject(subjectName(number)));
  discovery.setAttributes(new CollectionAttributes(CT_POINT_IN_TIME, CS_CENTRALREPOSITORY,
                                                   OzfObjTime::now(), OzfObjTime(ONE_YEAR), 1));
}

std::string document(std::size_t number)
{
  AutoDereference<DBDiscovery> discovery(
      new DBDiscovery(OzfPathname("."), nullptr, DQ_DISCOVERY_DATA));
  describe(*discovery, number);
  std::ostringstream text;
  discovery->writeXml(text, XmlStr::UTF_8);
  return text.str();
}

void makeDatabase(std::string const& root, std::size_t count)
{
  std::string const directory = root + "/db/discovery";
  std::filesystem::create_directories(directory);
  for (std::size_t number = 0; number < count; ++number)
  {
    std::string const base = directory + '/' + baseName(number);
    writeFile(base + ".xml", document(number));
    writeFile(base + ".dat", payload());
  }
  ::sync();
}

std::string openDatabase(std::string const& root)
{
  ::setenv("TESSARINE_ROOT", root.c_str(), 1);
  getDiscoveryDBDatabase()->init("");
  return getDiscoveryDBDatabase()->getDirectory();
}

} // namespace tqbench
