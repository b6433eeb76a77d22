#include "ozf/config/ConfigurationProvider.h"

#include "ozf/config/Configuration.h"
#include "ozf/config/ProductRoot.h"

namespace Quillon::Tessarine::Ozf
{

bool MetadataProvider::getValue(MetadataIdentifier const& identifier, std::string& value) const
{
  if (identifier.kind != MetadataIdentifier::CONFIGURATION_KEY)
    return false;
  auto const configuration = getConfiguration();
  std::string const* const found = configuration->find(identifier.key);
  if (found == nullptr)
    return false;
  value = *found;
  return true;
}

ConfigurationProviderHolder* ConfigurationProviderHolder::instance(EngineContext const&)
{
  return new ConfigurationProviderHolder;
}

bool MasterConfigurationReader::read()
{
  auto configuration =
      std::make_shared<Configuration const>(Configuration::read(getConfigurationPath()));
  m_configuration = configuration->readable() ? std::move(configuration) : nullptr;
  return m_configuration != nullptr;
}

bool MasterConfigurationReader::getBoolean(std::string const& key, bool defaultValue,
                                           bool& value) const
{
  return m_configuration != nullptr && m_configuration->getBoolean(key, defaultValue, value);
}

} // namespace Quillon::Tessarine::Ozf
