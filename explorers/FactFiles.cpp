#include "explorers/FactFiles.h"

#include "discovery/DiscoveryLog.h"
#include "ozf/base/OzfPathname.h"
#include "ozf/base/SystemError.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <filesystem>
#include <limits>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

namespace
{

constexpr char SOURCE[] = "FactFiles";
constexpr std::size_t LIMIT = 4U << 20U;
constexpr char const* WHITE_SPACE = " \t\r\n";

std::optional<std::string> readWhole(std::string const& path, bool optional)
{
  std::string text;
  int const error = readFile(path, text, LIMIT);
  if (error == 0)
    return text;
  if (!optional || error != ENOENT)
    OZF_LOG(getOzfLogger(), 4, SOURCE, "readFacts",
            "Cannot read " << path << ": " << errorText(error));
  return std::nullopt;
}

} // namespace

std::string below(std::string const& root, std::string const& path)
{
  return OzfPathname::makeFilename(root, path).str();
}

std::optional<std::string> readFacts(std::string const& root, std::string const& path)
{
  return readWhole(below(root, path), false);
}

std::optional<std::string> readFact(std::string const& root, std::string const& path)
{
  auto const text = readWhole(below(root, path), true);
  if (!text || trimmed(*text).empty())
    return std::nullopt;
  return std::string(trimmed(*text));
}

std::optional<std::uint64_t> readNumber(std::string const& root, std::string const& path)
{
  auto const text = readFact(root, path);
  return text ? parseNumber(*text) : std::nullopt;
}

Reading readLines(std::string const& root, std::string const& path, std::uint64_t limit,
                  std::function<bool(std::string_view line)> const& each)
{
  constexpr std::size_t LONGEST = 65536;
  std::string const name = below(root, path);
  auto const fail = [&name](Reading reading)
  {
    int const error = errno;
    if (error != ENOENT)
      OZF_LOG(getOzfLogger(), 4, SOURCE, "readLines",
              "Cannot read " << name << ": " << errorText(error));
    return reading;
  };
  // A pipe in the place of the file would wait for a writer.
  UniqueFd const file(open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file.valid())
    return fail(errno == ENOENT ? Reading::Missing : Reading::Failed);

  std::vector<char> buffer(LONGEST);
  std::string line;
  for (std::uint64_t left = limit; left != 0;)
  {
    ssize_t const count =
        read(file.get(), buffer.data(), std::min<std::uint64_t>(buffer.size(), left));
    if (count < 0 && errno == EINTR)
      continue;
    if (count < 0)
      return fail(Reading::Cut);
    if (count == 0)
      return line.empty() || each(line) ? Reading::Whole : Reading::Ended;
    left -= static_cast<std::uint64_t>(count);
    std::string_view text(buffer.data(), static_cast<std::size_t>(count));
    while (!text.empty())
    {
      auto const part = text.substr(0, text.find('\n'));
      line += part.substr(0, LONGEST - line.size());
      text.remove_prefix(part.size());
      if (text.empty())
        break;
      text.remove_prefix(1);
      if (!each(line))
        return Reading::Ended;
      line.clear();
    }
  }
  return Reading::Cut;
}

std::vector<std::string> namesIn(std::string const& root, std::string const& folder)
{
  std::vector<std::string> names;
  std::error_code error;
  for (std::filesystem::directory_iterator entry(below(root, folder), error), end;
       !error && entry != end; entry.increment(error))
    names.push_back(entry->path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

std::optional<std::string> readLink(std::string const& path)
{
  std::array<char, PATH_MAX> target;
  ssize_t const length = readlink(path.c_str(), target.data(), target.size());
  if (length <= 0)
    return std::nullopt;
  return std::string(target.data(), static_cast<std::size_t>(length));
}

std::optional<std::uint64_t> parseNumber(std::string_view text)
{
  std::uint64_t number = 0;
  char const* const end = text.data() + text.size();
  auto const [stop, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || stop != end)
    return std::nullopt;
  return number;
}

std::string_view trimmed(std::string_view text)
{
  auto const first = text.find_first_not_of(WHITE_SPACE);
  if (first == std::string_view::npos)
    return {};
  return text.substr(first, text.find_last_not_of(WHITE_SPACE) - first + 1);
}

std::vector<std::string_view> wordsOf(std::string_view text)
{
  std::vector<std::string_view> words;
  for (auto at = text.find_first_not_of(WHITE_SPACE); at != std::string_view::npos;
       at = text.find_first_not_of(WHITE_SPACE))
  {
    text.remove_prefix(at);
    words.push_back(text.substr(0, text.find_first_of(WHITE_SPACE)));
    text.remove_prefix(words.back().size());
  }
  return words;
}

std::vector<std::pair<std::string, std::string>> parsePairs(std::string_view text, char separator)
{
  std::vector<std::pair<std::string, std::string>> pairs;
  while (!text.empty())
  {
    auto const line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(text.size(), line.size() + 1));
    auto const at = line.find(separator);
    if (at != std::string_view::npos)
      pairs.emplace_back(trimmed(line.substr(0, at)), trimmed(line.substr(at + 1)));
  }
  return pairs;
}

std::uint64_t saturatingProduct(std::uint64_t a, std::uint64_t b)
{
  std::uint64_t product = 0;
  if (__builtin_mul_overflow(a, b, &product))
    return std::numeric_limits<std::uint64_t>::max();
  return product;
}

std::string decodeHexEscapes(std::string_view text)
{
  std::string decoded;
  for (std::size_t at = 0; at < text.size(); ++at)
  {
    unsigned byte = 0;
    if (text.size() - at >= 4 && text[at] == '\\' && text[at + 1] == 'x')
    {
      char const* const digits = text.data() + at + 2;
      auto const [stop, error] = std::from_chars(digits, digits + 2, byte, 16);
      if (error == std::errc() && stop == digits + 2)
      {
        decoded += static_cast<char>(byte);
        at += 3;
        continue;
      }
    }
    decoded += text[at];
  }
  return decoded;
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
