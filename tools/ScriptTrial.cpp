// explorer test: runs a script here, as the service would.

#include "tools/Collections.h"
#include "tools/Commands.h"
#include "tools/Format.h"
#include "tools/ItemJson.h"
#include "tools/ItemText.h"
#include "tools/Output.h"
#include "tools/Table.h"

#include "ozf/base/AsciiCase.h"
#include "ozf/base/OzfHostname.h"
#include "ozf/base/OzfPathname.h"
#include "ozf/base/SystemError.h"
#include "ozf/config/Configuration.h"
#include "ozf/config/ConfigurationKeys.h"
#include "scripts/ScriptPayload.h"
#include "scripts/ScriptRun.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <iostream>
#include <memory>
#include <unistd.h>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;

namespace
{

struct ScriptTestOptions
{
  std::string file;
  bool json = false;
};

// What a run here comes to.
struct Trial
{
  Scripts::ScriptFile script;
  std::string subject;
  std::vector<std::string> mistakes;
  Scripts::RunOutcome outcome;
  std::vector<Item> items;
  AutoDereference<OzfQuery> description{new OzfQuery};
};

Item asItem(Scripts::ScriptItem const& item, std::string const& subject)
{
  Item result;
  result.name = item.name.empty() ? subject : item.name;
  for (Scripts::ScriptFact const& fact : item.facts)
    result.facts.emplace_back(fact.name, fact.value);
  return result;
}

// Which other explorer has its authority.
std::string rivalOf(Scripts::ScriptFile const& script)
{
  std::vector<std::string> ignored;
  for (Scripts::ScriptFile const& other :
       Scripts::findScripts(OzfPathname(script.path).directory(), ignored))
    if (other.path != script.path && equalIgnoringCase(other.name, script.name))
      return other.path;
  for (KeyPart const& known : SWITCHED_EXPLORERS)
    if (equalIgnoringCase(script.name, known.name))
      return "the explorer " + std::string(known.name);
  return {};
}

void carryOut(Trial& trial)
{
  Scripts::Sidecar sidecar;
  trial.mistakes = Scripts::examineScript(trial.script, sidecar);
  if (std::string const rival = rivalOf(trial.script); !rival.empty())
    trial.mistakes.push_back(trial.script.path + " has the authority " + trial.script.name +
                             " like " + rival);
  if (!trial.mistakes.empty())
    return;
  Scripts::RunStop const stop;
  trial.outcome = Scripts::runScript(trial.script, sidecar, trial.subject, stop);
  std::vector<Scripts::ScriptItem> items;
  std::string mistake = trial.outcome.failure;
  if (mistake.empty() && Scripts::parseScriptOutput(trial.outcome.output, items, mistake) &&
      Scripts::obeysDescription(sidecar.facts, items, mistake))
  {
    trial.description = Scripts::describeItems(sidecar.facts, items);
    for (Scripts::ScriptItem const& item : items)
      trial.items.push_back(asItem(item, trial.subject));
  }
  else
    trial.mistakes.push_back(mistake);
}

void printTrialAsJson(Trial const& trial)
{
  nlohmann::json items = nlohmann::json::array();
  for (Item const& item : trial.items)
    items.push_back(toJson(item, *trial.description, false));
  nlohmann::json attributes = nlohmann::json::array();
  for (OzfQuery::Attribute const& attribute : trial.description->attributes())
    attributes.push_back(toJson(attribute));
  printJson({{"file", trial.script.path},
             {"subject", trial.subject},
             {"authority", trial.script.name},
             {"stored", trial.mistakes.empty()},
             {"mistakes", trial.mistakes},
             {"milliseconds", trial.outcome.took.count()},
             {"memoryBytes", trial.outcome.memory * 1024},
             {"errors", trial.outcome.errors},
             {"items", items},
             {"attributes", attributes}});
}

void printTrial(Trial const& trial)
{
  bool const bold = terminalStyles(STDOUT_FILENO);
  if (!trial.outcome.errors.empty())
    std::cerr << shownLines(trial.outcome.errors) << '\n';
  for (std::string const& mistake : trial.mistakes)
    complain(mistake);
  if (!trial.mistakes.empty())
    return;
  std::cout << "Would be stored about " << shown(trial.subject) << " by "
            << shown(trial.script.name) << ": " << counted(trial.items.size(), "item", "items")
            << ", found in " << trial.outcome.took.count() << " ms.\n";
  for (Item const& item : trial.items)
  {
    std::cout << '\n';
    printItem(std::cout, item, *trial.description, bold);
  }
}

int testScript(ScriptTestOptions const& options)
{
  Trial trial;
  if (!Scripts::findScript(options.file, trial.script))
  {
    int const error = errno;
    complain(error == ENOENT ? "there is no file " + shown(options.file)
                             : shown(options.file) + " cannot be examined: " + errorText(error));
    return EXIT_FAILED;
  }
  getConfiguration(); // which may name this host
  OzfHostname host;
  host.setLocal();
  trial.subject = host.exportNarrow();
  carryOut(trial);
  if (options.json)
    printTrialAsJson(trial);
  else
    printTrial(trial);
  return trial.mistakes.empty() ? EXIT_DONE : EXIT_FAILED;
}

} // namespace

void addExplorerTestCommand(CLI::App& group, Session& session)
{
  auto const options = std::make_shared<ScriptTestOptions>();
  CLI::App* const command = group.add_subcommand(
      "test", "Run a script here, as the service would, and show what would be stored");
  command->add_option("FILE", options->file, "The script, as it lies in explorers.d")->required();
  command->add_flag("--json", options->json, "As JSON");
  command->callback([options, &session] { session.exitCode = testScript(*options); });
}

} // namespace tqdiscoctl
