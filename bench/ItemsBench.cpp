// A large payload of items read through the research API.

#include "bench/Bench.h"
#include "bench/Records.h"

#include "discovery/Researcher.h"

#include <xercesc/framework/LocalFileInputSource.hpp>
#include <xercesc/parsers/SAXParser.hpp>
#include <xercesc/sax/HandlerBase.hpp>
#include <xercesc/util/SecurityManager.hpp>
#include <xercesc/util/XMLUni.hpp>

#include <cstdio>
#include <filesystem>
#include <fstream>

namespace tqbench
{
namespace
{

constexpr int ROUNDS = 15;
constexpr std::size_t PAYLOAD_SIZE = std::size_t(10) << 20;

// What a share, an overlay and a local file system look like as the explorer of
// file systems writes them; a host with thousands of containers has mounts like
// these by the ten thousand.
std::string filesystem(std::size_t number)
{
  char digits[16];
  std::snprintf(digits, sizeof digits, "%08zu", number);
  std::string const id = digits;
  std::string const point = "/srv/storage/project-" + id;
  std::string item = "<DISCOVERED Name=\"" + point + "\"><ExplorerData Name=\"filesystem\">" +
                     "<MountPoint>" + point + "</MountPoint>";
  switch (number % 4)
  {
  case 0:
    item += "<Type>nfs4</Type><Kind>network</Kind><Source>filer.example.net:/export/project-" + id +
            "</Source><Root>/</Root><Device>0:45</Device>"
            "<Options>rw,relatime,vers=4.2,hard,proto=tcp</Options>";
    break;
  case 1:
    item += "<Type>overlay</Type><Kind>pseudo</Kind><Source>overlay</Source><Root>/</Root>"
            "<Device>0:" +
            id +
            "</Device><Options>rw,relatime,lowerdir=/var/lib/containers/l/AB:"
            "/var/lib/containers/l/CD,upperdir=/var/lib/containers/upper</Options>";
    break;
  default:
    item += "<Type>xfs</Type><Kind>local</Kind><Source>/dev/mapper/data-" + id +
            "</Source><Root>/</Root><Device>8:33</Device>"
            "<Options>rw,relatime,attr2,inode64,noquota</Options>"
            "<Uuid>0d15ea5e-aaaa-4bbb-8ccc-dddd" +
            id +
            "</Uuid><Label>R&amp;D data</Label>"
            "<Size>1999421571072</Size><Used>812646871040</Used>"
            "<Available>1186774700032</Available><Inodes>195312496</Inodes>"
            "<InodesUsed>204117</InodesUsed>";
  }
  return item + "</ExplorerData></DISCOVERED>";
}

// An item of which nothing but the name is told.
std::string plain(std::size_t number)
{
  return "<DISCOVERED Name=\"/srv/storage/project-" + std::to_string(number) + "\"></DISCOVERED>";
}

struct Payload
{
  std::string text;
  std::size_t items = 0;
};

Payload makePayload(std::string (*item)(std::size_t))
{
  Payload made{R"(<?xml version="1.0" encoding="UTF-8"?><DiscoveredItems>)"};
  for (; made.text.size() < PAYLOAD_SIZE; ++made.items)
    made.text += item(made.items);
  made.text += "</DiscoveredItems>\n";
  return made;
}

// The parser of the product's documents with its settings, for handlers that
// are empty.
class BareParser : public xercesc::SAXParser
{
public:
  BareParser()
  {
    useScanner(xercesc::XMLUni::fgDGXMLScanner);
    setValidationScheme(Val_Never);
    setDoNamespaces(false);
    setDoSchema(false);
    setLoadSchema(false);
    setLoadExternalDTD(false);
    setDisableDefaultEntityResolution(true);
    m_security.setEntityExpansionLimit(1);
    setSecurityManager(&m_security);
    setCalculateSrcOfs(false);
    setDTDHandler(&m_nothing);
    setDocumentHandler(&m_nothing);
    setErrorHandler(&m_nothing);
  }

private:
  xercesc::HandlerBase m_nothing;
  xercesc::SecurityManager m_security;
};

// Every item of every discovery in the database, and what the explorer said of
// it.
void readAll(std::size_t expected, bool withData)
{
  AutoDereference<AuthSubIterator> const discoveries(
      new AuthSubIterator(getDiscoveryDBDatabase()->getIterator(DQ_DISCOVERY_DATA)));
  std::size_t count = 0;
  while (AutoDereference<CollectionItemIterator> const items{
      discoveries->getNextCollectionItemIterator(nullptr)})
  {
    require(items->isParsed(), "the payload was refused");
    while (AutoDereference<CollectionItem> const item{items->getNextCollectionItem()})
    {
      AutoDereference<ExplorerData> const data(
          dynamic_cast<DiscoveredItem const&>(*item).getExplorerData());
      require(static_cast<bool>(data) == withData, "an item is not what was written");
      ++count;
    }
  }
  require(count == expected, "not every item was read");
}

std::vector<double> compare(Settings const& settings, Payload const& payload, bool withData)
{
  std::string const file = getDiscoveryDBDatabase()->getDirectory() + '/' + baseName(0) + ".dat";
  std::ofstream(file, std::ios::binary) << payload.text;
  require(std::filesystem::file_size(file) == payload.text.size(), "the payload was not written");

  BareParser bare;
  std::u16string const path(file.begin(), file.end());
  xercesc::LocalFileInputSource const source(path.c_str());
  return alternate(settings,
                   {{"product", [&] { return timed([&] { readAll(payload.items, withData); }); }},
                    {"floor", [&] { return timed([&] { bare.parse(source); }); }}},
                   ROUNDS);
}

} // namespace

std::vector<Row> benchItems(Settings const& settings)
{
  makeDatabase(settings.directory, 1);
  openDatabase(settings.directory);
  initializeXml();

  std::vector<Row> rows;
  auto const add = [&](Payload const& payload, char const* kind, bool withData)
  {
    std::vector<double> const times = compare(settings, payload, withData);
    rows.push_back({"read 10 MiB of " + std::to_string(payload.items) + kind, "ms", times[0] * 1e3,
                    "bare SAX parser, the same file", times[1] * 1e3, 1.5});
  };
  add(makePayload(filesystem), " items of file systems", true);
  add(makePayload(plain), " items with a name only", false);
  return rows;
}

} // namespace tqbench
