#include "tools/DbCommands.h"

#include "ozf/base/AsciiCase.h"
#include "ozf/base/SystemError.h"
#include "ozf/base/Uri.h"
#include "ozf/config/ProductRoot.h"
#include "tools/DatabaseScan.h"
#include "tools/DbForget.h"
#include "tools/ExitCodes.h"
#include "tools/Format.h"
#include "tools/Output.h"
#include "tools/Table.h"
#include "tools/TypeNames.h"
#include "tools/XmlText.h"

#include <CLI/CLI.hpp>

#include <iostream>
#include <unistd.h>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

namespace
{

struct DbOptions
{
  std::string directory;
  bool json = false;
  std::string subject;
  std::string authority;
  std::string type;
  bool raw = false;
  bool quick = false;
};

// False, with a message, when the directory cannot be read.
bool scan(DbOptions const& options, DatabaseContents& contents, bool payloads = false)
{
  int const error = scanDatabase(options.directory, contents, payloads);
  if (error == 0)
    return true;
  std::cerr << "tqdiscoctl: cannot read the database directory " << shown(options.directory) << ": "
            << errorText(error)
            << "\nName another with --directory, or the product root with TESSARINE_ROOT.\n";
  return false;
}

nlohmann::json storedJson(StoredDiscovery const& discovery, OzfObjTime const& now)
{
  return {{"subject", discovery.subject},
          {"authority", discovery.authority},
          {"type", static_cast<int>(discovery.type)},
          {"typeName", formatType(discovery.type)},
          {"collectionType", static_cast<int>(discovery.collectionType)},
          {"storage", static_cast<int>(discovery.storage)},
          {"priority", discovery.priority},
          {"discoveryTime", timeOrNull(discovery.discoveryTime)},
          {"expiresTime", timeOrNull(discovery.expiresTime)},
          {"expired", !discovery.expiresTime.isZero() && discovery.expiresTime < now},
          {"payloadBytes", discovery.payloadBytes},
          {"metadataFile", discovery.metadataFile},
          {"payloadFile", discovery.payloadFile}};
}

void reportProblems(DatabaseContents const& contents)
{
  for (auto const& [file, reason] : contents.problems)
    std::cerr << "tqdiscoctl: \"" << shown(file) << "\" " << shown(reason) << '\n';
}

int list(DbOptions const& options)
{
  DatabaseContents contents;
  if (!scan(options, contents))
    return EXIT_FAILED;

  OzfObjTime const now = OzfObjTime::now();
  if (options.json)
  {
    nlohmann::json all = nlohmann::json::array();
    for (StoredDiscovery const& discovery : contents.discoveries)
      all.push_back(storedJson(discovery, now));
    printJson(all);
  }
  else if (!contents.discoveries.empty())
  {
    Table table({{"SUBJECT", Table::TEXT},
                 {"AUTHORITY", Table::TEXT},
                 {"TYPE", Table::FIXED},
                 {"PRIORITY", Table::NUMBER},
                 {"AGE", Table::NUMBER},
                 {"EXPIRES IN", Table::NUMBER},
                 {"SIZE", Table::NUMBER}});
    for (StoredDiscovery const& discovery : contents.discoveries)
    {
      std::int64_t const left = discovery.expiresTime.seconds() - now.seconds();
      std::string const expiry = discovery.expiresTime.isZero()               ? "-"
                                 : discovery.expiresTime < now                ? "expired"
                                 : discovery.expiresTime >= OzfObjTime::max() ? "never"
                                                                              : formatSpan(left);
      table.add({discovery.subject, discovery.authority, formatType(discovery.type),
                 std::to_string(discovery.priority), formatAge(discovery.discoveryTime, now),
                 expiry, formatSize(discovery.payloadBytes)});
    }
    table.print(std::cout, terminalWidth(STDOUT_FILENO), terminalStyles(STDOUT_FILENO));
    std::set<AuthorityType> types;
    for (StoredDiscovery const& discovery : contents.discoveries)
      types.insert(discovery.type);
    explainTypes(types);
  }
  reportProblems(contents);
  if (!contents.problems.empty())
  {
    std::cerr << "tqdiscoctl: some files were left out; \"tqdiscoctl db verify\" checks them all\n";
    return EXIT_PARTLY;
  }
  if (contents.discoveries.empty())
  {
    if (!options.json)
      std::cerr << "tqdiscoctl: the database " << shown(options.directory) << " is empty\n";
    return EXIT_NOTHING;
  }
  return EXIT_DONE;
}

int show(DbOptions const& options)
{
  AuthorityType type = AT_ANYANDALL;
  if (!options.type.empty() && !parseType(options.type, type))
  {
    std::cerr << "tqdiscoctl: \"" << shown(options.type)
              << "\" is no authority type; use server, client, external, remotepull or 1 to 4\n";
    return EXIT_USAGE;
  }
  DatabaseContents contents;
  if (!scan(options, contents))
    return EXIT_FAILED;

  // As typed, or as it would be shown.
  std::string const subject = Uri::percentEncode(options.subject, URI_SHOWN);
  std::string const authority = Uri::percentEncode(options.authority, URI_SHOWN);
  std::vector<StoredDiscovery const*> matches;
  for (StoredDiscovery const& discovery : contents.discoveries)
    if (equalIgnoringCase(discovery.subject, subject) &&
        equalIgnoringCase(discovery.authority, authority) &&
        (type == AT_ANYANDALL || discovery.type == type))
      matches.push_back(&discovery);

  if (matches.empty())
  {
    std::cerr << "tqdiscoctl: no discovery of subject \"" << shown(subject) << "\" by authority \""
              << shown(authority) << "\"; \"tqdiscoctl db list\" shows what there is\n";
    return EXIT_NOTHING;
  }
  if (matches.size() > 1)
  {
    std::cerr << "tqdiscoctl: there are " << matches.size()
              << " such discoveries; choose one with --type:";
    for (StoredDiscovery const* const match : matches)
      std::cerr << ' ' << formatType(match->type);
    std::cerr << '\n';
    return EXIT_USAGE;
  }

  std::string payload;
  std::string reason;
  if (!readPayload(options.directory, *matches.front(), payload, reason))
  {
    complain(reason);
    return EXIT_FAILED;
  }
  if (options.json)
  {
    nlohmann::json record = storedJson(*matches.front(), OzfObjTime::now());
    record["payload"] = payload;
    printJson(record);
    return EXIT_DONE;
  }
  std::string text;
  if (options.raw || !indentXml(payload, text, reason))
  {
    if (!options.raw)
      complain("the payload is no XML and shown as it is: " + reason);
    std::cout << (options.raw || isatty(STDOUT_FILENO) == 0 ? payload : shownLines(payload));
  }
  else
    std::cout << text;
  return EXIT_DONE;
}

int verify(DbOptions const& options)
{
  DatabaseContents contents;
  if (!scan(options, contents, !options.quick))
    return EXIT_FAILED;

  if (options.json)
  {
    nlohmann::json problems = nlohmann::json::array();
    for (auto const& [file, reason] : contents.problems)
      problems.push_back({{"file", file}, {"reason", reason}});
    printJson({{"directory", options.directory},
               {"discoveries", contents.discoveries.size()},
               {"temporaryFiles", contents.temporaryFiles},
               {"problems", problems}});
  }
  else
  {
    for (auto const& [file, reason] : contents.problems)
      std::cout << '"' << shown(file) << "\" " << shown(reason) << '\n';
    for (std::string const& file : contents.temporaryFiles)
      std::cout << '"' << shown(file)
                << "\" is being written, or was left behind and goes at the next start\n";
    std::cout << contents.discoveries.size() << " sound, " << contents.problems.size()
              << (contents.problems.size() == 1 ? " problem\n" : " problems\n");
  }
  return contents.problems.empty() ? EXIT_DONE : EXIT_PARTLY;
}

} // namespace

