// Whether a request may be answered.

#pragma once

#include "web/Answer.h"
#include "web/Settings.h"

#include <optional>
#include <string>
#include <string_view>

struct MHD_Connection;

namespace Web
{

struct Peer;

// Immutable. Any thread.
class Access
{
public:
  explicit Access(Settings const& settings)
      : m_token(settings.token),
        m_wantsCertificate(!settings.authorities.empty()),
        m_checksHost(settings.listen.path.empty() && settings.listen.isLocal() &&
                     settings.token.empty() && settings.authorities.empty())
  {
  }

  // The answer with which it is refused; nothing when it is not.
  std::optional<Answer> refusal(MHD_Connection* connection, Peer& peer) const;

  // Whether a header of the name Authorization has the token.
  bool hasToken(std::string_view header) const;

  // Whether a header of the name Host is an address, or localhost. Pages of others can have a name
  // of theirs lead to this host, and would then read what it serves.
  static bool isOwnHost(std::string_view header);

private:
  std::string const m_token;
  bool const m_wantsCertificate;
  bool const m_checksHost;
};

} // namespace Web
