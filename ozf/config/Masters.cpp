#include "ozf/config/Masters.h"

#include "ozf/config/Configuration.h"
#include "ozf/config/ConfigurationKeys.h"

#include <algorithm>

namespace Quillon::Tessarine::Ozf
{

std::vector<std::string> mastersOf(Configuration const& configuration, ConfigurationKey const& key,
                                   std::size_t most, std::vector<ConfigurationProblem>& problems)
{
  std::string const name = key.name;
  auto const complain = [&](std::string const& text) {
    problems.push_back({configuration.path(), 0, text});
  };
  std::vector<std::string> masters = configuration.list(key);
  if (std::string const* const server = configuration.find(configKey("SERVER"));
      masters.empty() && server != nullptr && !server->empty())
    masters.push_back(*server);
  std::sort(masters.begin(), masters.end());
  masters.erase(std::unique(masters.begin(), masters.end()), masters.end());
  if (masters.empty())
    complain("neither " + name + " nor SERVER is there; accepted: the name or address of a master");
  if (masters.size() > most)
    complain(name + " names more than " + std::to_string(most) + " masters");
  return masters;
}

} // namespace Quillon::Tessarine::Ozf
