#include "tests/torture/FaultedService.h"

#include "tests/torture/DatabaseJudge.h"
#include "tests/torture/ServedOperations.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <thread>

namespace tqtorture
{
namespace
{

namespace fs = std::filesystem;
using tqtest::LiveService;

constexpr char START[] = "start of the service";
constexpr auto PATIENCE = std::chrono::seconds(100); // three request time-outs

Blow blowOf(Fault const& fault)
{
  return {.kills = fault.error.empty(),
          .leavesDoubt = fault.call == "fsync" || fault.call == "fdatasync",
          .leavesFiles = fault.call == "unlink" || fault.call == "rename"};
}

// strace beside a running process, until it is destroyed.
class Tracer
{
public:
  Tracer(pid_t pid, std::string const& trace, std::vector<std::string> words)
  {
    words.insert(words.begin(), {"-f", "-o", trace, "-p", std::to_string(pid)});
    m_process = std::make_unique<Process>("/usr/bin/strace", words);
    if (!m_process->awaitError(" attached", std::chrono::seconds(20)))
      throw std::runtime_error("cannot trace the service: " + m_process->errors());
  }
  ~Tracer()
  {
    m_process->sendSignal(SIGTERM); // it lets the service go
    // Where the service was killed it may wait for ever.
    if (!m_process->wait(std::chrono::seconds(1)))
      m_process->sendSignal(SIGKILL);
    m_process->wait();
  }

  Tracer(Tracer const&) = delete;
  Tracer& operator=(Tracer const&) = delete;

private:
  std::unique_ptr<Process> m_process;
};

class ServiceCampaign
{
public:
  ServiceCampaign(FaultOptions const& options, FaultReport& report)
      : m_options(options), m_report(report)
  {
  }

  void play()
  {
    for (auto const& operation : ServedOperations::all())
      if (operation.ends && m_options.wants(operation.name))
        playServed(operation);
    if (m_options.wants("stop"))
      playStop();
    if (m_options.wants(START))
      playStart();
  }

private:
  LiveService& service() { return m_operations.service(); }

  std::string traceFile() const { return m_folder / "trace"; }

  bool wants(Fault const& fault) const
  {
    return m_options.fault.empty() || m_options.fault == fault.text();
  }

  void playServed(ServedOperations::Operation const& operation)
  {
    m_operations.prepare();
    {
      Tracer const tracer(service().process().pid(), traceFile(), {"-y"});
      if (std::string const answer = m_operations.perform(operation); answer != operation.done)
        throw std::runtime_error(std::string(operation.name) + " without a fault: " + answer);
    }
    TracedCalls calls = countCalls(readText(traceFile()), "", "");
    calls.before.clear(); // the tracer came just before it
    for (Fault const& fault : chooseFaults(faultsIn(calls), m_options.most, m_options.seed))
      if (wants(fault))
        inject(operation, fault);
  }

  static std::vector<std::string> wordsOf(Fault const& fault)
  {
    return {"-e", "trace=" + fault.call, "-e", "inject=" + fault.injection()};
  }

  void inject(ServedOperations::Operation const& operation, Fault const& fault)
  {
    std::string const name = operation.name;
    m_operations.prepare();
    std::string answer;
    {
      Tracer const tracer(service().process().pid(), traceFile(), wordsOf(fault));
      answer = m_operations.perform(operation);
    }
    bool const kill = fault.error.empty();
    bool const dead = !service().process().running();
    if (kill ? !dead : readText(traceFile()).find("(INJECTED)") == std::string::npos)
    {
      m_report.missed(name);
      return;
    }
    std::vector<std::string> flaws;
    if (answer.starts_with("untrue: "))
      flaws.push_back(answer);
    std::string const log = service().log();
    int const code = service().process().exitCode();
    // With 0 it would end as if somebody had told it to.
    bool const inOrder = code == 1 && log.find("main: Stopped") != std::string::npos;
    if (dead && !kill && !inOrder)
      flaws.push_back("the service ended with " + std::to_string(code));
    if (dead || answer.starts_with("exception ")) // a writer may be left otherwise
      m_operations.restart();
    m_operations.judge(name, answer, operation.done, blowOf(fault), flaws);
    m_report.add(name, fault, kill ? "killed" : answer, flaws,
                 log.substr(log.size() - std::min<std::size_t>(log.size(), 1500)));
  }

  // The service ends in order, whatever fails.
  void playStop()
  {
    {
      Tracer const tracer(service().process().pid(), traceFile(), {"-y"});
      if (service().stop() != 0)
        throw std::runtime_error("a stop without a fault fails");
    }
    TracedCalls calls = countCalls(readText(traceFile()), "", "");
    calls.before.clear();
    m_operations.restart();
    for (Fault const& fault : chooseFaults(faultsIn(calls), m_options.most, m_options.seed))
    {
      if (!wants(fault))
        continue;
      m_operations.prepare();
      int code = 0;
      {
        Tracer const tracer(service().process().pid(), traceFile(), wordsOf(fault));
        service().process().sendSignal(SIGTERM);
        code = service().process().wait(PATIENCE) ? service().process().exitCode() : -1;
      }
      ended("stop", fault, code);
    }
  }

