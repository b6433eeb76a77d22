#include "tools/DatabaseScan.h"

#include "discovery/DiscDBDiscovery.h"
#include "discovery/DiscDBFiles.h"
#include "discovery/DiscDBLock.h"
#include "discovery/DiscDataXml.h"
#include "ozf/base/AsciiCase.h"
#include "ozf/base/OzfPathname.h"
#include "ozf/base/SystemError.h"
#include "ozf/base/Wildcard.h"
#include "tools/XmlText.h"

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
#include <unistd.h>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

namespace
{

constexpr std::size_t MAX_STORED_PAYLOAD = std::size_t(1) << 30;

// The user that the service runs as, as far as its directory tells.
uid_t serviceUser(std::string const& directory)
{
  struct stat status
  {
  };
  return ::stat(directory.c_str(), &status) == 0 ? status.st_uid : ::geteuid();
}

// Why the service would not take the open file; empty when it would.
std::string judge(int fd, uid_t user, unsigned rights)
{
  struct stat status
  {
  };
  if (::fstat(fd, &status) != 0)
    return "cannot be examined: " + errorText(errno);
  if (std::string reason = refusalOf(status, user); !reason.empty())
    return reason;
  // Of a file of root's the user may have the rights of the group.
  unsigned const user3 = status.st_mode >> 6 & 7;
  unsigned const others3 = (status.st_mode >> 3 | status.st_mode) & 7;
  bool const allowed = user == 0 || ((status.st_uid == user ? user3 : others3) & rights) == rights;
  return allowed ? ""
                 : "may not be opened by the service, which runs as user " + std::to_string(user);
}

std::string reasonOfOpen(int error)
{
  return error == ELOOP ? "is a symbolic link" : "cannot be opened: " + errorText(error);
}

// A metadata file held open under a read lock.
class ScannedFile
{
public:
  ScannedFile(std::string const& path, uid_t user) : m_path(path), m_user(user), m_guard(path) {}

  // An empty reason means that the file is open, one that the service takes, and
  // locked.
  std::string open()
  {
    int const fd = ::open(m_path.c_str(), O_RDONLY | DATABASE_FILE_FLAGS);
    if (fd < 0)
      return reasonOfOpen(errno);
    m_lock = std::make_unique<ACE_File_Lock>(fd, false);
    if (std::string reason = judge(fd, m_user, 06); !reason.empty())
      return reason;
    LockWait wait;
    if (waitLock(*m_lock, RecordLock::READ, wait) != 0)
      return "cannot be locked: " + errorText(errno);
    return {};
  }

  int fd() const { return m_lock->get_handle(); }

private:
  std::string m_path;
  uid_t m_user;
  MetadataGuard m_guard; // also while the lock is closed
  std::unique_ptr<ACE_File_Lock> m_lock;
};

// Reads the open payload to its end; the reason when that fails, or when readers
// could make nothing of it.
std::string examinePayload(int fd)
{
  std::string text;
  if (int const error = readAll(fd, text, MAX_STORED_PAYLOAD); error != 0)
    return "cannot be read: " + errorText(error);
  if (text.empty())
    return "is empty";
  std::string reason;
  return isXml(text, reason) ? "" : "is no XML: " + reason;
}

// Reads and checks one discovery; the reason when it is not sound.
std::string examine(std::string const& directory, std::string const& file, bool payloads,
                    StoredDiscovery& found)
{
  uid_t const user = serviceUser(directory);
  ScannedFile held(directory + '/' + file, user);
  if (std::string reason = held.open(); !reason.empty())
    return reason;

  std::string text;
  if (int const error = readAll(held.fd(), text, LARGEST_METADATA); error != 0)
    return "cannot be read: " + errorText(error);
  if (text.empty())
    return "is empty";

  AutoDereference<DBDiscovery> const discovery(new DBDiscovery(
      OzfPathname(directory), new DBCollectionData(OzfPathname(directory + '/')), DQ_UNDEFINED));
  bool const loaded = discovery->load(text);
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
  if (auto const priority = storedPriority(text))
    found.priority = *priority;

  std::ostringstream expectedName;
  discovery->generateMetabaseFileName(expectedName);
  if (expectedName.str() != file)
    return "is not named after what it holds, which would be \"" + expectedName.str() + '"';

  found.metadataFile = file;
  found.payloadFile = file.substr(0, file.size() - 3) + "dat";
  UniqueFd const payload(
      ::open((directory + '/' + found.payloadFile).c_str(), O_RDONLY | DATABASE_FILE_FLAGS));
  if (!payload.valid())
    return errno == ENOENT ? "has no payload file" : "has a payload that " + reasonOfOpen(errno);
  if (std::string const reason = judge(payload.get(), user, 04); !reason.empty())
    return "has a payload that " + reason;
  struct stat status
  {
  };
  if (::fstat(payload.get(), &status) != 0)
    return "has a payload that cannot be examined: " + errorText(errno);
  found.payloadBytes = static_cast<std::uint64_t>(status.st_size);
  if (!payloads)
    return {};
  std::string const reason = examinePayload(payload.get());
  return reason.empty() ? "" : "has a payload that " + reason;
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

int scanDatabase(std::string const& directory, DatabaseContents& contents, bool payloads)
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
    for (;;)
    {
      errno = 0;
      dirent const* const entry = ::readdir(stream.get());
      if (entry == nullptr)
        break;
      names.insert(entry->d_name);
    }
    if (errno != 0)
      return errno;
  }

  std::string const start = directory + '/';
  for (std::string const& name : names)
  {
    if (name == "." || name == ".." || name == "Update.lock")
      continue;
    if (wildcardcmp("*.updating", name) == 0)
      contents.temporaryFiles.push_back(name);
    else if (wildcardcmp("*.xml", name) == 0)
    {
      StoredDiscovery found;
      std::string const reason = examine(directory, name, payloads, found);
      struct stat status
      {
      };
      // Gone while we looked: replaced or expired, which is no problem.
      if (!reason.empty() && ::lstat((start + name).c_str(), &status) != 0)
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
      if (::lstat((start + metadata).c_str(), &status) != 0 &&
          ::lstat((start + name).c_str(), &status) == 0)
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
  uid_t const user = serviceUser(directory);
  ScannedFile held(directory + '/' + discovery.metadataFile, user);
  reason = held.open();
  if (!reason.empty())
  {
    reason = discovery.metadataFile + ' ' + reason;
    return false;
  }
  UniqueFd const file(
      ::open((directory + '/' + discovery.payloadFile).c_str(), O_RDONLY | DATABASE_FILE_FLAGS));
  if (!file.valid())
    reason = reasonOfOpen(errno);
  else
    reason = judge(file.get(), user, 04);
  if (reason.empty())
    if (int const error = readAll(file.get(), payload, MAX_STORED_PAYLOAD); error != 0)
      reason = "cannot be read: " + errorText(error);
  if (!reason.empty())
  {
    reason = discovery.payloadFile + ' ' + reason;
    return false;
  }
  return true;
}

} // namespace tqdiscoctl
