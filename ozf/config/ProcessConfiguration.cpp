// The one configuration of the process.

#include "ozf/config/Configuration.h"

#include "ozf/base/OzfHostname.h"
#include "ozf/config/ConfigurationKeys.h"
#include "ozf/config/Limits.h"
#include "ozf/config/ProductRoot.h"
#include "ozf/log/FrameworkLogger.h"

#include <map>
#include <mutex>

namespace Quillon::Tessarine::Ozf
{

namespace
{

constexpr char SOURCE[] = "ProcessConfiguration";

struct Shared
{
  std::mutex mutex;
  std::shared_ptr<Configuration const> configuration;
  std::map<std::string, std::string> overrides;
};

// Never destroyed: threads may still ask while the process exits.
Shared& shared()
{
  static auto* const instance = new Shared;
  return *instance;
}

// Caller holds the mutex.
std::shared_ptr<Configuration const> installLocked(Shared& state, Configuration read)
{
  for (auto const& [key, value] : state.overrides)
    read = read.with(key, value);
  auto configuration = std::make_shared<Configuration const>(std::move(read));
  std::string const* const name = configuration->find(configKey("CLIENT_NAME"));
  OzfHostname::overrideLocal(name == nullptr ? std::string() : *name);
  // A file that is there and cannot be read lifts no limit.
  if (configuration->readable() || configuration->missing())
    getLimits().configure(*configuration);
  state.configuration = configuration;
  return configuration;
}

// Called without the mutex, since who receives log lines may ask for the
// configuration.
void logProblems(Configuration const& configuration)
{
  constexpr char OPERATION[] = "getConfiguration";
  for (auto const& problem : configuration.check())
    OZF_LOG(getFrameworkLogger(), configuration.missing() ? 4 : 1, SOURCE, OPERATION,
            problem.text());
}

} // namespace

std::shared_ptr<Configuration const> getConfiguration()
{
  Shared& state = shared();
  std::unique_lock guard(state.mutex);
  if (state.configuration)
    return state.configuration;
  auto configuration = installLocked(state, Configuration::read(getConfigurationPath()));
  guard.unlock();
  logProblems(*configuration);
  return configuration;
}

bool reloadConfiguration()
{
  Shared& state = shared();
  std::unique_lock guard(state.mutex);
  auto configuration = installLocked(state, Configuration::read(getConfigurationPath()));
  guard.unlock();
  logProblems(*configuration);
  return configuration->readable();
}

bool reloadReadableConfiguration()
{
  Configuration read = Configuration::read(getConfigurationPath());
  if (!read.readable())
  {
    logProblems(read);
    return false;
  }
  Shared& state = shared();
  std::unique_lock guard(state.mutex);
  auto configuration = installLocked(state, std::move(read));
  guard.unlock();
  logProblems(*configuration);
  return true;
}

void overrideConfiguration(std::string const& key, std::string const& value)
{
  Shared& state = shared();
  std::lock_guard const guard(state.mutex);
  state.overrides[key] = value;
  if (!state.configuration)
    return;
  state.configuration =
      std::make_shared<Configuration const>(state.configuration->with(key, value));
  getLimits().configure(*state.configuration);
}

} // namespace Quillon::Tessarine::Ozf
