#include "tests/torture/FaultedLibrary.h"

#include "tests/support/LiveService.h"
#include "tests/torture/DatabaseJudge.h"
#include "tests/torture/Scenarios.h"
#include "tests/torture/Versions.h"

#include <filesystem>
#include <functional>
#include <stdexcept>

#include <sys/wait.h>
#include <unistd.h>

namespace tqtorture
{
namespace
{

namespace fs = std::filesystem;

struct FaultedOperation
{
  std::string name;
  std::vector<std::string> words; // of fault_operation
  std::function<void()> before;   // in a process of its own
  std::string old;                // state of the subject before
  std::string done;               // its answer when nothing fails
  std::string after;              // and the state then
  bool expired = false;
};

void begin() { svc::getDiscoveryDBDatabase()->init(""); }

void mustBeStored(std::string const& subject, Version const& version)
{
  if (storeVersion(subject, version) != svc::DS_SUCCESS)
    throw std::runtime_error("cannot store");
}

void storeBoth()
{
  begin();
  mustBeStored(BYSTANDER, {.number = 7});
  mustBeStored(SUBJECT, {.number = 1});
}

void storeHigher()
{
  begin();
  mustBeStored(BYSTANDER, {.number = 7});
  mustBeStored(SUBJECT, {.number = 1, .priority = 5});
}

void storeOld()
{
  begin();
  mustBeStored(BYSTANDER, {.number = 7});
  useFixedClock(86400);
  mustBeStored(SUBJECT, {.number = 1, .validSeconds = 60});
}

void storeBothAndLeftover()
{
  storeBoth();
  std::ofstream(svc::getDiscoveryDBDatabase()->getDirectory() + "/0.updating") << "left";
}

std::vector<FaultedOperation> operations()
{
  std::string const refused = "refused " + std::to_string(svc::DS_DATA_EXISTS);
  return {
      {"put",
       {"put", "2"},
       []
       {
         begin();
         mustBeStored(BYSTANDER, {.number = 7});
       },
       "nothing",
       "stored",
       "whole 2"},
      {"replace", {"put", "2"}, storeBoth, "whole 1", "stored", "whole 2"},
      {"refused put", {"put", "2"}, storeHigher, "whole 1", refused, "whole 1"},
      {"read", {"read"}, storeBoth, "whole 1", "read 1", "whole 1"},
      {"list", {"list"}, storeBoth, "whole 1", "listed 2 complete", "whole 1"},
      {"expire", {"list"}, storeOld, "whole 1", "listed 1 complete", "nothing", true},
      {"start", {"start"}, storeBothAndLeftover, "whole 1", "started", "whole 1"},
      {"start of a new database", {"start"}, nullptr, "nothing", "started", "nothing"},
  };
}

class LibraryCampaign
{
public:
  LibraryCampaign(FaultOptions const& options, FaultReport& report)
      : m_options(options), m_report(report)
  {
    setenv("TESSARINE_ROOT", m_root.c_str(), 1);
    // It cannot look for leaks where there is a tracer.
    setenv("ASAN_OPTIONS", "detect_leaks=0", 1);
    useFixedClock();
    warmUp();
  }

  void play(FaultedOperation const& operation)
  {
    prepare(operation);
    m_before = loadImage(m_root);
    TracedCalls const calls = trace(operation);
    for (Fault const& fault : chooseFaults(faultsIn(calls), m_options.most, m_options.seed))
      if (m_options.fault.empty() || m_options.fault == fault.text())
        inject(operation, fault);
  }

private:
  void prepare(FaultedOperation const& operation)
  {
    storeImage({}, m_root);
    if (!operation.before)
      return;
    std::fflush(nullptr);
    pid_t const pid = fork();
    if (pid == 0)
    {
      bool const silent = std::freopen("/dev/null", "w", stderr) != nullptr;
      operation.before();
      _exit(silent ? 0 : 1);
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid || status != 0)
      throw std::runtime_error("what is there before " + operation.name + " cannot be made");
  }

  tqtest::Outcome traced(FaultedOperation const& operation, std::vector<std::string> words)
  {
    std::error_code none;
    fs::remove(m_trace, none);
    words.insert(words.end(), {"-o", m_trace, TQ_BIN_DIR "/fault_operation"});
    words.insert(words.end(), operation.words.begin(), operation.words.end());
    return tqtest::runProgram("/usr/bin/strace", words);
  }

  TracedCalls trace(FaultedOperation const& operation)
  {
    tqtest::Outcome const outcome = traced(operation, {"-f", "-y"});
    if (outcome.exitCode != 0 || outcome.output != operation.done + "\n")
      throw std::runtime_error(operation.name + " without a fault: " + outcome.output +
                               outcome.errors);
    return countCalls(readText(m_trace), "/torture/begin", "/torture/end");
  }

