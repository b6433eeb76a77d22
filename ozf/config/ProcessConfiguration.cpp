// The one configuration of the process.

#include "ozf/config/Configuration.h"

#include "ozf/base/OzfHostname.h"
#include "ozf/config/ConfigurationKeys.h"
#include "ozf/config/HostRole.h"
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
  std::vector<std::string> waiting; // keys
  ReloadListener listener;
};

// Never destroyed: threads may still ask while the process exits.
Shared& shared()
{
  static auto* const instance = new Shared;
  return *instance;
}

// Both: the caller holds the mutex.
Configuration overridden(Shared const& state, Configuration read)
{
  for (auto const& [key, value] : state.overrides)
    read = read.with(key, value);
  return read;
}

std::shared_ptr<Configuration const> installLocked(Shared& state, Configuration read)
{
  auto configuration = std::make_shared<Configuration const>(overridden(state, std::move(read)));
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
  state.waiting.clear();
  guard.unlock();
  logProblems(*configuration);
  return configuration->readable();
}

namespace
{

// Of the keys with other values those that keep what they have until a restart.
std::vector<std::string> waitingKeys(Configuration const& former, Configuration const& read)
{
  std::vector<std::string> keys = read.differingKeys(former);
  std::erase_if(keys,
                [&](std::string const& name)
                {
                  ConfigurationKey const* const key = findKey(name);
                  if (key == nullptr)
                    return true;
                  if (key->holds == KeyHolds::WITHIN_ROLE)
                    return isMasterBy(former) == isMasterBy(read);
                  return key->holds == KeyHolds::FROM_RELOAD;
                });
  return keys;
}

} // namespace

ConfigurationReload reloadServingConfiguration(ConfigurationJudge const& judge)
{
  Configuration read = Configuration::read(getConfigurationPath());
  ConfigurationReload result;
  result.problems = judge(read);
  if (!read.readable() && result.problems.empty())
    result.problems = read.problems();
  if (!result.problems.empty())
    return result;

  auto const former = getConfiguration();
  Shared& state = shared();
  {
    std::lock_guard const guard(state.mutex);
    read = overridden(state, std::move(read));
  }
  result.waiting = waitingKeys(*former, read);
  read = read.withKeysOf(*former, result.waiting);
  result.changed = read.differingKeys(*former);

  ReloadListener listener;
  {
    std::lock_guard const guard(state.mutex);
    state.waiting = result.waiting;
    installLocked(state, std::move(read));
    listener = state.listener;
  }
  if (listener)
    listener(result);
  return result;
}

void setReloadListener(ReloadListener listener)
{
  Shared& state = shared();
  std::lock_guard const guard(state.mutex);
  state.listener = std::move(listener);
}

std::vector<std::string> keysThatWait()
{
  Shared& state = shared();
  std::lock_guard const guard(state.mutex);
  return state.waiting;
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