void addDbCommands(CLI::App& application, int& exitCode)
{
  auto const options = std::make_shared<DbOptions>();
  options->directory = getDefaultDatabasePath();

  CLI::App* const db = application.add_subcommand(
      "db", "Look at a database directory, or remove from it; needs no service");
  db->require_subcommand(1);
  db->fallthrough();
  db->add_option("-d,--directory", options->directory, "The database directory")
      ->type_name("PATH")
      ->capture_default_str();

  CLI::App* const listCommand = db->add_subcommand("list", "List the discoveries");
  listCommand->add_flag("--json", options->json, "As JSON");
  listCommand->callback([options, &exitCode] { exitCode = list(*options); });

  CLI::App* const showCommand = db->add_subcommand("show", "Print the payload of one discovery");
  showCommand->add_option("SUBJECT", options->subject, "The subject's name")->required();
  showCommand->add_option("AUTHORITY", options->authority, "The authority's name")->required();
  showCommand
      ->add_option("-t,--type", options->type,
                   "The authority's type: server, client, external, remotepull")
      ->type_name("TYPE");
  auto* const json = showCommand->add_flag("--json", options->json, "As JSON");
  showCommand->add_flag("--raw", options->raw, "The bytes as stored, without indentation")
      ->excludes(json);
  showCommand->callback([options, &exitCode] { exitCode = show(*options); });

  CLI::App* const verifyCommand = db->add_subcommand(
      "verify", "Check that every file may be opened by the service, can be read and parsed and "
                "has its partner, payloads too");
  verifyCommand->add_flag("-q,--quick", options->quick,
                          "Leave the payloads unread: only that they are there");
  verifyCommand->add_flag("--json", options->json, "As JSON");
  verifyCommand->callback([options, &exitCode] { exitCode = verify(*options); });

  addForgetCommand(*db, std::shared_ptr<std::string const>(options, &options->directory), exitCode);
}

} // namespace tqdiscoctl
