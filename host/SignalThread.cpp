#include "host/SignalThread.h"

#include "host/HostLog.h"
#include "host/ManagerStatus.h"
#include "host/StartCheck.h"
#include "ozf/base/WakeUp.h"
#include "ozf/config/Configuration.h"
#include "ozf/config/ConfigurationKeys.h"
#include "ozf/log/AuditLog.h"
#include "ozf/log/Logger.h"
#include "ozf/orb/CallRights.h"
#include "ozf/orb/OrbService.h"

#include <chrono>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <exception>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <system_error>
#include <unistd.h>

namespace Host
{

using namespace Quillon::Tessarine::Ozf;

namespace
{

constexpr char SOURCE[] = "SignalThread";
constexpr char OPERATION[] = "SignalThread::take";

// Milliseconds after which the log is asked for floods that are over, although
// nobody writes a line, and the certificate is looked at.
constexpr int LOOK_PERIOD = 10000;
constexpr std::chrono::seconds RETRY_PAUSE(1);

void reloadTls()
{
  bool const wasOn = currentTls() != nullptr;
  std::string error;
  if (!setUpTls(error)) // its files were in order a moment ago
    OZF_LOG(getHostLogger(), 1, SOURCE, "SignalThread::reload", "TLS stays as it was: " << error);
  else if (wasOn && !currentTls())
    OZF_LOG(getHostLogger(), 1, SOURCE, "SignalThread::reload",
            "TLS is off from now on: nobody is asked for a certificate");
  else if (auto const context = currentTls())
    OZF_LOG(getHostLogger(), 1, SOURCE, "SignalThread::reload",
            "Took the certificate " << context->settings().certificate << ", which "
                                    << expiryText(context->certificate(), std::time(nullptr)));
}

void reloadCallRights()
{
  std::string error;
  if (!setUpCallRights(error))
    OZF_LOG(getHostLogger(), 1, SOURCE, "SignalThread::reload",
            "The lists of who may call stay as they were: " << error);
  else
    OZF_LOG(getHostLogger(), 1, SOURCE, "SignalThread::reload", "Took the lists of who may call");
}

// Between the two steps the TLS of one configuration stands beside the lists of the
// other, which may let in whom neither would alone: with lists of names in place of
// TLS, or the other way round, everybody. So the lists of both hold meanwhile.
void reloadTrust()
{
  std::string error; // is told by the last step
  tightenCallRights(error);
  reloadTls();
  reloadCallRights();
}

std::string joined(std::vector<std::string> const& words)
{
  std::string text;
  for (std::string const& word : words)
    text += (text.empty() ? "" : ", ") + word;
  return text;
}

sigset_t takenSignals()
{
  sigset_t set;
  sigemptyset(&set);
  for (int const signal : {SIGTERM, SIGINT, SIGHUP})
    sigaddset(&set, signal);
  return set;
}

} // namespace

void blockSignals()
{
  sigset_t const set = takenSignals();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
}

SignalThread::SignalThread(Options const& options) : m_options(options) {}

SignalThread::~SignalThread()
{
  if (!m_thread.joinable())
    return;
  m_ending = true;
  wakeUp(m_end.get());
  m_thread.join();
}

bool SignalThread::start(std::string& error)
{
  sigset_t const set = takenSignals();
  m_signals.reset(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
  int const signalFailure = errno;
  m_end.reset(eventfd(0, EFD_CLOEXEC));
  if (!m_signals.valid() || !m_end.valid())
  {
    error = "Unable to take signals: " + errorText(m_signals.valid() ? errno : signalFailure);
    return false;
  }
  try
  {
    m_thread = std::thread([this] { loop(); });
    return true;
  }
  catch (std::system_error const& failure)
  {
    error = std::string("Unable to start the signal thread: ") + failure.what();
    return false;
  }
}

void SignalThread::loop()
{
  pollfd waits[] = {{m_signals.get(), POLLIN, 0}, {m_end.get(), POLLIN, 0}};
  while (!m_ending)
  {
    if (poll(waits, 2, LOOK_PERIOD) < 0 && errno != EINTR)
    {
      OZF_LOG(getHostLogger(), 1, SOURCE, "SignalThread::loop",
              "Unable to wait for signals: " << errorText(errno) << ", trying again");
      std::this_thread::sleep_for(RETRY_PAUSE);
    }
    LoggerFactory::reportLeftOut();
    AuditLog::reportLeftOut();
    m_expiry.look(std::time(nullptr));
    signalfd_siginfo info{};
    while (read(m_signals.get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info))
      take(static_cast<int>(info.ssi_signo));
  }
}

void SignalThread::take(int signal)
{
  try
  {
    if (signal == SIGHUP)
    {
      reload();
      return;
    }
    OZF_LOG(getHostLogger(), 1, SOURCE, OPERATION,
            (m_stopping ? "Already stopping, took " : "Stopping, took ") << strsignal(signal));
    m_stopping = true;
    if (OrbService* const service = OrbService::Instance())
      service->stopByEvent(false);
  }
  catch (std::exception const& exception)
  {
    OZF_LOG(getHostLogger(), 1, SOURCE, OPERATION, "Caught exception: " << exception.what());
  }
}

void SignalThread::reload() const
{
  constexpr char const* RELOAD = "SignalThread::reload";
  auto const outcome = reloadServingConfiguration(mistakesForService);
  auto const configuration = getConfiguration();
  setUpLog(m_options, *configuration);
  setUpAudit(*configuration);
  OZF_LOG(getHostLogger(), 1, SOURCE, RELOAD, "Set the log up anew");
  for (auto const& problem : outcome.problems)
    OZF_LOG(getHostLogger(), 1, SOURCE, RELOAD,
            "The configuration is refused, what held before holds on: " << problem.text());
  if (!outcome.problems.empty())
    return;
  if (configuration->find(configKey("SERVER")) != nullptr)
    tellLacking("");
  reloadTrust();
  for (auto const& key : outcome.waiting)
    OZF_LOG(getHostLogger(), 1, SOURCE, RELOAD,
            key << " waits for the next start of the service, what it was holds on");
  OZF_LOG(getHostLogger(), 1, SOURCE, RELOAD,
          "Took the configuration, "
              << (outcome.changed.empty() ? "in which no value has changed"
                                          : "changed are " + joined(outcome.changed)));
}

} // namespace Host
