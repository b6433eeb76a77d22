// A discovery is two files, and who changes either of them holds the write lock
// of the metadata file. So it is here, and the metadata file is made for it when
// it is missing. The payload goes first and the metadata file while it is still
// locked: a writer that waits for the lock then sees that the file has lost its
// name, and begins anew. What a crash between the two leaves is a metadata file
// without a payload, which "db verify" reports and a second "db forget" removes.

#include "tools/DbForget.h"

#include "discovery/DiscDBLock.h"
#include "discovery/DiscData.h"
#include "ozf/base/AsciiCase.h"
#include "ozf/base/SystemError.h"
#include "ozf/base/Uri.h"
#include "tools/DatabaseScan.h"
#include "tools/ExitCodes.h"
#include "tools/Format.h"
#include "tools/Output.h"
#include "tools/Table.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <iostream>
#include <map>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

namespace
{

struct ForgetOptions
{
  std::shared_ptr<std::string const> directory;
  std::string subject;
  std::string authority;
  std::string type;
  bool dryRun = false;
  bool yes = false;
  bool json = false;
};

// One discovery that is to go, whatever is there of it.
struct Doomed
{
  std::string stem; // of its files: "4 volume web7"
  bool metadata = false;
  bool payload = false;
  AuthorityType type{};
  std::optional<StoredDiscovery> record; // none when it cannot be read
  bool removed = false;
  std::string reason; // why not
};

// The keys in the name of a file, "type authority subject".
struct Keys
{
  AuthorityType type{};
  std::string authority;
  std::string subject;
};

std::optional<Keys> keysOf(std::string const& stem)
{
  auto const first = stem.find(' ');
  auto const second = first == std::string::npos ? first : stem.find(' ', first + 1);
  if (second == std::string::npos || stem.find(' ', second + 1) != std::string::npos)
    return std::nullopt;
  Keys keys;
  if (!parseType(stem.substr(0, first), keys.type) || first != 1)
    return std::nullopt;
  keys.authority = stem.substr(first + 1, second - first - 1);
  keys.subject = stem.substr(second + 1);
  return keys;
}

// What was asked for, as it stands in file names and in records.
class Wanted
{
public:
  Wanted(ForgetOptions const& options, AuthorityType type)
      : m_subject(options.subject), m_type(type)
  {
    if (!options.authority.empty())
      m_authority.emplace(options.authority, AT_EXTSRC);
  }

  // A key that ends in a hash tells of no other letter case: the record does.
  bool matches(Keys const& keys, StoredDiscovery const* record) const
  {
    if (m_type != AT_ANYANDALL && m_type != keys.type)
      return false;
    return (equalIgnoringCase(keys.subject, m_subject.getFileKey().str()) ||
            (record != nullptr && equalIgnoringCase(record->subject, m_subject.getName().str()))) &&
           (!m_authority || equalIgnoringCase(keys.authority, m_authority->getFileKey().str()) ||
            (record != nullptr &&
             equalIgnoringCase(record->authority, m_authority->getName().str())));
  }

private:
  Subject const m_subject;
  std::optional<Authority> m_authority;
  AuthorityType const m_type;
};

// By the names of the files, so that what cannot be read is found as well.
int findDoomed(ForgetOptions const& options, Wanted const& wanted, std::vector<Doomed>& doomed)
{
  std::error_code error;
  std::filesystem::directory_iterator entries(*options.directory, error);
  std::map<std::string, Doomed> found;
  for (; !error && entries != std::filesystem::directory_iterator(); entries.increment(error))
  {
    std::filesystem::path const name = entries->path().filename();
    bool const metadata = name.extension() == ".xml";
    if (!metadata && name.extension() != ".dat")
      continue;
    Doomed& one = found[name.stem().string()];
    one.metadata = one.metadata || metadata;
    one.payload = one.payload || !metadata;
  }
  if (error)
    return error.value();

  DatabaseContents contents;
  if (int const failure = scanDatabase(*options.directory, contents); failure != 0)
    return failure;
  std::map<std::string, StoredDiscovery const*> records;
  for (StoredDiscovery const& record : contents.discoveries)
    records[std::filesystem::path(record.metadataFile).stem().string()] = &record;

  for (auto& [stem, one] : found)
  {
    auto const keys = keysOf(stem);
    auto const record = records.find(stem);
    StoredDiscovery const* const stored = record == records.end() ? nullptr : record->second;
    if (!keys || !wanted.matches(*keys, stored))
      continue;
    one.stem = stem;
    one.type = keys->type;
    if (stored != nullptr)
      one.record = *stored;
    doomed.push_back(std::move(one));
  }
  return 0;
}

// An empty text when the file is gone.
std::string removeFile(std::string const& path)
{
  if (::unlink(path.c_str()) == 0 || errno == ENOENT)
    return {};
  return "cannot be removed: " + errorText(errno);
}

// What is no regular file is nobody's metadata, and has no lock.
bool isOther(std::string const& path)
{
  struct stat status
  {
  };
  return ::lstat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode);
}

