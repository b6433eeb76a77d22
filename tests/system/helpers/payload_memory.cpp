// Stores payloads that are made to take much memory, or reads one and tells what
// it took of this process, in KiB: at most while it was read, and what is left
// when the reader has dropped everything:
//
//   items <n> parsed <0|1> peak <KiB> left <KiB>
//
// "clients" lists the clients for a refresh, as a master does, from the records
// of authority "filesystem"; n is then the number of clients.
//
// Usage: payload_memory <root> store <subject> <shape> <MiB>
//        payload_memory <root> read <subject>
//        payload_memory <root> clients
//
// Shapes: names, attributes, queries, items, filesystems.

#include "discovery/DiscDB.h"
#include "discovery/DiscoveryFramework.h"
#include "discovery/DiscoveryRepository.h"
#include "discovery/Researcher.h"
#include "ozf/config/Configuration.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

namespace
{

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

constexpr char AUTHORITY[] = "filesystem";

// "VmRSS" or "VmHWM" of this process, in KiB.
long residentOf(char const* key)
{
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);)
    if (line.rfind(key, 0) == 0)
      return std::atol(line.c_str() + std::strlen(key) + 1);
  return -1;
}

void openOwnDatabase()
{
  getDiscoveryDBDatabase()->init("");
  static AutoDereference<DiscoveryFramework> framework;
  framework.reset(new DiscoveryFramework("", DST_GENERIC, nullptr, false));
  getDiscoveryRepository().setDiscoveryFramework(framework.get());
}

std::string textOf(std::string const& shape, std::size_t size)
{
  std::string text;
  text.reserve(size + 256);
  auto const fill = [&](auto piece)
  {
    for (std::size_t i = 0; text.size() < size; ++i)
      text += piece(i);
  };
  if (shape == "queries")
  {
    text = "<FilterData>";
    fill([](std::size_t) { return std::string("<QueryDescription/>"); });
    return text + "</FilterData>";
  }
  text = "<DiscoveredItems>";
  if (shape == "items")
    fill([](std::size_t) { return std::string("<DISCOVERED/>"); });
  else if (shape == "filesystems")
    fill(
        [](std::size_t i)
        {
          return "<DISCOVERED Name=\"/srv/" + std::to_string(i) +
                 "\"><StatusMsg Code=\"0\" Severity=\"0\"></StatusMsg><ExplorerData Name=\""
                 "filesystem\"><FileSystem Type=\"ext4\" Source=\"/dev/sda1\" Size=\"" +
                 std::to_string(i * 4096) + "\"/><Label>data</Label></ExplorerData></DISCOVERED>";
        });
  else
  {
    text += "<DISCOVERED><ExplorerData Name=\"e\">";
    if (shape == "names")
      fill([](std::size_t i) { return "<e" + std::to_string(i) + "/>"; });
    else
    {
      text += "<e";
      fill([](std::size_t i) { return " a" + std::to_string(i) + "=\"\""; });
      text += "/>";
    }
    text += "</ExplorerData></DISCOVERED>";
  }
  return text + "</DiscoveredItems>";
}

bool storeText(std::string const& subject, std::string const& text)
{
  AutoDereference<Discovery> discovery;
  getDiscoveryRepository().newDiscovery(
      discovery, DQ_DISCOVERY_DATA, Subject(subject), Authority(AUTHORITY, AT_TQUCLIENT),
      CollectionAttributes(CT_POINT_IN_TIME, CS_CENTRALREPOSITORY, OzfObjTime::now(),
                           OzfObjTime(86400), 1));
  return discovery && discovery->open(OM_UPDATE, "") == DS_SUCCESS &&
         discovery->getCollectionData()->writeCollection(text.size(), text.data()) != 0 &&
         discovery->persist() == DS_SUCCESS;
}

bool readAll(std::string const& subject, std::size_t& count, bool& parsed)
{
  auto const discoveries = getAuthSubIterator(DQ_DISCOVERY_DATA, subject, AUTHORITY, AT_ANYANDALL);
  if (!discoveries)
    return false;
  AutoDereference<CollectionItemIterator> const items(
      discoveries->getNextCollectionItemIterator(nullptr));
  if (!items)
    return false;
  parsed = items->isParsed();
  for (count = 0; AutoDereference<CollectionItem>(items->getNextCollectionItem()); ++count)
  {
  }
  return true;
}

} // namespace

int main(int argc, char** argv)
{
  if (argc < 3)
    return 2;
  setenv("TESSARINE_ROOT", argv[1], 1);
  reloadConfiguration();
  openOwnDatabase();
  std::string const mode = argv[2];
  if (mode == "store" && argc == 6)
    return storeText(argv[3], textOf(argv[4], std::strtoul(argv[5], nullptr, 10) << 20)) ? 0 : 1;

  std::size_t count = 0;
  bool parsed = true;
  // What every process takes once is no matter of the payload.
  if (!readAll("warm", count, parsed))
    return 1;
  long const before = residentOf("VmRSS");
  std::ofstream("/proc/self/clear_refs") << "5";
  if (mode == "clients")
    count = getDiscoveryRepository().getDiscoveredClientList().size();
  else if (mode != "read" || argc != 4 || !readAll(argv[3], count, parsed))
    return 1;
  std::printf("items %zu parsed %d peak %ld left %ld\n", count, parsed ? 1 : 0,
              residentOf("VmHWM") - before, residentOf("VmRSS") - before);
  return 0;
}
