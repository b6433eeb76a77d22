#include "discovery/DiscDBPending.h"

#include "ozf/base/Digest.h"

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

} // namespace

std::string documentDigest(std::string_view document)
{
  return digestOf(document.substr(0, document.find_last_not_of('\n') + 1));
}

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

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
