// What the plug-in finds here, looked at without a service. Its exit code is 0 when
// there is nothing to complain about.

#include "discovery/ExplorerTrial.h"

#include <iostream>

using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

extern "C" void RegisterExplorers(DiscoveryRepository* repository);

int main()
{
  ExplorerTrial trial(RegisterExplorers);
  trial.run();
  for (auto const& mistake : trial.mistakes())
    std::cerr << mistake << '\n';
  TrialRecord const* const record = trial.data("uptime");
  if (record == nullptr || record->items.size() != 1)
  {
    std::cerr << "there is not one item\n";
    return 1;
  }
  auto const uptime = record->items[0]["Uptime"].seconds();
  std::cout << "up for " << uptime.value_or(0) << " seconds\n";
  return trial.mistakes().empty() && uptime && *uptime > 0 ? 0 : 1;
}
