// URIs and percent-encoding. Names of subjects and authorities pass through
// here on their way to the screen, the wire and the file system.

#pragma once

#include "ozf/base/Export.h"
#include "ozf/base/OzfString.h"

#include <string>
#include <string_view>

namespace Quillon::Tessarine::Ozf
{

// What an encoding is for.
//
// Shown: every printable character stays as it is, spaces, '%', quotes and
// other alphabets included; control characters (C0, DEL, C1), noncharacters
// (U+FFFE and such) and bytes that are not UTF-8 become %XX. Encoding an
// encoded name changes nothing.
//
// FileKey: the name as shown, then every byte outside [A-Za-z0-9._~-] becomes
// %XX in upper case, '%' included, except that '*' stays; a leading '.' is
// encoded. A key of more than 100 bytes keeps its first 60 bytes, followed by
// '~' and the first 128 bits of the SHA-256 of the whole key in lower-case hex;
// so does a key that has this form as it is. So a key is one path component
// without spaces, of at most 100 bytes, never "." or "..", and no other name's.
//
// FilePattern: the pattern of the keys of the names that a name pattern
// matches. It is formed like a key, but a pattern cannot match a hash: one with
// '*' that would be hashed becomes what lies before the first '*', at most
// 60 bytes of it, and one '*'. That pattern is wider than the one asked for.
enum UriComponent : int
{
  URI_SHOWN = 10,
  URI_FILE_KEY = 24,
  URI_FILE_PATTERN = 25
};

class OZF_EXPORT UriScheme
{
public:
  UriScheme() = default;
  explicit UriScheme(std::string name) : m_name(std::move(name)) {}
  std::string const& getSchemeName() const noexcept { return m_name; }

private:
  std::string m_name;
};

// The authority of a URI: [userinfo@]host[:port].
class OZF_EXPORT UriAuthority
{
public:
  UriAuthority() = default;

  // Takes text apart. userInfo, host and port stand in for the parts of text
  // when given (not null, not negative). Text that cannot be taken apart is
  // kept whole as the host. Returns whether the authority is not empty.
  bool setAuthority(std::string const& text, char const* userInfo = nullptr,
                    char const* host = nullptr, int port = -1);

  std::string const& getUserInfo() const noexcept { return m_userInfo; }
  std::string const& getHost() const noexcept { return m_host; }
  std::string const& getPort() const noexcept { return m_port; } // empty when none

  // The whole authority, put together again and encoded.
  std::string getUriEncoding(int component) const;

private:
  std::string m_userInfo;
  std::string m_host;
  std::string m_port;
  bool m_hasUserInfo = false;
};

// scheme:[//authority]rest. Text without a scheme has an empty one.
class OZF_EXPORT Uri
{
public:
  explicit Uri(std::string const& text);

  UriScheme const& getScheme() const noexcept { return m_scheme; }
  UriAuthority const& getAuthority() const noexcept { return m_authority; }
  std::string const& getPath() const noexcept { return m_path; }

  // Encodes text for the component; an unknown component encodes as URI_SHOWN.
  // Throws std::runtime_error when a hash is needed and the crypto library
  // has no SHA-256 to offer.
  static std::string percentEncode(std::string const& text, int component);

  // Whether a key has the form of one that was cut and ends in a hash, and so
  // says no more of its name than the beginning.
  static bool isCutKey(std::string_view key);

private:
  UriScheme m_scheme;
  UriAuthority m_authority;
  std::string m_path;
};

} // namespace Quillon::Tessarine::Ozf
