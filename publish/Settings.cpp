#include "publish/Settings.h"

#include "ozf/config/ConfigurationKeys.h"
#include "ozf/config/ConfigurationValues.h"
#include "ozf/config/Masters.h"

namespace Publish
{

using namespace Quillon::Tessarine::Ozf;

Settings Settings::from(Configuration const& configuration,
                        std::vector<ConfigurationProblem>& problems)
{
  constexpr std::size_t MOST_MASTERS = 64;
  Settings settings;
  settings.masters = mastersOf(configuration, configKey("PUBLISH_MASTERS"), MOST_MASTERS, problems);
  settings.interval = static_cast<double>(configuration.seconds(configKey("PUBLISH_INTERVAL")));
  settings.payload =
      static_cast<std::size_t>(configuration.number(configKey("PUBLISH_LIMIT_PAYLOAD")));
  settings.historyDays = configuration.number(configKey("HISTORY_DAYS"));
  settings.historyExcept = entriesOf(configuration.word(configKey("HISTORY_EXCEPT")));
  return settings;
}

} // namespace Publish
