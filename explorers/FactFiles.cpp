#include "explorers/FactFiles.h"

#include "discovery/DiscoveryLog.h"
#include "ozf/base/OzfPathname.h"
#include "ozf/base/SystemError.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <limits>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

namespace
{

constexpr char SOURCE[] = "FactFiles";
constexpr std::size_t LIMIT = 4U << 20U;
constexpr char const* WHITE_SPACE = " \t\r\n";

std::optional<std::string> read(std::string const& path, bool optional)
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
  return read(below(root, path), false);
}

std::optional<std::string> readFact(std::string const& root, std::string const& path)
{
  auto const text = read(below(root, path), true);
  if (!text || trimmed(*text).empty())
    return std::nullopt;
  return std::string(trimmed(*text));
}

std::optional<std::uint64_t> readNumber(std::string const& root, std::string const& path)
{
  auto const text = readFact(root, path);
  return text ? parseNumber(*text) : std::nullopt;
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