// An empty text when both files are gone.
std::string removePair(std::string const& directory, std::string const& stem)
{
  std::string const metadata = directory + '/' + stem + ".xml";
  std::string const payload = directory + '/' + stem + ".dat";
  MetadataGuard const guard(metadata);
  for (int round = 0; round < REPLACED_LIMIT && !isOther(metadata); ++round)
  {
    int const fd = ::open(metadata.c_str(),
                          O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0640);
    if (fd < 0)
      return "cannot be opened: " + errorText(errno);
    std::unique_ptr<ACE_File_Lock, FileLockCloser> const file(new ACE_File_Lock(fd, false));
    LockWait wait;
    if (waitLock(*file, RecordLock::WRITE, wait) != 0)
      return errno == EBUSY ? "is in use: another process keeps its lock"
                            : "cannot be locked: " + errorText(errno);
    if (!isFileAt(fd, metadata.c_str()))
      continue;
    std::string reason = removeFile(payload);
    return reason.empty() ? removeFile(metadata) : reason;
  }
  std::string reason = removeFile(payload);
  return reason.empty() ? removeFile(metadata) : reason;
}

void removeAll(std::string const& directory, std::vector<Doomed>& doomed)
{
  for (Doomed& one : doomed)
  {
    one.reason = removePair(directory, one.stem);
    one.removed = one.reason.empty();
  }
  UniqueFd const folder(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder.valid() || ::fsync(folder.get()) != 0)
    complain("cannot flush " + shown(directory) + ": " + errorText(errno));
}

std::vector<std::string> filesOf(Doomed const& one)
{
  std::vector<std::string> files;
  if (one.metadata)
    files.push_back(one.stem + ".xml");
  if (one.payload)
    files.push_back(one.stem + ".dat");
  return files;
}

void printDoomed(std::vector<Doomed> const& doomed)
{
  OzfObjTime const now = OzfObjTime::now();
  Table table({{"SUBJECT", Table::TEXT},
               {"AUTHORITY", Table::TEXT},
               {"TYPE", Table::FIXED},
               {"AGE", Table::NUMBER},
               {"SIZE", Table::NUMBER},
               {"FILES", Table::TEXT}});
  for (Doomed const& one : doomed)
  {
    std::string files;
    for (std::string const& file : filesOf(one))
      files += (files.empty() ? "" : ", ") + shown(file);
    if (one.record)
      table.add({shown(one.record->subject), shown(one.record->authority), formatType(one.type),
                 formatAge(one.record->discoveryTime, now), formatSize(one.record->payloadBytes),
                 files});
    else
      table.add({"(unreadable)", "-", formatType(one.type), "-", "-", files});
  }
  table.print(std::cout, terminalWidth(STDOUT_FILENO), terminalStyles(STDOUT_FILENO));
  std::cout.flush();
}

nlohmann::json doomedJson(Doomed const& one)
{
  nlohmann::json json = {{"subject", nullptr},
                         {"authority", nullptr},
                         {"type", static_cast<int>(one.type)},
                         {"typeName", formatType(one.type)},
                         {"files", filesOf(one)},
                         {"removed", one.removed}};
  if (one.record)
  {
    json["subject"] = one.record->subject;
    json["authority"] = one.record->authority;
  }
  if (!one.reason.empty())
    json["reason"] = one.reason;
  return json;
}

