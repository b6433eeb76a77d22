#include "ozf/orb/OrbService.h"

#include "ozf/base/SystemError.h"
#include "ozf/base/WakeUp.h"

#include <sys/eventfd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <exception>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace Quillon::Tessarine::Ozf
{

namespace
{

constexpr char SOURCE[] = "OrbService";
constexpr char MAIN[] = "OrbService::main";

std::atomic<OrbService*> theService{nullptr};

} // namespace

OrbService::OrbService(std::string const& name, int originator, OzfLogger* log, bool debug,
                       std::string const& description, bool, long capacity,
                       ACE_Timer_Queue* timerQueue)
    : m_name(name),
      m_description(description),
      m_logger(log != nullptr ? log : LoggerFactory::getLogger(originator)),
      m_debug(debug),
      m_orb(new Orb(1, "", name, 1, capacity)),
      m_stopEvent(eventfd(0, EFD_CLOEXEC))
{
  if (m_stopEvent < 0)
    throw std::system_error(errno, std::generic_category(), "eventfd");
  m_orb->setTimerQueue(timerQueue);
  theService = this;
}

OrbService::~OrbService()
{
  OrbService* expected = this;
  theService.compare_exchange_strong(expected, nullptr);
  m_orb.reset();
  close(m_stopEvent);
}

OrbService* OrbService::Instance() noexcept { return theService; }

void OrbService::stopByEvent(bool) { wakeUp(m_stopEvent); }

void OrbService::tellStatus(std::string const& text) const
{
  if (m_events.status != nullptr)
    m_events.status(text);
}

void OrbService::waitForStop() const
{
  constexpr int MOST_FAILURES = 100;
  constexpr auto BETWEEN_LOOKS = std::chrono::milliseconds(50);
  std::uint64_t count = 0;
  // Nobody has asked for a stop when the system fails the question.
  int failures = 0;
  while (read(m_stopEvent, &count, sizeof count) < 0 && failures < MOST_FAILURES)
    if (errno != EINTR)
    {
      OZF_LOG(m_logger, 1, SOURCE, MAIN,
              "Unable to wait for the stop: " << errorText(errno) << ", trying again");
      ++failures;
      std::this_thread::sleep_for(BETWEEN_LOOKS);
    }
}

bool OrbService::runHook(char const* hook, int (OrbService::*operation)())
{
  try
  {
    int const result = (this->*operation)();
    if (result == 0)
      return true;
    OZF_LOG(m_logger, 1, SOURCE, MAIN, m_name << ": " << hook << " failed with " << result);
  }
  catch (CORBA::Exception const& exception)
  {
    OZF_LOG(m_logger, 1, SOURCE, MAIN,
            m_name << ": caught CORBA exception in " << hook << ": "
                   << corbaExceptionText(exception));
  }
  catch (std::exception const& exception)
  {
    OZF_LOG(m_logger, 1, SOURCE, MAIN,
            m_name << ": caught exception in " << hook << ": " << exception.what());
  }
  catch (...)
  {
    OZF_LOG(m_logger, 1, SOURCE, MAIN, m_name << ": caught an unknown exception in " << hook);
  }
  return false;
}

int OrbService::shouldStartHook()
{
  m_shouldStart = doShouldStart();
  return 0;
}

int OrbService::startOrbHook() { return m_orb->init() && m_orb->run(0) == 0 ? 0 : -1; }

int OrbService::stopOrbHook()
{
  m_orb->shutdown();
  return 0;
}

int OrbService::main(Events const& events, bool& started)
{
  started = false;
  m_events = events;
  if (!runHook("doShouldStart", &OrbService::shouldStartHook))
    return START_FAILED;
  if (!m_shouldStart)
    return ORDERLY;
  if (!runHook("the start of the ORB", &OrbService::startOrbHook))
  {
    runHook("the stop of the ORB", &OrbService::stopOrbHook);
    return START_FAILED;
  }
  bool const up = runHook("doInit", &OrbService::doInit) && runHook("doRun", &OrbService::doRun);
  if (up)
  {
    started = true;
    if (events.ready != nullptr)
      events.ready();
    waitForStop();
    if (events.stopping != nullptr)
      events.stopping();
  }
  // What doInit left half done is taken down the same way.
  bool orderly = runHook("doStop", &OrbService::doStop);
  orderly = runHook("doExit", &OrbService::doExit) && orderly;
  if (!m_leavesThreads)
    orderly = runHook("the stop of the ORB", &OrbService::stopOrbHook) && orderly;
  if (!up)
    return START_FAILED;
  return orderly ? ORDERLY : STOP_FAILED;
}

int OrbService::doInit() { return 0; }

int OrbService::doRun() { return 0; }

int OrbService::doStop() { return 0; }

int OrbService::doExit() { return 0; }

bool OrbService::doShouldStart() { return true; }

} // namespace Quillon::Tessarine::Ozf
