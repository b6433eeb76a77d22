#include "explorers/SoftwareCollector.h"

#include "discovery/DiscoveryLog.h"
#include "explorers/CommandOutput.h"
#include "explorers/FactFiles.h"

#include <sys/stat.h>

#include <algorithm>
#include <string_view>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

namespace
{

constexpr char SOURCE[] = "SoftwareCollector";
constexpr char OPERATION[] = "collectSoftware";

constexpr char DPKG_DATABASE[] = "var/lib/dpkg/status";
constexpr char const* RPM_DATABASES[] = {
    "usr/lib/sysimage/rpm/rpmdb.sqlite", "usr/lib/sysimage/rpm/Packages.db",
    "var/lib/rpm/rpmdb.sqlite", "var/lib/rpm/Packages.db", "var/lib/rpm/Packages"};

// A host with everything that a distributor has would come near to the first; beyond
// that a database is damaged.
constexpr std::size_t MOST_PACKAGES = 50'000;
constexpr std::size_t MOST_TEXT = 16U << 20U;       // bytes of all packages
constexpr std::size_t LONGEST_VALUE = 256;          // bytes
constexpr std::uint64_t DPKG_LIMIT = 256ULL << 20U; // bytes read
constexpr std::size_t RPM_LIMIT = 32U << 20U;       // bytes
constexpr std::chrono::seconds RPM_PATIENCE(45);

class Collection
{
public:
  explicit Collection(Software& software) : m_software(software) {}

  // False when there is no room for more.
  bool add(Package package)
  {
    for (std::string const* const text :
         {&package.name, &package.version, &package.architecture, &package.state})
    {
      m_bytes += text->size();
      if (text->size() > LONGEST_VALUE)
      {
        leaveOut("a package with a text of more than 256 bytes");
        return true;
      }
    }
    if (m_software.packages.size() >= MOST_PACKAGES || m_bytes > MOST_TEXT)
    {
      leaveOut("all packages beyond 50,000, or 16 MiB of text");
      return false;
    }
    m_software.packages.push_back(std::move(package));
    return true;
  }

  // One line is enough for a database.
  void leaveOut(char const* what)
  {
    if (m_software.complete)
      OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
              "The packages of this host are not complete: " << what << " is left out");
    m_software.complete = false;
  }

private:
  Software& m_software;
  std::size_t m_bytes = 0;
};

// One paragraph of dpkg's database.
struct Paragraph
{
  Package package;
  std::string status;
  bool begun = false;

  void take(std::string_view line)
  {
    begun = true;
    if (line.front() == ' ' || line.front() == '\t')
      return; // goes on with the field above
    auto const colon = line.find(':');
    if (colon == std::string_view::npos)
      return;
    auto const value = trimmed(line.substr(colon + 1));
    auto const field = line.substr(0, colon);
    if (field == "Package")
      package.name = value;
    else if (field == "Version")
      package.version = value;
    else if (field == "Architecture")
      package.architecture = value;
    else if (field == "Status")
      status = value;
    else if (field == "Installed-Size")
      if (auto const kibibytes = parseNumber(value))
        package.size = saturatingProduct(*kibibytes, 1024);
  }

  // Whether its files are on the host. Of one that was removed its configuration may
  // be left, and what is known of one that never was there stays, too.
  bool isThere()
  {
    auto const words = wordsOf(status);
    if (package.name.empty() || words.size() != 3 || words[2] == "not-installed" ||
        words[2] == "config-files")
      return false;
    if (words[2] != "installed")
      package.state = words[2];
    package.manager = "dpkg";
    return true;
  }
};

void collectDpkg(std::string const& root, Software& software)
{
  Collection collection(software);
  Paragraph paragraph;
  auto const reading = readLines(root, DPKG_DATABASE, DPKG_LIMIT,
                                 [&](std::string_view line)
                                 {
                                   if (!line.empty())
                                   {
                                     paragraph.take(line);
                                     return true;
                                   }
                                   Paragraph ended;
                                   std::swap(ended, paragraph);
                                   return !ended.isThere() || collection.add(ended.package);
                                 });
  if (reading == Reading::Missing)
    return;
  software.managers = "dpkg";
  if (reading == Reading::Failed)
    collection.leaveOut("what dpkg installed, which cannot be read,");
  else if (reading == Reading::Cut)
    collection.leaveOut("what is beyond the first 256 MiB of dpkg's database");
  // Each paragraph ends with an empty line; without it something was cut off.
  else if (reading == Reading::Whole && paragraph.begun)
    collection.leaveOut("the last package of dpkg's database, which is cut short,");
}

// Those for "(none)".
std::string unlessNone(std::string_view text) { return text == "(none)" ? "" : std::string(text); }

void collectRpm(QueryRpm const& rpm, Software& software)
{
  Collection collection(software);
  software.managers += software.managers.empty() ? "rpm" : " rpm";
  auto const text = rpm();
  if (!text)
  {
    collection.leaveOut("what rpm installed, which it does not tell,");
    return;
  }
  for (std::string_view rest = *text; !rest.empty();)
  {
    std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(std::min(rest.size(), line.size() + 1));
    std::vector<std::string_view> fields;
    for (std::size_t at = 0; at <= line.size();)
    {
      auto const end = std::min(line.find('\t', at), line.size());
      fields.push_back(line.substr(at, end - at));
      at = end + 1;
    }
    constexpr std::size_t FIELDS = 4;
    if (fields.size() != FIELDS || fields[0].empty())
    {
      collection.leaveOut("a package of which rpm tells something else than was asked");
      continue;
    }
    // The keys by which packages were signed are listed as if they were some.
    if (fields[0] == "gpg-pubkey")
      continue;
    if (!collection.add({std::string(fields[0]), "rpm", std::string(fields[1]),
                         unlessNone(fields[2]), parseNumber(fields[3]), ""}))
      return;
  }
}

bool hasRpmDatabase(std::string const& root)
{
  return std::any_of(std::begin(RPM_DATABASES), std::end(RPM_DATABASES),
                     [&](char const* path)
                     {
                       struct stat status = {};
                       return stat(below(root, path).c_str(), &status) == 0;
                     });
}

} // namespace

std::optional<std::string> queryRpm()
{
  return outputOf({"/usr/bin/rpm", "-qa", "--queryformat", RPM_FORMAT}, RPM_PATIENCE, RPM_LIMIT);
}

Software collectSoftware(std::string const& root, QueryRpm const& rpm)
{
  Software software;
  collectDpkg(root, software);
  if (hasRpmDatabase(root))
    collectRpm(rpm, software);
  return software;
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
