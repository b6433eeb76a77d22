#include "host/StartCheck.h"

#include "ozf/base/OzfPathname.h"
#include "ozf/base/SystemError.h"
#include "ozf/config/ConfigurationKeys.h"
#include "ozf/config/HostRole.h"
#include "ozf/config/ProductRoot.h"
#include "ozf/tls/CurrentTls.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace Host
{

using namespace Quillon::Tessarine::Ozf;

namespace
{

// 0, or the error of the system that keeps files from being made there. Asked by
// making one without a name: neither rights nor the file system's state can be
// told from the directory's mode.
int tryToWrite(std::string const& directory)
{
  UniqueFd const file(open(directory.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600));
  if (file.valid())
    return 0;
  if (errno != EOPNOTSUPP && errno != EISDIR)
    return errno;
  // The file system has none without a name.
  std::string const path = directory + "/start-check." + std::to_string(getpid());
  unlink(path.c_str()); // a start that was cut off left it
  UniqueFd const named(open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0600));
  if (!named.valid())
    return errno;
  unlink(path.c_str());
  return 0;
}

std::vector<ConfigurationProblem> mistakesWith(Configuration const& configuration,
                                               std::vector<std::string> const& mistakesOfTls)
{
  auto problems = configuration.check();
  std::string const* const server = configuration.find(configKey("SERVER"));
  if (configuration.readable() && server == nullptr)
    problems.insert(problems.begin(),
                    {configuration.path(), 0,
                     "SERVER is missing; accepted: the name or address of the master, on the "
                     "master as well"});
  for (auto const& mistake : mistakesOfTls)
    problems.push_back({configuration.path(), 0, mistake});
  return problems;
}

} // namespace

std::vector<ConfigurationProblem> mistakesForService(Configuration const& configuration)
{
  std::string const mistake = mistakeOfTls(configuration);
  return mistakesWith(configuration,
                      mistake.empty() ? std::vector<std::string>() : std::vector{mistake});
}

std::vector<ConfigurationProblem> checkForService(Configuration const& configuration)
{
  return mistakesWith(configuration, checkTls(configuration));
}

std::optional<std::string> whyNothingCanBeStored()
{
  if (!getConfiguration()->isOn(configKey("REPORT_CLIENT_DISCOVERIES")) ||
      IsRunningOnMasterServer() != 0)
    return std::nullopt;
  std::string const directory = getDefaultDatabasePath();
  if (int const error = mkdirpath(directory, 0755); error != 0)
    return "The database directory " + directory + " cannot be made: " + errorText(error);
  if (int const error = tryToWrite(directory); error != 0)
    return "The database directory " + directory + " cannot be written: " + errorText(error);
  return std::nullopt;
}

} // namespace Host
