#include "ozf/tls/TlsSettings.h"

#include "ozf/config/Configuration.h"
#include "ozf/config/ConfigurationKeys.h"
#include "ozf/config/ConfigurationValues.h"

namespace Quillon::Tessarine::Ozf
{

bool TlsSettings::read(Configuration const& configuration, std::string& error)
{
  *this = TlsSettings();
  std::string const* const word = configuration.find(TLS_KEYS.mode);
  if (word == nullptr || *word == "off")
    return true;
  if (!isTlsMode(*word))
  {
    error = std::string(TLS_KEYS.mode) + " is \"" + *word + "\"; accepted: off, both and only";
    return false;
  }
  struct File
  {
    char const* key;
    std::string* path;
  };
  for (File const& file : {File{TLS_KEYS.certificate, &certificate}, File{TLS_KEYS.key, &key},
                           File{TLS_KEYS.authorities, &authorities}})
  {
    std::string const* const path = configuration.find(file.key);
    if (path == nullptr || path->empty())
    {
      error = std::string(file.key) + " is missing although " + TLS_KEYS.mode + " is " + *word +
              "; accepted: the path of a file in PEM format";
      return false;
    }
    *file.path = *path;
  }
  configuration.getBoolean(CORE_DUMPS_KEY, false, coreDumps);
  mode = *word == "both" ? TlsMode::BOTH : TlsMode::ONLY;
  return true;
}

} // namespace Quillon::Tessarine::Ozf
