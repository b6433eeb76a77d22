#include "discovery/DiscDBRecovery.h"

#include "discovery/DiscDBDiscovery.h"
#include "discovery/DiscDBFiles.h"
#include "discovery/DiscDBPending.h"
#include "discovery/DiscoveryLog.h"
#include "ozf/base/SystemError.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{
namespace
{

constexpr char SOURCE[] = "DiscDB";
constexpr char SETUP[] = "DiscoveryDBCreator::setupDB";

bool isDocument(std::string const& text)
{
  AutoDereference<DBDiscovery> const record(
      new DBDiscovery(OzfPathname("."), nullptr, DQ_DISCOVERY_DATA));
  return text.find('\0') == std::string::npos && record->load(text.c_str());
}

// Makes sure that the document in the file is the one of the payload, and on the
// disk. writable says whether it may be written.
bool settleDocument(int fd, PendingPayload const& pending, bool writable)
{
  std::string text;
  struct stat status
  {
  };
  if (::fstat(fd, &status) != 0 || readBlocks(fd, text) != 0)
    return false;
  if (text.size() == static_cast<std::size_t>(status.st_size) &&
      documentDigest(text) == pending.digest)
    return ::fdatasync(fd) == 0;
  return writable && !pending.document.empty() && !isDocument(text) &&
         DBDiscovery::writeMetadata(fd, pending.document) && ::fdatasync(fd) == 0;
}

// Renames under the metadata file's locks.
bool takePlace(std::string const& directory, OzfPathname const& temporary,
               PendingPayload const& pending)
{
  std::string const stem = pending.target.substr(0, pending.target.size() - 3);
  OzfPathname const path = OzfPathname::makeFilename(directory, stem + "xml");
  OzfPathname const target = OzfPathname::makeFilename(directory, pending.target);
  MetadataGuard const guard(path.str());
  UniqueFd fd(::open(path.c_str(), O_RDWR | DATABASE_FILE_FLAGS));
  if (!fd.valid())
    logIfLink(path.str(), errno, SETUP);
  struct stat status
  {
  };
  // It is going to be written to.
  if (!fd.valid() || ::fstat(fd.get(), &status) != 0 || !isDatabaseFile(status, path.str(), SETUP))
    return false;
  HeldFile const file(new ACE_File_Lock(fd.release(), false));
  // A reader keeps us from writing, but is not harmed by the right payload.
  bool const writable = file->tryacquire_write(0, 0, 1) == 0;
  if (!writable && file->tryacquire_read(0, 0, 1) != 0)
    return false;
  if (!isFileAt(file->get_handle(), path.c_str()) ||
      !settleDocument(file->get_handle(), pending, writable))
    return false;
  if (::rename(temporary.c_str(), target.c_str()) != 0)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, SETUP,
            "Unable to rename " << temporary.str() << " to " << target.str() << ": "
                                << errorText(errno));
    return false;
  }
  OZF_LOG(getOzfLogger(), 1, SOURCE, SETUP,
          "Finished what was left half done, renamed " << temporary.str() << " to "
                                                       << target.str());
  UniqueFd const folder(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (folder.valid() && ::fsync(folder.get()) != 0 && errno != EINVAL && errno != ENOTSUP)
    OZF_LOG(getOzfLogger(), 1, SOURCE, SETUP,
            "Unable to flush " << directory << ": " << errorText(errno));
  unmarkPending(target.str());
  return true;
}

} // namespace

bool finishPending(std::string const& directory, std::string const& temporary)
{
  UniqueFd const fd(::open(temporary.c_str(), O_RDONLY | DATABASE_FILE_FLAGS));
  struct stat status
  {
  };
  if (!fd.valid() || ::fstat(fd.get(), &status) != 0 || !refusalOf(status, ::geteuid()).empty())
    return false;
  auto const pending = readPending(fd.get());
  // Who died before the flush may have left it to the system.
  return pending && pending->size == status.st_size && ::fdatasync(fd.get()) == 0 &&
         takePlace(directory, OzfPathname(temporary), *pending);
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
