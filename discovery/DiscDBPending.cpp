#include "discovery/DiscDBPending.h"

#include "discovery/DiscDBDiscovery.h"
#include "discovery/DiscDBFiles.h"
#include "discovery/DiscoveryLog.h"
#include "ozf/base/Digest.h"
#include "ozf/base/SystemError.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <string_view>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{
namespace
{

constexpr char SOURCE[] = "DiscDB";
constexpr char SETUP[] = "DiscoveryDBCreator::setupDB";

constexpr char ATTRIBUTE[] = "user.tessarine.pending";

// Some file systems keep all attributes of a file in one block of 4 KiB.
constexpr std::size_t LONGEST_KEPT = 3000;
constexpr std::size_t LARGEST_ATTRIBUTE = 4096;

// "2 hostA hostB.dat": whoever may have written the attribute, it names nothing
// outside of the directory.
bool isPayloadName(std::string_view name)
{
  constexpr std::string_view KEY = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                                   "0123456789._~%*-";
  if (name.size() > NAME_MAX || !name.ends_with(".dat"))
    return false;
  name.remove_suffix(4);
  auto const first = name.find(' ');
  auto const second = name.find(' ', first + 1);
  if (first != 1 || name[0] < '0' || name[0] > '4' || second == std::string_view::npos)
    return false;
  std::string_view const authority = name.substr(2, second - 2);
  std::string_view const subject = name.substr(second + 1);
  auto const isKey = [&](std::string_view key)
  { return !key.empty() && key.find_first_not_of(KEY) == std::string_view::npos; };
  return isKey(authority) && isKey(subject);
}

// The next line, without its end, taken off the text; none when it has no end.
std::optional<std::string_view> takeLine(std::string_view& text)
{
  auto const end = text.find('\n');
  if (end == std::string_view::npos)
    return std::nullopt;
  std::string_view const line = text.substr(0, end);
  text.remove_prefix(end + 1);
  return line;
}

// Line feeds behind a document do not count: whoever dies before he truncates it
// leaves some.
std::string documentDigest(std::string_view document)
{
  return digestOf(document.substr(0, document.find_last_not_of('\n') + 1));
}

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
  if (::fstat(fd, &status) != 0 || !refusalOf(status, ::geteuid()).empty() ||
      readBlocks(fd, text) != 0)
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
    return false;
  HeldFile const file(new ACE_File_Lock(fd.release(), false));
  // Who reads keeps us from writing, but is not harmed by the right payload.
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

bool markPending(int fd, std::string const& target, std::string const& document)
{
  struct stat status
  {
  };
  if (::fstat(fd, &status) != 0)
    return false;
  std::string value =
      target + '\n' + std::to_string(status.st_size) + '\n' + documentDigest(document) + '\n';
  std::size_t const withoutDocument = value.size();
  if (document.size() <= LONGEST_KEPT)
    value += document;
  if (::fsetxattr(fd, ATTRIBUTE, value.data(), value.size(), 0) == 0)
    return true;
  // There may be room for the rest.
  return (errno == ENOSPC || errno == E2BIG) && value.size() > withoutDocument &&
         ::fsetxattr(fd, ATTRIBUTE, value.data(), withoutDocument, 0) == 0;
}

std::optional<PendingPayload> readPending(int fd)
{
  std::array<char, LARGEST_ATTRIBUTE> buffer;
  ssize_t const size = ::fgetxattr(fd, ATTRIBUTE, buffer.data(), buffer.size());
  if (size <= 0)
    return std::nullopt;
  std::string_view text(buffer.data(), static_cast<std::size_t>(size));
  auto const target = takeLine(text);
  auto const length = takeLine(text);
  auto const digest = takeLine(text);
  if (!target || !length || !digest || !isPayloadName(*target) ||
      digest->size() != 2 * DIGEST_BYTES)
    return std::nullopt;
  PendingPayload pending{std::string(*target), 0, std::string(*digest), std::string(text)};
  auto const [end, error] =
      std::from_chars(length->data(), length->data() + length->size(), pending.size);
  if (error != std::errc() || end != length->data() + length->size() ||
      (!pending.document.empty() && documentDigest(pending.document) != pending.digest))
    return std::nullopt;
  return pending;
}

void unmarkPending(std::string const& path) { ::removexattr(path.c_str(), ATTRIBUTE); }

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
