// What the configuration says of TLS: the keys TLS, TLS_CERTIFICATE, TLS_KEY and
// TLS_CA, and CORE_DUMPS.

#pragma once

#include "ozf/base/Export.h"

#include <string>

namespace Quillon::Tessarine::Ozf
{

class Configuration;

enum class TlsMode
{
  OFF,
  BOTH, // TLS with whoever speaks it, and plain connections with the others
  ONLY
};

struct OZF_EXPORT TlsSettings
{
  TlsMode mode = TlsMode::OFF;
  std::string certificate; // paths of files in PEM format
  std::string key;
  std::string authorities;
  bool coreDumps = false; // although the key would be in them

  // False, with the reason in error, when the mode is none of the three or a file
  // is not named although TLS is on. Nothing is read but the configuration.
  bool read(Configuration const& configuration, std::string& error);
};

} // namespace Quillon::Tessarine::Ozf
