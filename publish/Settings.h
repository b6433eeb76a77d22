// What the configuration says of tqpublish.

#pragma once

#include "ozf/config/Configuration.h"

#include <cstddef>
#include <string>
#include <vector>

namespace Publish
{

struct Settings
{
  std::vector<std::string> masters;
  double interval = 0;     // seconds
  std::size_t payload = 0; // bytes
  long historyDays = 0;
  std::vector<std::string> historyExcept; // patterns of authorities

  // What is wrong is added to problems.
  static Settings from(Quillon::Tessarine::Ozf::Configuration const& configuration,
                       std::vector<Quillon::Tessarine::Ozf::ConfigurationProblem>& problems);
};

} // namespace Publish
