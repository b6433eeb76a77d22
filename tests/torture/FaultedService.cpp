#include "tests/torture/FaultedService.h"

#include "tests/support/LiveService.h"
#include "tests/support/RemoteClient.h"
#include "tests/support/SealedPayload.h"
#include "tests/torture/DatabaseJudge.h"
#include "tests/torture/Versions.h"
#include "tools/DatabaseScan.h"

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
using namespace tqtest::client;

constexpr char SERVED[] = "served";
constexpr char BESIDE[] = "beside";
constexpr char GONE[] = "gone";
constexpr std::size_t PAYLOAD = 3000;
constexpr auto PATIENCE = std::chrono::seconds(100); // three request time-outs

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
    setenv("ASAN_OPTIONS", "detect_leaks=0", 1); // inherited by the service
    useWallClock();
    begin();
  }
  ~ServiceCampaign() { end(); }
  ServiceCampaign(ServiceCampaign const&) = delete;
  ServiceCampaign& operator=(ServiceCampaign const&) = delete;

  void play()
  {
    using Action = std::string (ServiceCampaign::*)();
    struct
    {
      char const* name;
      Action act;
      char const* done;
    } const operations[] = {{"served put", &ServiceCampaign::put, "stored"},
                            {"served read", &ServiceCampaign::read, "read"},
                            {"served list", &ServiceCampaign::list, "listed"},
                            {"served expiry", &ServiceCampaign::expire, "listed"},
                            {"registration", &ServiceCampaign::registerPull, "registered"},
                            {"connection", &ServiceCampaign::connectAnew, "connected"}};
    for (auto const& operation : operations)
      if (m_options.wants(operation.name))
        playServed(
            operation.name, [&] { return (this->*operation.act)(); }, operation.done);
    if (m_options.wants("stop"))
      playStop();
    if (m_options.wants("start of the service"))
      playStart();
  }

