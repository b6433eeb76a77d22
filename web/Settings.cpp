#include "web/Settings.h"

#include "ozf/base/SystemError.h"
#include "ozf/base/Trim.h"
#include "ozf/config/ConfigurationKeys.h"
#include "ozf/config/Masters.h"
#include "ozf/config/TrustedFile.h"
#include "ozf/tls/CurrentTls.h"

#include <algorithm>
#include <fcntl.h>
#include <gnutls/gnutls.h>
#include <sys/stat.h>

namespace Web
{

using namespace Quillon::Tessarine::Ozf;

namespace
{

constexpr std::size_t MOST_MASTERS = 8;
constexpr std::size_t LARGEST_FILE = std::size_t(1) << 20;
constexpr std::size_t SHORTEST_TOKEN = 16;

class Reading
{
public:
  Reading(Configuration const& configuration, std::vector<ConfigurationProblem>& problems)
      : m_configuration(configuration), m_problems(problems)
  {
  }

  void complain(std::string const& text)
  {
    m_problems.push_back({m_configuration.path(), 0, text});
  }

  // The text of the file that the key names, which others may not change; secret: one that
  // not everybody may read.
  std::string file(ConfigurationKey const& key, bool secret)
  {
    std::string const path = m_configuration.word(key);
    if (path.empty())
      return {};
    std::string const what = std::string(key.name) + ": " + path;
    UniqueFd const fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status = {};
    std::string text;
    if (!fd.valid() || fstat(fd.get(), &status) != 0)
      complain(what + " cannot be read: " + errorText(errno));
    else if (!S_ISREG(status.st_mode))
      complain(what + " is no regular file");
    else if (secret && (status.st_mode & S_IROTH) != 0)
      complain(what + " can be read by everybody");
    else if (std::string doubt; othersMayChange(path, doubt))
      complain(what + " may be changed by others: " + doubt);
    else if (int const error = readAll(fd.get(), text, LARGEST_FILE); error != 0)
      complain(what + " cannot be read: " + errorText(error));
    return text;
  }

  std::string token()
  {
    ConfigurationKey const& key = configKey("WEB_TOKEN_FILE");
    std::size_t const before = m_problems.size();
    std::string const text = file(key, true);
    std::string const line(trimmed(std::string_view(text).substr(0, text.find('\n'))));
    bool const isPlain =
        std::all_of(line.begin(), line.end(), [](char c) { return c > ' ' && c < 127; });
    bool const isGiven = !m_configuration.word(key).empty();
    if (isGiven && m_problems.size() == before && (line.size() < SHORTEST_TOKEN || !isPlain))
      complain("WEB_TOKEN_FILE: its first line is no token: accepted are " +
               std::to_string(SHORTEST_TOKEN) + " characters at least, without spaces");
    return line;
  }

  void tls(Settings& settings)
  {
    std::size_t const before = m_problems.size();
    settings.certificate = file(configKey("WEB_TLS_CERTIFICATE"), false);
    if (!m_configuration.word(configKey("WEB_TLS_KEY")).empty())
      setCoreDumpsWithKey(m_configuration.isOn(configKey("CORE_DUMPS")));
    settings.key = file(configKey("WEB_TLS_KEY"), true);
    settings.authorities = file(configKey("WEB_TLS_CA"), false);
    if (m_problems.size() != before)
      return;
    if (settings.certificate.empty() != settings.key.empty())
      complain("WEB_TLS_CERTIFICATE and WEB_TLS_KEY are wanted together");
    else if (settings.certificate.empty() && !settings.authorities.empty())
      complain("WEB_TLS_CA is of no use without WEB_TLS_CERTIFICATE and WEB_TLS_KEY");
    else
      tryTls(settings);
  }

private:
  void tryTls(Settings const& settings)
  {
    auto const datum = [](std::string const& text)
    {
      return gnutls_datum_t{reinterpret_cast<unsigned char*>(const_cast<char*>(text.data())),
                            static_cast<unsigned>(text.size())};
    };
    gnutls_certificate_credentials_t credentials = nullptr;
    if (settings.certificate.empty() || gnutls_certificate_allocate_credentials(&credentials) < 0)
      return;
    auto const certificate = datum(settings.certificate);
    auto const key = datum(settings.key);
    auto const authorities = datum(settings.authorities);
    int const pair =
        gnutls_certificate_set_x509_key_mem(credentials, &certificate, &key, GNUTLS_X509_FMT_PEM);
    if (pair < 0)
      complain(std::string("WEB_TLS_CERTIFICATE and WEB_TLS_KEY cannot be used: ") +
               gnutls_strerror(pair));
    if (int const count = settings.authorities.empty()
                              ? 1
                              : gnutls_certificate_set_x509_trust_mem(credentials, &authorities,
                                                                      GNUTLS_X509_FMT_PEM);
        count <= 0)
      complain("WEB_TLS_CA has no certificate");
    gnutls_certificate_free_credentials(credentials);
  }

  Configuration const& m_configuration;
  std::vector<ConfigurationProblem>& m_problems;
};

} // namespace

Settings Settings::from(Configuration const& configuration,
                        std::vector<ConfigurationProblem>& problems)
{
  Settings settings;
  Reading reading(configuration, problems);
  settings.interval = static_cast<double>(configuration.seconds(configKey("WEB_LIST_INTERVAL")));
  settings.share = static_cast<double>(configuration.number(configKey("WEB_MASTER_SHARE"))) / 100;
  settings.token = reading.token();
  reading.tls(settings);
  auto const number = [&configuration](ConfigurationKey const& limit)
  { return static_cast<unsigned>(configuration.number(limit)); };
  settings.connections = number(configKey("WEB_LIMIT_CONNECTIONS"));
  settings.peerConnections = number(configKey("WEB_LIMIT_PEER_CONNECTIONS"));
  settings.header = number(configKey("WEB_LIMIT_HEADER"));
  settings.requestTime = number(configKey("WEB_LIMIT_REQUEST"));
  settings.reads = number(configKey("WEB_LIMIT_READS"));
  settings.payload = number(configKey("WEB_LIMIT_PAYLOAD"));
  settings.kept = static_cast<std::size_t>(configuration.number(configKey("WEB_LIMIT_KEPT")));
  settings.sent = static_cast<std::size_t>(configuration.number(configKey("WEB_LIMIT_SENT")));
  settings.eventStreams = number(configKey("WEB_LIMIT_EVENTS"));

  std::string const place = configuration.word(configKey("WEB_LISTEN"));
  auto const listen = ListenPlace::fromText(place);
  if (listen)
    settings.listen = *listen;
  if (listen && !listen->isLocal() && settings.token.empty() && settings.authorities.empty())
    reading.complain("WEB_LISTEN: others than this host can reach " + place +
                     "; accepted with WEB_TOKEN_FILE, or with WEB_TLS_CERTIFICATE, WEB_TLS_KEY "
                     "and WEB_TLS_CA");
  // Last: that there is none is no reason not to start.
  settings.masters = mastersOf(configuration, configKey("WEB_MASTERS"), MOST_MASTERS, problems);
  return settings;
}

} // namespace Web
