#include "tests/torture/DatabaseJudge.h"

#include "ozf/log/Logger.h"
#include "tests/torture/Versions.h"
#include "tools/DatabaseScan.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tqtorture
{
namespace
{

namespace fs = std::filesystem;

constexpr std::uint64_t MENDING = 99;
constexpr unsigned DEADLINE = 60; // seconds for one judgement

std::int64_t clockSeconds = 0;

std::string contentOf(std::string const& path)
{
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

// The number in a metadata text; 0 when it cannot be read as a document.
std::uint64_t numberIn(std::string const& directory, std::string const& text, std::string& digest)
{
  ozf::AutoDereference<svc::DBDiscovery> const record(new svc::DBDiscovery(
      ozf::OzfPathname(directory), new svc::DBCollectionData(ozf::OzfPathname(directory + "/")),
      svc::DQ_UNDEFINED));
  if (text.empty() || !record->load(text.c_str()) || record->getAttributes() == nullptr ||
      text.size() != std::strlen(text.c_str()))
    return 0;
  std::string const signature = record->getAttributes()->getSignature().str();
  auto const colon = signature.find(':');
  if (colon == std::string::npos)
    return 0;
  digest = signature.substr(colon + 1, signature.find(':', colon + 1) - colon - 1);
  return std::strtoull(signature.c_str(), nullptr, 10);
}

std::size_t temporariesIn(std::string const& directory)
{
  std::size_t count = 0;
  std::error_code ignored;
  for (auto const& entry : fs::directory_iterator(directory, ignored))
    count += entry.path().extension() == ".updating";
  return count;
}

// What a reader gets: the version's number, or 0 for nothing.
std::uint64_t numberRead(std::string const& subject)
{
  int error = 0;
  ozf::AutoDereference<svc::Discovery> const record(
      svc::getDiscoveryDBDatabase()->getDiscovery(fileOf(subject, "xml").c_str(), true, error));
  if (!record || record->getAttributes() == nullptr ||
      record->open(svc::OM_READ, "") != svc::DS_SUCCESS)
    return 0;
  std::string payload;
  std::array<char, 4096> buffer;
  for (long n; (n = record->getCollectionData()->readCollection(buffer.size(), buffer.data())) > 0;)
    payload.append(buffer.data(), static_cast<std::size_t>(n));
  std::uint64_t number = 0;
  return tqtest::flawOf(payload, subject, number).empty() ? number : 0;
}

void look(Judged const& judged, Verdict& verdict)
{
  setenv("TESSARINE_ROOT", judged.root.c_str(), 1);
  useFixedClock();
  auto* const database = svc::getDiscoveryDBDatabase();
  database->init("");
  std::string const directory = database->getDirectory();

  if (std::size_t const left = temporariesIn(directory); left != 0)
    verdict.flaws.push_back("the start leaves " + std::to_string(left) + " temporary files");
  verdict.kind = stateOf(directory, judged.subject);
  bool const whole = verdict.kind.starts_with("whole");

  tqdiscoctl::DatabaseContents contents;
  tqdiscoctl::scanDatabase(directory, contents);
  for (auto const& [file, reason] : contents.problems)
  {
    if (file == fileOf(judged.subject, "xml") || file == fileOf(judged.subject, "dat"))
      verdict.named = true;
    else
      verdict.flaws.push_back(file + " " + reason);
  }
  if (verdict.named && (whole || verdict.kind == "nothing"))
    verdict.flaws.push_back("\"db verify\" complains of what is sound");
  if (!judged.bystander.empty())
    if (std::string const state = stateOf(directory, judged.bystander); state != "whole 7")
      verdict.flaws.push_back("another discovery: " + state);
  if (!judged.expired)
  {
    std::uint64_t const read = numberRead(judged.subject);
    bool const agrees =
        whole ? verdict.kind == "whole " + std::to_string(read)
              : read == 0 || verdict.kind == "mixed" || verdict.kind == "torn payload";
    if (!agrees)
      verdict.flaws.push_back("a reader gets " + std::to_string(read) + " of \"" + verdict.kind +
                              "\"");
  }

  svc::DiscoveryStatus const status =
      storeVersion(judged.subject, {.number = MENDING, .signatureSize = 60, .priority = 10});
  contents = {};
  tqdiscoctl::scanDatabase(directory, contents);
  verdict.mended = status == svc::DS_SUCCESS && contents.problems.empty() &&
                   stateOf(directory, judged.subject) == "whole " + std::to_string(MENDING) &&
                   temporariesIn(directory) == 0;
}

std::string logOf(Judged const& judged) { return judged.root + ".log"; }

std::string lineOf(Verdict const& verdict)
{
  std::string line = verdict.kind + '\n' + (verdict.named ? "named" : "unnamed") + '\n' +
                     (verdict.mended ? "mended" : "not mended") + '\n';
  for (std::string const& flaw : verdict.flaws)
    line += flaw + '\n';
  return line;
}

Verdict verdictOf(std::string const& text, int status)
{
  Verdict verdict;
  std::istringstream lines(text);
  std::string line;
  std::getline(lines, verdict.kind);
  std::getline(lines, line);
  verdict.named = line == "named";
  std::getline(lines, line);
  verdict.mended = line == "mended";
  while (std::getline(lines, line))
    verdict.flaws.push_back(line);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
  {
    verdict.kind = verdict.kind.empty() ? "crash" : verdict.kind;
    verdict.flaws.push_back(
        WIFSIGNALED(status)
            ? "the judging process ended by signal " + std::to_string(WTERMSIG(status))
            : "the judging process ended with " + std::to_string(WEXITSTATUS(status)));
  }
  return verdict;
}

} // namespace

std::string stateOf(std::string const& directory, std::string const& subject)
{
  std::string const metadata = directory + "/" + fileOf(subject, "xml");
  std::string const payload = directory + "/" + fileOf(subject, "dat");
  bool const hasPayload = fs::exists(payload);
  if (!fs::exists(metadata))
    return hasPayload ? "payload alone" : "nothing";
  std::string digest;
  std::uint64_t const number = numberIn(directory, contentOf(metadata), digest);
  if (number == 0)
    return "unreadable";
  if (!hasPayload)
    return "no payload";
  std::string const bytes = contentOf(payload);
  std::uint64_t of = 0;
  if (!tqtest::flawOf(bytes, subject, of).empty())
    return "torn payload";
  return of == number && std::to_string(tqtest::sealOf(bytes)) == digest
             ? "whole " + std::to_string(number)
             : "mixed";
}

std::string stateOfWritten(std::string const& directory, std::string const& subject, bool& empty)
{
  std::string const metadata = directory + "/" + fileOf(subject, "xml");
  std::string const payload = directory + "/" + fileOf(subject, "dat");
  empty = false;
  if (!fs::exists(metadata))
    return fs::exists(payload) ? "payload alone" : "nothing";
  std::string const text = contentOf(metadata);
  empty = text.empty();
  ozf::AutoDereference<svc::DBDiscovery> const record(new svc::DBDiscovery(
      ozf::OzfPathname(directory), new svc::DBCollectionData(ozf::OzfPathname(directory + "/")),
      svc::DQ_UNDEFINED));
  if (empty || !record->load(text.c_str()) || record->getAttributes() == nullptr)
    return "unreadable";
  if (!fs::exists(payload))
    return "no payload";
  std::uint64_t number = 0;
  if (!tqtest::flawOf(contentOf(payload), subject, number).empty())
    return "torn payload";
  return record->getAttributes()->getDiscoveryTime().seconds() == static_cast<std::int64_t>(number)
             ? "whole " + std::to_string(number)
             : "mixed";
}

void useFixedClock(long secondsBefore)
{
  // Some moment; all documents get times of the same length that way.
  clockSeconds = 1795312800 - secondsBefore;
  ozf::OzfObjTime::setClock([] { return ozf::OzfObjTime(clockSeconds); });
}

void warmUp()
{
  std::string digest;
  ozf::LoggerFactory::setLevel(0);
  numberIn("/", "<DiscoveryData/>", digest);
  ozf::LoggerFactory::setLevel(1);
}

Verdict judgeDatabase(Judged const& judged)
{
  std::fflush(nullptr);
  int channel[2];
  if (pipe(channel) != 0)
    std::abort();
  pid_t const pid = fork();
  if (pid < 0)
    std::abort();
  if (pid == 0)
  {
    close(channel[0]);
    alarm(DEADLINE);
    // The library's lines, and a sanitizer's.
    int const log = creat(logOf(judged).c_str(), 0600);
    if (log < 0 || dup2(log, STDERR_FILENO) < 0)
      _exit(3);
    Verdict verdict;
    look(judged, verdict);
    std::string const text = lineOf(verdict);
    bool const said =
        write(channel[1], text.data(), text.size()) == static_cast<ssize_t>(text.size());
    _exit(said ? 0 : 3);
  }
  close(channel[1]);
  std::string text;
  std::array<char, 4096> buffer;
  for (ssize_t n; (n = read(channel[0], buffer.data(), buffer.size())) > 0;)
    text.append(buffer.data(), static_cast<std::size_t>(n));
  close(channel[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  Verdict verdict = verdictOf(text, status);
  verdict.log = contentOf(logOf(judged));
  return verdict;
}

} // namespace tqtorture
