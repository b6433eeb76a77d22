#include "ozf/base/Uri.h"

#include "ozf/base/Digest.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <string_view>

namespace Quillon::Tessarine::Ozf
{
namespace
{

constexpr std::size_t LONGEST_KEY = 100;
constexpr std::size_t KEPT_OF_LONG_KEY = 60;

// Independent of the process's locale, unlike <cctype>.
bool isAlpha(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// What a file key keeps of a name, apart from a leading '.'.
constexpr auto KEPT_IN_KEY = []
{
  std::array<bool, 256> kept{};
  for (char const c : std::string_view("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                                       "0123456789._~-*"))
    kept[static_cast<unsigned char>(c)] = true;
  return kept;
}();

bool isKeptInKey(char c) { return KEPT_IN_KEY[static_cast<unsigned char>(c)]; }

void appendEscape(std::string& text, char c)
{
  constexpr std::string_view HEX = "0123456789ABCDEF";
  auto const byte = static_cast<unsigned char>(c);
  text += '%';
  text += HEX[byte >> 4];
  text += HEX[byte & 0xF];
}

bool isPrintableAscii(char c) { return c >= 0x20 && c < 0x7F; }

// Controls, and what Unicode keeps for the inside of programs: XML carries
// neither all of the one nor all of the other.
bool isUnprintable(char32_t c)
{
  return c < 0x20 || (c >= 0x7F && c < 0xA0) || (c >= 0xFDD0 && c <= 0xFDEF) ||
         (c & 0xFFFE) == 0xFFFE;
}

std::string encodeShown(std::string_view text)
{
  std::string result;
  result.reserve(text.size());
  for (;;)
  {
    // Most names end here: records are read by the hundred thousand.
    auto const plain = std::find_if_not(text.begin(), text.end(), isPrintableAscii);
    result.append(text.begin(), plain);
    text.remove_prefix(static_cast<std::size_t>(plain - text.begin()));
    if (text.empty())
      return result;

    char32_t point = 0;
    std::size_t const length = decodeUtf8(text, point);
    std::string_view const part = text.substr(0, std::max<std::size_t>(length, 1));
    if (length != 0 && !isUnprintable(point))
      result += part;
    else
      std::for_each(part.begin(), part.end(), [&](char c) { appendEscape(result, c); });
    text.remove_prefix(part.size());
  }
}

std::string escapeForKey(std::string_view text)
{
  // Most names are keys as they are.
  if (!text.starts_with('.') && std::all_of(text.begin(), text.end(), isKeptInKey))
    return std::string(text);

  std::string key;
  key.reserve(text.size());
  for (char const c : encodeShown(text))
  {
    bool const leadingDot = c == '.' && key.empty();
    if (isKeptInKey(c) && !leadingDot)
      key += c;
    else
      appendEscape(key, c);
  }
  return key;
}

std::string encodeFileKey(std::string_view text, bool isPattern)
{
  std::string key = escapeForKey(text);
  if (key.size() <= LONGEST_KEY && !Uri::isCutKey(key))
    return key;
  if (auto const star = key.find('*'); isPattern && star != std::string::npos)
    return key.substr(0, std::min(star, KEPT_OF_LONG_KEY)) + '*';
  return key.substr(0, KEPT_OF_LONG_KEY) + '~' + digestOf(key);
}

bool isPort(std::string_view text)
{
  unsigned value = 0;
  auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return !text.empty() && error == std::errc{} && end == text.data() + text.size() &&
         value <= 65535;
}

// Splits "host", "host:port", "[address]" or "[address]:port". False when text
// is none of them, or its host or port is empty, since it could not be put
// together again as it was.
bool splitHost(std::string_view text, std::string_view& host, std::string_view& port)
{
  std::size_t end = 0;
  if (text.starts_with('['))
  {
    end = text.find(']');
    if (end == std::string_view::npos || end == 1)
      return false;
    ++end;
  }
  else
    end = std::min(text.find(':'), text.size());
  host = text.substr(0, end);
  std::string_view const rest = text.substr(end);
  port = rest.empty() ? rest : rest.substr(1);
  return !host.empty() && (rest.empty() || (rest.front() == ':' && isPort(port)));
}

} // namespace

bool UriAuthority::setAuthority(std::string const& text, char const* userInfo, char const* host,
                                int port)
{
  std::string_view const whole(text);
  auto const at = whole.find('@');
  m_hasUserInfo = at != std::string_view::npos;
  std::string_view const hostAndPort = m_hasUserInfo ? whole.substr(at + 1) : whole;
  std::string_view hostPart;
  std::string_view portPart;
  if (splitHost(hostAndPort, hostPart, portPart) && hostPart.find('@') == std::string_view::npos)
  {
    m_userInfo = m_hasUserInfo ? whole.substr(0, at) : std::string_view();
    m_host = hostPart;
    m_port = portPart;
  }
  else
  {
    m_hasUserInfo = false;
    m_userInfo.clear();
    m_host = text;
    m_port.clear();
  }

  if (userInfo != nullptr)
  {
    m_hasUserInfo = true;
    m_userInfo = userInfo;
  }
  if (host != nullptr)
    m_host = host;
  if (port >= 0)
    m_port = std::to_string(port);
  return !m_userInfo.empty() || !m_host.empty() || !m_port.empty();
}

std::string UriAuthority::getUriEncoding(int component) const
{
  if (!m_hasUserInfo && m_port.empty())
    return Uri::percentEncode(m_host, component);
  std::string whole;
  if (m_hasUserInfo)
    whole = m_userInfo + '@';
  whole += m_host;
  if (!m_port.empty())
    whole += ':' + m_port;
  return Uri::percentEncode(whole, component);
}

Uri::Uri(std::string const& text)
{
  std::string_view rest(text);
  auto const colon = rest.find(':');
  if (colon != std::string_view::npos && colon != 0 && isAlpha(rest.front()))
  {
    std::string_view const name = rest.substr(0, colon);
    if (std::all_of(name.begin(), name.end(),
                    [](char c)
                    { return isAlpha(c) || isDigit(c) || c == '+' || c == '-' || c == '.'; }))
    {
      m_scheme = UriScheme(std::string(name));
      rest.remove_prefix(colon + 1);
    }
  }
  if (rest.starts_with("//"))
  {
    rest.remove_prefix(2);
    std::size_t const end = std::min(rest.find_first_of("/?#"), rest.size());
    m_authority.setAuthority(std::string(rest.substr(0, end)));
    rest.remove_prefix(end);
  }
  m_path = rest;
}

bool Uri::isCutKey(std::string_view key)
{
  constexpr std::string_view HEX = "0123456789abcdef";
  return key.size() == KEPT_OF_LONG_KEY + 1 + 2 * DIGEST_BYTES && key[KEPT_OF_LONG_KEY] == '~' &&
         key.find_first_not_of(HEX, KEPT_OF_LONG_KEY + 1) == std::string_view::npos;
}

std::string Uri::percentEncode(std::string const& text, int component)
{
  switch (component)
  {
  case URI_FILE_KEY:
    return encodeFileKey(text, false);
  case URI_FILE_PATTERN:
    return encodeFileKey(text, true);
  default:
    return encodeShown(text);
  }
}

} // namespace Quillon::Tessarine::Ozf