  void ended(std::string const& name, Fault const& fault, int code)
  {
    std::vector<std::string> flaws;
    bool const kill = fault.error.empty();
    if (code == -1)
    {
      flaws.push_back("it does not end");
      service().process().sendSignal(SIGKILL);
      service().process().wait();
    }
    else if (code >= 128 && !(kill && code == 128 + SIGKILL))
      flaws.push_back("it ends by signal " + std::to_string(code - 128));
    std::string const log = service().log();
    bool const hit = kill ? code == 128 + SIGKILL
                          : readText(traceFile()).find("(INJECTED)") != std::string::npos;
    if (code == 1 && log.find(" 1 ") == std::string::npos)
      flaws.push_back("it does not say why it ends");
    m_operations.restart();
    if (!hit)
    {
      m_report.missed(name);
      return;
    }
    m_operations.judge(name, "", "", blowOf(fault), flaws);
    m_report.add(name, fault, "ended with " + std::to_string(code), flaws, log);
  }

  // It serves, or says why it does not and ends.
  void playStart()
  {
    m_operations.prepare();
    m_operations.end();
    std::vector<std::string> const tracing{"/usr/bin/strace", "-D", "-I", "2", "-f", "-o",
                                           traceFile()};
    std::vector<std::string> recording(tracing);
    recording.insert(recording.end(), {"-y", "-s", "200"});
    leaveBehind();
    if (!service().start({}, recording) || service().stop() != 0)
      throw std::runtime_error("a start under a tracer fails: " + service().log());
    TracedCalls const calls = countCalls(readText(traceFile()), "tq.conf", "Started, version");
    for (Fault const& fault : chooseFaults(faultsIn(calls), m_options.most, m_options.seed))
    {
      if (!wants(fault))
        continue;
      leaveBehind();
      std::vector<std::string> words = tracing;
      for (std::string const& word : wordsOf(fault))
        words.push_back(word);
      startWith(fault, words);
    }
    m_operations.begin();
  }

  // What a killed service may have left, for the start to clean up.
  void leaveBehind() { writeText(service().database() + "/7.updating", "left"); }

  // What is asked of the service afterwards is to be answered without faults, which
  // a tracer injects into each thread.
  void endTracing()
  {
    std::string const status = "/proc/" + std::to_string(service().process().pid()) + "/status";
    auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    constexpr char TRACER[] = "TracerPid:\t";
    for (;;)
    {
      std::string const text = readText(status);
      auto const at = text.find(TRACER);
      pid_t const tracer =
          at == std::string::npos ? 0 : std::atoi(text.c_str() + at + sizeof TRACER - 1);
      if (tracer == 0)
        return;
      if (std::chrono::steady_clock::now() > end)
        throw std::runtime_error("the tracer of a start does not let go");
      kill(tracer, SIGTERM);
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }

  void startWith(Fault const& fault, std::vector<std::string> const& words)
  {
    bool const started = service().launch({}, words).awaitError("main: Started, version", PATIENCE);
    endTracing();
    if (fault.error.empty())
      return killedAtStart(fault);
    std::vector<std::string> flaws;
    std::string outcome;
    // Its manager would only start it again and again.
    bool const idle =
        service().log().find("Failed to initialize the discovery framework") != std::string::npos;
    if (started && idle)
      outcome = "up without serving, and said so";
    else if (started)
    {
      outcome = "served";
      if (std::string const found = m_operations.readAgain(); found != "read")
        flaws.push_back("it started, and then: " + found);
    }
    service().process().sendSignal(SIGTERM);
    int const code = service().process().wait(PATIENCE) ? service().process().exitCode() : -1;
    if (!started)
      outcome = "ended with " + std::to_string(code);
    if (code == -1)
    {
      flaws.push_back("it does not end");
      service().process().sendSignal(SIGKILL);
      service().process().wait();
    }
    else if (code >= 128 || (started && code != 0))
      flaws.push_back("it ends with " + std::to_string(code));
    std::string const log = service().log();
    if (!started && log.empty())
      flaws.push_back("it does not say why it ends");
    bool empty = false;
    if (std::string const state =
            stateOfWritten(service().database(), ServedOperations::subject(), empty);
        state != "whole " + std::to_string(m_operations.number()))
      flaws.push_back("there is: " + state);
    if (readText(traceFile()).find("(INJECTED)") == std::string::npos)
      m_report.missed(START);
    else
      m_report.add(START, fault, outcome, flaws, log);
  }

  // The next start does what this one has not come to.
  void killedAtStart(Fault const& fault)
  {
    service().process().sendSignal(SIGTERM); // where the call did not come
    bool const ended = service().process().wait(PATIENCE);
    if (!ended || service().process().exitCode() != 128 + SIGKILL)
      return m_report.missed(START);
    std::string log = service().log();
    std::vector<std::string> flaws;
    m_operations.begin();
    m_operations.judge(START, "", "", blowOf(fault), flaws);
    log += service().log();
    m_operations.end();
    m_report.add(START, fault, "killed", flaws, log);
  }

  FaultOptions const& m_options;
  FaultReport& m_report;
  TempDir m_folder;
  ServedOperations m_operations;
};

} // namespace

void faultService(FaultOptions const& options, FaultReport& report)
{
  try
  {
    ServiceCampaign(options, report).play();
  }
  catch (CORBA::Exception const& exception)
  {
    throw std::runtime_error(std::string("a call without a fault: ") + exception._name());
  }
}

} // namespace tqtorture