bool isAgreed(std::size_t count)
{
  std::cerr << "Remove " << counted(count, "discovery", "discoveries") << " for good? [y/N] "
            << std::flush;
  std::string answer;
  std::getline(std::cin, answer);
  return answer == "y" || answer == "Y" || answer == "yes";
}

std::string places(ForgetOptions const& options)
{
  std::string text = "subject \"" + shown(options.subject) + "\"";
  if (!options.authority.empty())
    text += " by authority \"" + shown(options.authority) + "\"";
  return text;
}

// An exit code; what could not be removed is told.
int conclude(ForgetOptions const& options, std::vector<Doomed> const& doomed)
{
  std::size_t removed = 0;
  bool announcements = false;
  nlohmann::json all = nlohmann::json::array();
  for (Doomed const& one : doomed)
  {
    removed += one.removed ? 1 : 0;
    announcements = announcements || (one.removed && one.type == AT_REMOTEPULL);
    if (!one.reason.empty())
      complain("\"" + shown(one.stem) + "\" " + one.reason);
    all.push_back(doomedJson(one));
  }
  if (options.json)
    printJson({{"directory", *options.directory},
               {"dryRun", options.dryRun},
               {"discoveries", std::move(all)}});
  else if (!options.dryRun)
    std::cout << "Removed " << counted(removed, "discovery", "discoveries") << ".\n";
  std::cout.flush();
  if (announcements)
    remark("A running service forgets what was announced within seconds; of tens of thousands of "
           "hosts within two minutes.");
  if (options.dryRun || removed == doomed.size())
    return EXIT_DONE;
  return removed == 0 ? EXIT_FAILED : EXIT_PARTLY;
}

int forget(ForgetOptions const& options)
{
  AuthorityType type = AT_ANYANDALL;
  if (!options.type.empty() && !parseType(options.type, type))
  {
    complain("\"" + shown(options.type) +
             "\" is no authority type; use server, client, external, remotepull or 1 to 4");
    return EXIT_USAGE;
  }
  bool const asks = !options.dryRun && !options.yes;
  if (asks && (options.json || isatty(STDIN_FILENO) == 0))
  {
    complain("without a terminal to ask at, --yes says that it is meant; --dry-run shows what "
             "would go");
    return EXIT_USAGE;
  }

  std::vector<Doomed> doomed;
  if (int const error = findDoomed(options, Wanted(options, type), doomed); error != 0)
  {
    complain("cannot read the database directory " + shown(*options.directory) + ": " +
                 errorText(error),
             {"Name another with --directory, or the product root with TESSARINE_ROOT."});
    return EXIT_FAILED;
  }
  if (doomed.empty())
  {
    if (options.json)
      conclude(options, doomed);
    complain("there is nothing of " + places(options) + " in " + shown(*options.directory) +
             "; \"tqdiscoctl db list\" shows what there is. Discoveries are kept by the master.");
    return EXIT_NOTHING;
  }
  if (!options.json)
    printDoomed(doomed);
  if (asks && !isAgreed(doomed.size()))
  {
    complain("nothing was removed");
    return EXIT_FAILED;
  }
  if (!options.dryRun)
    removeAll(*options.directory, doomed);
  return conclude(options, doomed);
}

} // namespace

void addForgetCommand(CLI::App& db, std::shared_ptr<std::string const> const& directory,
                      int& exitCode)
{
  auto const options = std::make_shared<ForgetOptions>();
  options->directory = directory;
  CLI::App* const command = db.add_subcommand(
      "forget",
      "Remove what is stored of one subject, also while the service runs. It takes access to the "
      "master's files: through the service nothing is removed, it only expires");
  command->add_option("SUBJECT", options->subject, "The subject's name, no pattern")->required();
  command->add_option("AUTHORITY", options->authority, "Only by this authority");
  command
      ->add_option("-t,--type", options->type,
                   "Only of this type: server, client, external, remotepull")
      ->type_name("TYPE");
  command->add_flag("-n,--dry-run", options->dryRun, "Only show what would go");
  command->add_flag("-y,--yes", options->yes, "Do not ask");
  command->add_flag("--json", options->json, "As JSON; with --yes or --dry-run");
  command->callback([options, &exitCode] { exitCode = forget(*options); });
}

} // namespace tqdiscoctl
