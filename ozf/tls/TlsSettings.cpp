#include "ozf/tls/TlsSettings.h"

#include "ozf/config/Configuration.h"
#include "ozf/config/ConfigurationKeys.h"

namespace Quillon::Tessarine::Ozf
{

namespace
{
constexpr ConfigurationKey const& MODE = configKey("TLS");
}

bool TlsSettings::read(Configuration const& configuration, std::string& error)
{
  *this = TlsSettings();
  std::string const* const word = configuration.find(MODE);
  if (word == nullptr || *word == "off")
    return true;
  if (!isAccepted(MODE, *word))
  {
    error = std::string(MODE.name) + " is \"" + *word + "\"; accepted: " + acceptedBy(MODE);
    return false;
  }
  struct File
  {
    ConfigurationKey const& key;
    std::string* path;
  };
  for (File const& file :
       {File{configKey("TLS_CERTIFICATE"), &certificate}, File{configKey("TLS_KEY"), &key},
        File{configKey("TLS_CA"), &authorities}})
  {
    std::string const* const path = configuration.find(file.key);
    if (path == nullptr || path->empty())
    {
      error = std::string(file.key.name) + " is missing although " + MODE.name + " is " + *word +
              "; accepted: the path of a file in PEM format";
      return false;
    }
    *file.path = *path;
  }
  coreDumps = configuration.isOn(configKey("CORE_DUMPS"));
  mode = *word == "both" ? TlsMode::BOTH : TlsMode::ONLY;
  return true;
}

} // namespace Quillon::Tessarine::Ozf
