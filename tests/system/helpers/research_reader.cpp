// Stores one large discovery, or reads it through the research API and tells
// how much memory that took:
//
//   items <n> parsed <0|1> facts <n> grew <KiB>
//
// The explorer's data goes to a parser that counts the facts and keeps none of
// them, as a component's own would that looks for a few among many. "local"
// reads the database of this host, as the master's service does; "remote" asks
// the service that the configuration names; so does "leave", and ends without
// putting the research API away.
//
// Usage: research_reader <root> store|local|remote|leave <subject> <MiB>

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

constexpr char AUTHORITY[] = "large";
constexpr char EXPLORER[] = "counted";
constexpr std::size_t MIB = std::size_t(1) << 20;

class CountedFacts : public virtual ExplorerData
{
public:
  std::uint64_t count = 0;
};

class CountingContext : public XmlObjParseContext
{
public:
  using XmlObjParseContext::XmlObjParseContext;
  AutoDereference<CountedFacts> facts{new CountedFacts};
};

class CountingParser : public virtual ExplorerDataParser
{
public:
  int xmlCharacters(XmlObjParseContext*, XMLCh const*, unsigned long) override { return 1; }
  int xmlStartElement(XmlObjParseContext* context, XMLCh const*, AttributeList&) override
  {
    ++dynamic_cast<CountingContext&>(*context).facts->count;
    return 1;
  }
  int xmlEndElement(XmlObjParseContext* context, XMLCh const* name) override
  {
    return context->isEndTag(name) ? 0 : 1;
  }
  std::ostream& writeXml(std::ostream& os, XmlStr::Encoding) const override { return os; }
  XmlObjParseContext* getParseContext(OzfString const&, XMLCh const* elementName,
                                      XmlObjParseContext const* parent) override
  {
    return new CountingContext(elementName, parent);
  }
  ExplorerData* getExplorerData(XmlObjParseContext* context) override
  {
    return AutoDereference<ExplorerData>(dynamic_cast<CountingContext&>(*context).facts).release();
  }
  char const* getExplorerParserName() const override { return EXPLORER; }
};

// "VmRSS" or "VmHWM" of this process, in KiB.
long memoryOf(char const* key)
{
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);)
    if (line.rfind(key, 0) == 0)
      return std::atol(line.c_str() + std::strlen(key) + 1);
  return -1;
}

void forgetPeak() { std::ofstream("/proc/self/clear_refs") << "5"; }

// The database of this process, as the master's service has it.
void openDatabase()
{
  getDiscoveryDBDatabase()->init("");
  static AutoDereference<DiscoveryFramework> framework;
  framework.reset(new DiscoveryFramework("", DST_GENERIC, nullptr, false));
  getDiscoveryRepository().setDiscoveryFramework(framework.get());
}

// Exactly that many MiB: items of 1 MiB, and line ends up to the last byte.
bool store(std::string const& subject, std::size_t mebibytes)
{
  openDatabase();
  AutoDereference<Discovery> discovery;
  getDiscoveryRepository().newDiscovery(
      discovery, DQ_DISCOVERY_DATA, Subject(subject), Authority(AUTHORITY, AT_TQUCLIENT),
      CollectionAttributes(CT_POINT_IN_TIME, CS_CENTRALREPOSITORY, OzfObjTime::now(),
                           OzfObjTime(86400), 1));
  if (!discovery || discovery->open(OM_UPDATE, "") != DS_SUCCESS)
    return false;
  CollectionData const& data = *discovery->getCollectionData();
  std::size_t size = 0;
  auto const write = [&](std::string const& text)
  {
    size += text.size();
    return data.writeCollection(text.size(), text.data()) != 0;
  };

  std::string const end = "</ExplorerData></DISCOVERED>";
  bool written = write("<DiscoveredItems>");
  for (std::size_t item = 0; written && item < mebibytes; ++item)
  {
    std::string text =
        "<DISCOVERED Name=\"" + std::to_string(item) + "\"><ExplorerData Name=\"counted\">";
    for (std::size_t fact = 0; text.size() < MIB - 256; ++fact)
      text += "<File Owner=\"root\">/srv/data/" + std::to_string(fact) + "</File>";
    written = write(text + end);
  }
  written = written && write("</DiscoveredItems>");
  written = written && write(std::string(mebibytes * MIB - size, '\n'));
  return written && discovery->persist() == DS_SUCCESS;
}

bool readSubject(std::string const& subject)
{
  auto const discoveries = getAuthSubIterator(DQ_DISCOVERY_DATA, subject, AUTHORITY, AT_ANYANDALL);
  if (!discoveries)
    return false;
  long const before = memoryOf("VmRSS");
  forgetPeak();
  AutoDereference<CollectionItemIterator> const items(
      discoveries->getNextCollectionItemIterator(nullptr));
  long const grew = memoryOf("VmHWM") - before;
  if (!items)
    return false;
  std::size_t count = 0;
  std::uint64_t facts = 0;
  for (;; ++count)
  {
    AutoDereference<CollectionItem> const item(items->getNextCollectionItem());
    if (!item)
      break;
    AutoDereference<ExplorerData> const data(
        dynamic_cast<DiscoveredItem const&>(*item).getExplorerData());
    facts += dynamic_cast<CountedFacts const&>(*data).count;
  }
  std::printf("items %zu parsed %d facts %llu grew %ld\n", count, items->isParsed() ? 1 : 0,
              static_cast<unsigned long long>(facts), grew);
  return true;
}

} // namespace

int main(int argc, char** argv)
{
  if (argc != 5)
    return 2;
  setenv("TESSARINE_ROOT", argv[1], 1);
  reloadConfiguration();
  std::string const mode = argv[2];
  std::string const subject = argv[3];
  if (mode == "store")
    return store(subject, std::strtoul(argv[4], nullptr, 10)) ? 0 : 1;

  if (mode == "local")
    openDatabase();
  else
    initDiscoveryResearch();
  AutoDereference<CountingParser> const parser(new CountingParser);
  getDiscoveryRepository().registerExplorerParser(EXPLORER, parser.get());
  bool const read = readSubject(subject);
  if (mode == "remote")
    deinitDiscoveryResearch();
  return read ? 0 : 1;
}