private:
  void useWallClock() { ozf::OzfObjTime::setClock(nullptr); }

  void begin()
  {
    if (!m_service.start())
      throw std::runtime_error("the service does not start: " + m_service.log());
    m_client = std::make_unique<Client>(m_service.root(), LiveService::NAME);
    if (!m_client->connected())
      throw std::runtime_error("the service does not answer: " + m_service.log());
    if (m_client->store(BESIDE, AUTHORITY, tqtest::sealedPayload(BESIDE, 7, PAYLOAD)) != DS_SUCCESS)
      throw std::runtime_error("the service does not store");
  }

  void end()
  {
    m_client.reset();
    if (m_service.process().running())
      m_service.stop();
  }

  // Whatever a call ends with.
  template <class Call>
  static std::string answerOf(Call const& call)
  {
    try
    {
      return call();
    }
    catch (CORBA::Exception const& exception)
    {
      return std::string("exception ") + exception._name();
    }
  }

  DiscoveryStatus storeNumber(char const* subject, std::uint64_t number, CORBA::ULongLong lifetime)
  {
    Remote::Discovery record = makeRecord(subject, AUTHORITY);
    record.attributes.discoveryTime = static_cast<CORBA::ULongLong>(number);
    record.attributes.timeToLive = lifetime;
    return m_client->store(record, tqtest::sealedPayload(subject, number, PAYLOAD));
  }

  std::string put()
  {
    DiscoveryStatus const status = storeNumber(SERVED, m_number + 1, 3600);
    return status == DS_SUCCESS ? "stored" : "refused " + std::to_string(status);
  }

  std::string read()
  {
    std::string const payload = m_client->read(SERVED, AUTHORITY);
    if (payload.rfind("(status ", 0) == 0)
      return payload;
    std::uint64_t number = 0;
    std::string const flaw = tqtest::flawOf(payload, SERVED, number);
    return flaw.empty() && number == m_number ? "read" : "untrue: read what is " + flaw;
  }

  std::string list()
  {
    std::multiset<std::string> const found = m_client->subjects(AUTHORITY);
    if (found.count(SERVED) == 1 && found.count(BESIDE) == 1)
      return "listed";
    return "untrue: " + std::to_string(found.size()) + " listed";
  }

  // What has expired goes when it is met.
  std::string expire() { return list(); }

  std::string registerPull()
  {
    (*m_client)->registerExplorer(LiveService::NAME, "DiscoveryService", "pulled", "puller",
                                  AT_REMOTEPULL, 3);
    return "registered";
  }

  std::string connectAnew()
  {
    m_client.reset();
    m_client = std::make_unique<Client>(m_service.root(), LiveService::NAME);
    return m_client->connected() ? "connected" : "refused";
  }

  // What is there before each operation.
  void prepare()
  {
    if (!m_client->connected() && !m_client->connect())
      restart();
    if (storeNumber(SERVED, ++m_number, 3600) != DS_SUCCESS ||
        storeNumber(GONE, m_number, 0) != DS_SUCCESS)
      throw std::runtime_error("the service refuses what comes before: " + m_service.log());
  }

  std::string traceFile() const { return m_folder / "trace"; }

  template <class Operation>
  void playServed(std::string const& name, Operation const& operation, std::string const& done)
  {
    prepare();
    {
      Tracer const tracer(m_service.process().pid(), traceFile(), {"-y"});
      if (std::string const answer = answerOf(operation); answer != done)
        throw std::runtime_error(name + " without a fault: " + answer);
    }
    TracedCalls calls = countCalls(readText(traceFile()), "", "");
    calls.before.clear(); // the tracer came just before it
    for (Fault const& fault : chooseFaults(faultsIn(calls), m_options.most, m_options.seed))
      if (m_options.fault.empty() || m_options.fault == fault.text())
        inject(name, operation, done, fault);
  }

  static std::vector<std::string> wordsOf(Fault const& fault)
  {
    return {"-e", "trace=" + fault.call, "-e", "inject=" + fault.injection()};
  }

  template <class Operation>
  void inject(std::string const& name, Operation const& operation, std::string const& done,
              Fault const& fault)
  {
    prepare();
    std::string answer;
    {
      Tracer const tracer(m_service.process().pid(), traceFile(), wordsOf(fault));
      answer = answerOf(operation);
    }
    bool const kill = fault.error.empty();
    bool const dead = !m_service.process().running();
    if (kill ? !dead : readText(traceFile()).find("(INJECTED)") == std::string::npos)
    {
      m_report.missed(name);
      return;
    }
    std::vector<std::string> flaws;
    if (answer.starts_with("untrue: "))
      flaws.push_back(answer);
    std::string const log = m_service.log();
    int const code = m_service.process().exitCode();
    bool const inOrder = code <= 1 && log.find("main: Stopped") != std::string::npos;
    if (dead && !kill && !inOrder)
      flaws.push_back("the service ended with " + std::to_string(code));
    if (dead || answer.starts_with("exception ")) // a writer may be left otherwise
      restart();
    judge(name, answer, done, fault, flaws);
    m_report.add(name, fault, kill ? "killed" : answer, flaws,
                 log.substr(log.size() - std::min<std::size_t>(log.size(), 1500)));
  }

  void restart()
  {
    end();
    begin();
  }

  // Without faults now.
  void judge(std::string const& name, std::string const& answer, std::string const& done,
             Fault const& fault, std::vector<std::string>& flaws)
  {
    if (!m_client->connected() && !m_client->connect())
    {
      flaws.push_back("the service cannot be reached any more");
      restart();
    }
    bool empty = false;
    std::string const state = stateOfWritten(m_service.database(), SERVED, empty);
    std::string const old = "whole " + std::to_string(m_number);
    std::string const next = "whole " + std::to_string(m_number + 1);
    bool const isPut = name == "served put";
    bool const flush = fault.call == "fsync" || fault.call == "fdatasync";
    bool const unknown = answer.starts_with("exception ") || flush;
    bool const right = !isPut           ? state == old
                       : answer == done ? state == next
                       : unknown        ? state == old || state == next
                                        : state == old;
    if (!right)
      flaws.push_back("answered \"" + answer + "\", and there is: " + state);
    if (state == next)
      ++m_number;
    if (std::string const found = answerOf([&] { return list(); }); found != "listed")
      flaws.push_back("afterwards: " + found);
    if (std::string const found = answerOf([&] { return read(); }); right && found != "read")
      flaws.push_back("afterwards: " + found);
    tqdiscoctl::DatabaseContents contents;
    tqdiscoctl::scanDatabase(m_service.database(), contents);
    for (auto const& [file, reason] : contents.problems)
      flaws.push_back(file + " " + reason);
    if (!contents.temporaryFiles.empty())
    {
      if (fault.call != "unlink" && fault.call != "rename")
        flaws.push_back("a temporary file stays");
      restart();
    }
    if (!flaws.empty() && !contents.problems.empty())
      mend();
  }

  // So that one failure is not told of again by those that follow.
  void mend()
  {
    end();
    fs::remove_all(m_service.database());
    begin();
  }

  // The service ends in order, whatever fails.
  void playStop()
  {
    {
      Tracer const tracer(m_service.process().pid(), traceFile(), {"-y"});
      if (m_service.stop() != 0)
        throw std::runtime_error("a stop without a fault fails");
    }
    TracedCalls calls = countCalls(readText(traceFile()), "", "");
    calls.before.clear();
    restart();
    for (Fault const& fault : chooseFaults(faultsIn(calls), m_options.most, m_options.seed))
    {
      if (fault.error.empty() || (!m_options.fault.empty() && m_options.fault != fault.text()))
        continue;
      prepare();
      int code = 0;
      {
        Tracer const tracer(m_service.process().pid(), traceFile(), wordsOf(fault));
        m_service.process().sendSignal(SIGTERM);
        code = m_service.process().wait(PATIENCE) ? m_service.process().exitCode() : -1;
      }
      ended("stop", fault, code);
    }
  }

  void ended(std::string const& name, Fault const& fault, int code)
  {
    std::vector<std::string> flaws;
    if (code == -1)
    {
      flaws.push_back("it does not end");
      m_service.process().sendSignal(SIGKILL);
      m_service.process().wait();
    }
    else if (code >= 128)
      flaws.push_back("it ends by signal " + std::to_string(code - 128));
    std::string const log = m_service.log();
    bool const hit = readText(traceFile()).find("(INJECTED)") != std::string::npos;
    if (code == 1 && log.find(" 1 ") == std::string::npos)
      flaws.push_back("it does not say why it ends");
    restart();
    if (!hit)
    {
      m_report.missed(name);
      return;
    }
    judge(name, "", "", fault, flaws);
    m_report.add(name, fault, "ended with " + std::to_string(code), flaws, log);
  }

  // It serves, or says why it does not and ends.
  void playStart()
  {
    prepare();
    end();
    std::vector<std::string> const tracing{"/usr/bin/strace", "-D", "-I", "2", "-f", "-o",
                                           traceFile()};
    std::vector<std::string> recording(tracing);
    recording.insert(recording.end(), {"-y", "-s", "200"});
    if (!m_service.start({}, recording) || m_service.stop() != 0)
      throw std::runtime_error("a start under a tracer fails: " + m_service.log());
    TracedCalls const calls = countCalls(readText(traceFile()), "tq.conf", "Started, version");
    for (Fault const& fault : chooseFaults(faultsIn(calls), m_options.most, m_options.seed))
    {
      if (fault.error.empty() || (!m_options.fault.empty() && m_options.fault != fault.text()))
        continue;
      std::vector<std::string> words = tracing;
      for (std::string const& word : wordsOf(fault))
        words.push_back(word);
      startWith(fault, words);
    }
    begin();
  }

  // What is asked of the service afterwards is to be answered without faults, which
  // a tracer injects into each thread.
  void endTracing()
  {
    std::string const status = "/proc/" + std::to_string(m_service.process().pid()) + "/status";
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
    bool const started = m_service.launch({}, words).awaitError("main: Started, version", PATIENCE);
    endTracing();
    std::vector<std::string> flaws;
    std::string outcome;
    // Its manager would only start it again and again.
    bool const idle =
        m_service.log().find("Failed to initialize the discovery framework") != std::string::npos;
    if (started && idle)
      outcome = "up without serving, and said so";
    else if (started)
    {
      outcome = "served";
      m_client = std::make_unique<Client>(m_service.root(), LiveService::NAME);
      for (auto const& found :
           {answerOf([&] { return std::string(m_client->connected() ? "read" : "no connection"); }),
            answerOf([&] { return read(); })})
        if (found != "read")
          flaws.push_back("it started, and then: " + found);
      m_client.reset();
    }
    m_service.process().sendSignal(SIGTERM);
    int const code = m_service.process().wait(PATIENCE) ? m_service.process().exitCode() : -1;
    if (!started)
      outcome = "ended with " + std::to_string(code);
    if (code == -1)
    {
      flaws.push_back("it does not end");
      m_service.process().sendSignal(SIGKILL);
      m_service.process().wait();
    }
    else if (code >= 128 || (started && code != 0))
      flaws.push_back("it ends with " + std::to_string(code));
    std::string const log = m_service.log();
    if (!started && log.empty())
      flaws.push_back("it does not say why it ends");
    bool empty = false;
    if (std::string const state = stateOfWritten(m_service.database(), SERVED, empty);
        state != "whole " + std::to_string(m_number))
      flaws.push_back("there is: " + state);
    if (readText(traceFile()).find("(INJECTED)") == std::string::npos)
      m_report.missed("start of the service");
    else
      m_report.add("start of the service", fault, outcome, flaws, log);
  }

  FaultOptions const& m_options;
  FaultReport& m_report;
  TempDir m_folder;
  LiveService m_service;
  std::unique_ptr<Client> m_client;
  std::uint64_t m_number = 0; // of what is stored
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
