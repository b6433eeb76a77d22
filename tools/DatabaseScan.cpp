#include "tools/DatabaseScan.h"

#include "discovery/DiscDBDiscovery.h"
#include "discovery/DiscDBLock.h"
#include "discovery/XMLHelper.h"
#include "ozf/base/AsciiCase.h"
#include "ozf/base/OzfPathname.h"
#include "ozf/base/SystemError.h"
#include "ozf/base/Wildcard.h"

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <sys/stat.h>
#include <tuple>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

namespace
{

constexpr std::size_t MAX_STORED_PAYLOAD = std::size_t(1) << 30;

// A metadata file held open under a read lock.
class HeldFile
{
public:
  explicit HeldFile(std::string const& path) : m_path(path), m_guard(path) {}

  // An empty reason means that the file is open, regular and locked.
  std::string open()
  {
    int const fd = ::open(m_path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0)
      return "cannot be opened: " + errorText(errno);
    m_lock = std::make_unique<ACE_File_Lock>(fd, false);
    struct stat status
    {
    };
    if (::fstat(fd, &status) != 0)
      return "cannot be examined: " + errorText(errno);
    if (!S_ISREG(status.st_mode))
      return "is not a regular file";
    LockWait wait;
    if (waitLock(*m_lock, RecordLock::READ, wait) != 0)
      return "cannot be locked: " + errorText(errno);
    return {};
  }

  int fd() const { return m_lock->get_handle(); }

private:
  std::string m_path;
  MetadataGuard m_guard; // also while the lock is closed
  std::unique_ptr<ACE_File_Lock> m_lock;
};

// Reads and checks one discovery; the reason when it is not sound.
std::string examine(std::string const& directory, std::string const& file, StoredDiscovery& found)
{
  HeldFile held(directory + '/' + file);
  if (std::string reason = held.open(); !reason.empty())
    return reason;

  std::string text;
  if (int const error = readAll(held.fd(), text, LARGEST_METADATA); error != 0)
    return "cannot be read: " + errorText(error);
  if (text.empty())
    return "is empty";

  AutoDereference<DBDiscovery> const discovery(new DBDiscovery(
      OzfPathname(directory), new DBCollectionData(OzfPathname(directory + '/')), DQ_UNDEFINED));
  bool const loaded = discovery->load(text.c_str());
  if (!discovery->lastError().empty())
    return "cannot be parsed: " + discovery->lastError();
  if (discovery->getSubject() == nullptr)
    return "names no subject";
  if (discovery->getAuthority() == nullptr)
    return "names no authority";
  if (!loaded)
    return "is not a metadata document";

  found.subject = discovery->getSubject()->getName().str();
  found.authority = discovery->getAuthority()->getName().str();
  found.type = discovery->getAuthority()->getType();
  if (CollectionAttributes const* const attributes = discovery->getAttributes())
  {
    found.collectionType = attributes->getType();
    found.storage = attributes->getStorage();
    found.discoveryTime = attributes->getDiscoveryTime();
    found.expiresTime = attributes->getExpiresTime();
  }
  // A record that is read has lost its priority; the document has it.
  unsigned priority = 0;
  if (XMLHelper::parse(text, priority) == 0)
    found.priority = priority;

  std::ostringstream expectedName;
  discovery->generateMetabaseFileName(expectedName);
  if (expectedName.str() != file)
    return "is not named after what it holds, which would be \"" + expectedName.str() + '"';

  found.metadataFile = file;
  found.payloadFile = file.substr(0, file.size() - 3) + "dat";
  struct stat status
  {
  };
  std::string const payloadPath = directory + '/' + found.payloadFile;
  if (::stat(payloadPath.c_str(), &status) != 0)
    return errno == ENOENT ? "has no payload file"
                           : "has a payload file that cannot be examined: " + errorText(errno);
  if (!S_ISREG(status.st_mode))
    return "has a payload that is not a regular file";
  UniqueFd const payload(::open(payloadPath.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!payload.valid())
    return "has a payload file that cannot be opened: " + errorText(errno);
  found.payloadBytes = static_cast<std::uint64_t>(status.st_size);
  return {};
}

bool lessByName(StoredDiscovery const& a, StoredDiscovery const& b)
{
  if (int const order = compareIgnoringCase(a.subject, b.subject); order != 0)
    return order < 0;
  if (int const order = compareIgnoringCase(a.authority, b.authority); order != 0)
    return order < 0;
  return std::tie(a.type, a.metadataFile) < std::tie(b.type, b.metadataFile);
}

} // namespace

int scanDatabase(std::string const& directory, DatabaseContents& contents)
{
  std::set<std::string> names;
  {
    struct Closer
    {
      void operator()(DIR* stream) const { ::closedir(stream); }
    };
    std::unique_ptr<DIR, Closer> const stream(::opendir(directory.c_str()));
    if (!stream)
      return errno;
    while (dirent const* const entry = ::readdir(stream.get()))
      names.insert(entry->d_name);
  }

  for (std::string const& name : names)
  {
    if (name == "." || name == ".." || name == "Update.lock")
      continue;
    if (wildcardcmp("*.updating", name) == 0)
      contents.temporaryFiles.push_back(name);
    else if (wildcardcmp("*.xml", name) == 0)
    {
      StoredDiscovery found;
      std::string const reason = examine(directory, name, found);
      struct stat status
      {
      };
      // Gone while we looked: replaced or expired, which is no problem.
      if (!reason.empty() && ::lstat((directory + '/' + name).c_str(), &status) != 0)
        continue;
      if (reason.empty())
        contents.discoveries.push_back(std::move(found));
      else
        contents.problems.push_back({name, reason});
    }
    else if (wildcardcmp("*.dat", name) == 0)
    {
      std::string const metadata = name.substr(0, name.size() - 3) + "xml";
      struct stat status
      {
      };
      if (::lstat((directory + '/' + metadata).c_str(), &status) != 0 &&
          ::lstat((directory + '/' + name).c_str(), &status) == 0)
        contents.problems.push_back({name, "is a payload without a metadata file"});
    }
    else
      contents.problems.push_back({name, "is not a file of the database"});
  }
  std::sort(contents.discoveries.begin(), contents.discoveries.end(), lessByName);
  return 0;
}

bool readPayload(std::string const& directory, StoredDiscovery const& discovery,
                 std::string& payload, std::string& reason)
{
  HeldFile held(directory + '/' + discovery.metadataFile);
  reason = held.open();
  if (!reason.empty())
  {
    reason = discovery.metadataFile + ' ' + reason;
    return false;
  }
  if (int const error =
          readFile(directory + '/' + discovery.payloadFile, payload, MAX_STORED_PAYLOAD);
      error != 0)
  {
    reason = discovery.payloadFile + " cannot be read: " + errorText(error);
    return false;
  }
  return true;
}

} // namespace tqdiscoctl