  void inject(FaultedOperation const& operation, Fault const& fault)
  {
    storeImage(m_before, m_root);
    tqtest::Outcome const outcome =
        traced(operation, {"-f", "-e", "trace=" + fault.call, "-e", "inject=" + fault.injection()});
    bool const kill = fault.error.empty();
    bool const hit = kill ? outcome.exitCode == 128 + SIGKILL
                          : readText(m_trace).find("(INJECTED)") != std::string::npos;
    if (!hit)
    {
      m_report.missed(operation.name);
      return;
    }
    std::string answer = outcome.output.substr(0, outcome.output.find('\n'));
    std::vector<std::string> flaws;
    if (kill)
      answer = "killed";
    else if (outcome.exitCode != 0 || answer.empty())
    {
      answer = "ended with " + std::to_string(outcome.exitCode);
      flaws.push_back("the process does not survive it");
    }
    else
      checkAnswer(operation, answer, fault, flaws);
    judge(operation, answer, fault, flaws);
    m_report.add(operation.name, fault, answer, flaws, outcome.errors);
  }

  // What can be seen of the answer and of the files at once.
  void checkAnswer(FaultedOperation const& operation, std::string const& answer, Fault const& fault,
                   std::vector<std::string>& flaws) const
  {
    bool const admits = answer == "failed" || answer == "no memory" ||
                        answer.ends_with(" incomplete") || answer.starts_with("refused ");
    if (answer != operation.done && !admits)
      flaws.push_back("untrue: " + answer);
    if (answer.starts_with("refused ") && operation.words[0] != "put")
      flaws.push_back("no answer of this operation");
    // Unless the removal itself is what failed, or the renaming, which leaves the
    // temporary file to the next start.
    if (fault.call == "unlink" || fault.call == "rename" || operation.words[0] == "start")
      return;
    std::error_code none;
    for (auto const& entry : fs::directory_iterator(m_database, none))
    {
      if (entry.path().extension() == ".updating")
        flaws.push_back("a temporary file stays");
      if (entry.path().extension() == ".xml" && entry.file_size() == 0)
        flaws.push_back("an empty metadata file stays");
    }
  }

  // What the next start finds.
  void judge(FaultedOperation const& operation, std::string const& answer, Fault const& fault,
             std::vector<std::string>& flaws) const
  {
    if (operation.expired)
    {
      judgeExpiry(flaws);
      return;
    }
    bool const hasBystander = operation.before != nullptr;
    Verdict const verdict = judgeDatabase({m_root, SUBJECT, hasBystander ? BYSTANDER : "", false});
    flaws.insert(flaws.end(), verdict.flaws.begin(), verdict.flaws.end());
    if (!verdict.mended)
      flaws.push_back("the next write does not make it whole");
    bool const isOld = verdict.kind == operation.old;
    bool const isNew = verdict.kind == operation.after;
    // Killed before its first metadata was written.
    bool const isEmpty = answer == "killed" && operation.old == "nothing" &&
                         verdict.kind == "unreadable" && verdict.named;
    // The disk did not take what was in place already.
    bool const flush = fault.call == "fsync" || fault.call == "fdatasync";
    bool const right = answer == operation.done      ? isNew
                       : answer == "killed" || flush ? isOld || isNew || isEmpty
                                                     : isOld;
    if (!right)
      flaws.push_back("answered \"" + answer + "\", and there is: " + verdict.kind);
  }

  // What could not be deleted is deleted the next time.
  void judgeExpiry(std::vector<std::string>& flaws) const
  {
    tqtest::Outcome const again = tqtest::runProgram(TQ_BIN_DIR "/fault_operation", {"list"});
    if (again.output != "listed 1 complete\n")
      flaws.push_back("the next walk answers: " + again.output.substr(0, 60));
    if (std::string const state = stateOf(m_database, SUBJECT); state != "nothing")
      flaws.push_back("after the next walk there is: " + state);
  }

  FaultOptions const& m_options;
  FaultReport& m_report;
  TempDir m_folder;
  std::string const m_root = m_folder / "root";
  std::string const m_database = m_root + "/db/discovery";
  std::string const m_trace = m_folder / "trace";
  Image m_before;
};

} // namespace

void faultLibrary(FaultOptions const& options, FaultReport& report)
{
  LibraryCampaign campaign(options, report);
  for (FaultedOperation const& operation : operations())
    if (options.wants(operation.name))
      campaign.play(operation);
}

} // namespace tqtorture
