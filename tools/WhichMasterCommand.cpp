// which-master: the master that a host belongs to.

#include "tools/Commands.h"
#include "tools/MasterList.h"
#include "tools/Output.h"

#include "ozf/config/Configuration.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <iostream>
#include <memory>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;

namespace
{

struct WhichMasterOptions
{
  std::vector<std::string> hosts;
  std::string masters;
  bool json = false;
};

// An exit code. Ports say nothing of what a master is called.
int findMasters(WhichMasterOptions const& options, std::vector<std::string>& masters)
{
  MasterList list;
  std::string const mistake =
      options.masters.empty() ? configuredMasters(list) : parseMasters(options.masters, list);
  if (!mistake.empty())
  {
    complain(mistake);
    return options.masters.empty() ? EXIT_FAILED : EXIT_USAGE;
  }
  masters = list.hosts;
  if (!masters.empty())
    return EXIT_DONE;
  complain("no masters are known: there is no MASTERS in " + getConfiguration()->path(),
           {"Name them with --masters HOST,HOST."});
  return EXIT_USAGE;
}

int whichMaster(WhichMasterOptions const& options)
{
  for (std::string const& host : options.hosts)
    if (std::string name, port; !parseMaster(host, name, port) || !port.empty())
    {
      complain("\"" + shown(host) + "\" is no host's name");
      return EXIT_USAGE;
    }
  std::vector<std::string> masters;
  if (int const result = findMasters(options, masters); result != EXIT_DONE)
    return result;
  if (options.json)
  {
    JsonArray all;
    for (std::string const& host : options.hosts)
      all.add({{"host", host}, {"master", masterOf(host, masters)}});
    return EXIT_DONE;
  }
  for (std::string const& host : options.hosts)
    std::cout << (options.hosts.size() == 1 ? "" : shown(host) + " ")
              << shown(masterOf(host, masters)) << '\n';
  return EXIT_DONE;
}

} // namespace

void addWhichMasterCommand(CLI::App& application, Session& session)
{
  auto const options = std::make_shared<WhichMasterOptions>();
  CLI::App* const command = application.add_subcommand(
      "which-master", "Name the master that a host belongs to; asks no service");
  command->add_option("HOST", options->hosts, "The host's name; with several a line for each")
      ->required();
  command
      ->add_option("--masters", options->masters,
                   "Those to choose among, with commas between; default: MASTERS of the "
                   "configuration")
      ->type_name("HOST,...");
  command->add_flag("--json", options->json, "As JSON");
  command->callback([options, &session] { session.exitCode = whichMaster(*options); });
}

} // namespace tqdiscoctl
