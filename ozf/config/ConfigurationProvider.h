// Configuration as the product's components ask for it.

#pragma once

#include "ozf/base/Export.h"

#include <memory>
#include <string>

namespace Quillon::Tessarine::Ozf
{

class Configuration;
class EngineContext;

// Names one piece of metadata. Kind 3 is a key of the configuration file, the
// only kind there is.
struct MetadataIdentifier
{
  static constexpr int CONFIGURATION_KEY = 3;
  int kind;
  std::string key;
};

class OZF_EXPORT MetadataProvider
{
public:
  virtual ~MetadataProvider() = default;

  // The one value of identifier. False when there is none, or when the kind
  // is not known; value is then unchanged.
  virtual bool getValue(MetadataIdentifier const& identifier, std::string& value) const;
};

// Engine singleton (getEngineSingleton<ConfigurationProviderHolder>) through
// which components find the provider.
class OZF_EXPORT ConfigurationProviderHolder
{
public:
  static ConfigurationProviderHolder* instance(EngineContext const& context);

  MetadataProvider const& getMetadataProvider() const noexcept { return m_provider; }

private:
  MetadataProvider m_provider;
};

// Reads the product's master configuration, the file tq.conf, for itself: what
// getConfiguration returns is not touched. For one thread at a time.
class OZF_EXPORT MasterConfigurationReader
{
public:
  // Reads the file anew. False when it is missing or unreadable.
  bool read();

  // As Configuration::getBoolean; false also before a successful read.
  bool getBoolean(std::string const& key, bool defaultValue, bool& value) const;

private:
  std::shared_ptr<Configuration const> m_configuration; // null before a successful read
};

} // namespace Quillon::Tessarine::Ozf
