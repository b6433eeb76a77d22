#include "ozf/orb/Orb.h"

#include "ozf/base/LineIfMemory.h"
#include "ozf/base/SpareMemory.h"
#include "ozf/config/HostRole.h"
#include "ozf/log/FrameworkLogger.h"
#include "ozf/orb/CorbaProcess.h"
#include "ozf/orb/ObjectKey.h"
#include "ozf/orb/OrbReactor.h"
#include "ozf/sync/AceReactor.h"

#include <omniORB4/omniORB.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <limits>
#include <mutex>
#include <thread>

namespace Quillon::Tessarine::Ozf
{

namespace
{

constexpr char SOURCE[] = "Orb";
constexpr auto EVICTION_PERIOD = std::chrono::seconds(1);
constexpr std::size_t LONGEST_NAME = 255;
constexpr CORBA::ULong CONNECT_TIMEOUT = 10000; // milliseconds

// Milliseconds, never 0 (which would mean no limit) for a time that is not.
CORBA::ULong milliseconds(ACE_Time_Value const& time)
{
  if (time <= ACE_Time_Value::zero)
    return 0;
  ACE_UINT64 value = 0;
  time.to_usec(value);
  constexpr ACE_UINT64 most = std::numeric_limits<CORBA::ULong>::max();
  return static_cast<CORBA::ULong>(std::min((value + 999) / 1000, most));
}

// Names of hosts come from the network and end up in a reference's text.
bool isHostAddress(std::string const& host)
{
  constexpr char allowed[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789.-_:";
  return !host.empty() && host.size() <= LONGEST_NAME &&
         host.find_first_not_of(allowed) == std::string::npos;
}

// As a reference's text has it.
std::string placeAt(std::string const& address, unsigned short port)
{
  bool const isVersion6 = address.find(':') != std::string::npos;
  return "iiop:1.2@" + (isVersion6 ? "[" + address + "]" : address) + ":" + std::to_string(port);
}

std::string escapedKey(char const* name)
{
  constexpr char digits[] = "0123456789abcdef";
  std::string key;
  for (auto const* p = reinterpret_cast<unsigned char const*>(name); *p != 0; ++p)
  {
    if (*p < 0x80 && (std::isalnum(*p) != 0 || std::strchr("-_.~", *p) != nullptr))
      key.push_back(static_cast<char>(*p));
    else
      key.append({'%', digits[*p >> 4], digits[*p & 15]});
  }
  return key;
}

PortableServer::POA_ptr createRoot(CORBA::ORB_ptr orb, std::string const& name)
{
  static std::atomic<unsigned> counter{0};
  CORBA::Object_var object = orb->resolve_initial_references("RootPOA");
  PortableServer::POA_var top = PortableServer::POA::_narrow(object);
  CORBA::PolicyList none;
  std::string const unique = name + "#" + std::to_string(++counter);
  return top->create_POA(unique.c_str(), PortableServer::POAManager::_nil(), none);
}

PortableServer::POA_ptr createObjects(PortableServer::POA_ptr root)
{
  CORBA::PolicyList policies;
  policies.length(1);
  policies[0] = root->create_id_assignment_policy(PortableServer::USER_ID);
  PortableServer::POAManager_var manager = root->the_POAManager();
  return root->create_POA("objects", manager, policies);
}

PortableServer::POA_ptr createEvicting(PortableServer::POA_ptr root)
{
  CORBA::PolicyList policies;
  policies.length(4);
  policies[0] = root->create_servant_retention_policy(PortableServer::NON_RETAIN);
  policies[1] = root->create_request_processing_policy(PortableServer::USE_SERVANT_MANAGER);
  policies[2] = root->create_id_assignment_policy(PortableServer::USER_ID);
  policies[3] = root->create_id_uniqueness_policy(PortableServer::MULTIPLE_ID);
  PortableServer::POAManager_var manager = root->the_POAManager();
  return root->create_POA("evictable", manager, policies);
}

} // namespace

struct Orb::State
{
  State(std::string orbName, std::string options, bool withEvictor, std::size_t evictorCapacity)
      : name(std::move(orbName)),
        arguments(std::move(options)),
        evicting(withEvictor),
        capacity(evictorCapacity)
  {
  }

  void requireUp() const
  {
    if (!up)
      throw CORBA::BAD_INV_ORDER(0, CORBA::COMPLETED_NO);
  }

  // Null while the Orb is down. It stays for whoever has got it.
  std::shared_ptr<OrbReactor> findReactor() const
  {
    std::lock_guard const guard(reactorMutex);
    return reactor;
  }
  void setReactor(std::shared_ptr<OrbReactor> next)
  {
    std::lock_guard const guard(reactorMutex);
    reactor.swap(next);
  }

  void evictionLoop();
  void dropIdle();
  void destroyRoot() noexcept;

  std::string const name;
  std::string const arguments;
  bool const evicting;
  std::size_t const capacity;
  ACE_Timer_Queue* timerQueue = nullptr;

  std::atomic<bool> up = false;
  OrbCore core;
  CorbaProcess process;
  mutable std::mutex reactorMutex;
  std::shared_ptr<OrbReactor> reactor; // changed under its mutex
  PortableServer::POA_var root;
  PortableServer::POA_var objects;
  PortableServer::POA_var evictable;
  std::unique_ptr<Evictor> evictor;

  // Evictions have a thread of their own: a handler on the reactor may take
  // minutes. It and the callers of run wait for stopping.
  std::mutex mutex;
  std::condition_variable stopped;
  bool stopping = false;
  std::thread evictionThread;
  std::mutex idleTaskMutex; // held during a call of the task
  std::function<void()> idleTask;
};

void Orb::State::dropIdle()
{
  evictor->evictIdle();
  std::lock_guard guard(idleTaskMutex);
  if (idleTask)
    idleTask();
}

void Orb::State::evictionLoop()
{
  std::unique_lock lock(mutex);
  while (!stopped.wait_for(lock, EVICTION_PERIOD, [this] { return stopping; }))
  {
    lock.unlock();
    try
    {
      dropIdle();
    }
    catch (std::exception const& exception)
    {
      lineIfMemory(
          [&exception]
          {
            OZF_LOG(getFrameworkLogger(), 1, SOURCE, "Orb::evictionLoop",
                    "Caught exception dropping idle objects: " << exception.what());
          });
    }
    lock.lock();
  }
}

void Orb::State::destroyRoot() noexcept
{
  if (CORBA::is_nil(root))
    return;
  try
  {
    root->destroy(false, true);
  }
  catch (CORBA::OBJECT_NOT_EXIST const&)
  {
    // Its user took it down already.
  }
  catch (CORBA::Exception const& exception)
  {
    OZF_LOG(getFrameworkLogger(), 1, SOURCE, "Orb::shutdown",
            "Caught CORBA exception destroying the POAs of " << name << ": "
                                                             << corbaExceptionText(exception));
  }
}

Orb::Orb(int argumentCount, char const* arguments, std::string const& name, int withEvictor,
         long capacity)
    : m_state(new State(name, argumentCount > 0 && arguments != nullptr ? arguments : std::string(),
                        withEvictor != 0, capacity > 0 ? static_cast<std::size_t>(capacity) : 0))
{
}

Orb::~Orb() { shutdown(); }

void Orb::setTimerQueue(ACE_Timer_Queue* timerQueue) noexcept { m_state->timerQueue = timerQueue; }

bool Orb::init()
{
  State& state = *m_state;
  if (state.up)
    return true;
  state.setReactor(std::make_shared<OrbReactor>(state.timerQueue));
  if (!state.reactor->usable())
  {
    OZF_LOG(getFrameworkLogger(), 1, SOURCE, "Orb::init",
            "Unable to set up the reactor of " << state.name);
    state.setReactor(nullptr);
    return false;
  }
  if (!state.process.acquire(state.name, getServicePort(state.name), state.arguments))
  {
    state.setReactor(nullptr);
    return false;
  }
  try
  {
    state.root = createRoot(state.process.orb(), state.name);
    state.objects = createObjects(state.root);
    if (state.evicting)
    {
      state.evictable = createEvicting(state.root);
      state.evictor = std::make_unique<Evictor>(state.evictable, state.capacity);
    }
  }
  catch (CORBA::Exception const& exception)
  {
    OZF_LOG(getFrameworkLogger(), 1, SOURCE, "Orb::init",
            "Caught CORBA exception creating the POAs of " << state.name << ": "
                                                           << corbaExceptionText(exception));
    state.up = true;
    shutdown();
    return false;
  }
  state.stopping = false;
  state.up = true;
  return true;
}

int Orb::run(int wait)
{
  State& state = *m_state;
  if (!state.up)
    return -1;
  PortableServer::POAManager_var(state.root->the_POAManager())->activate();
  state.reactor->start();
  if (state.evicting && !state.evictionThread.joinable())
    state.evictionThread = std::thread([&state] { state.evictionLoop(); });
  if (wait != 0)
  {
    std::unique_lock lock(state.mutex);
    state.stopped.wait(lock, [&state] { return state.stopping; });
  }
  return 0;
}

void Orb::shutdown()
{
  State& state = *m_state;
  if (!state.up)
    return;
  state.up = false;
  {
    std::lock_guard guard(state.mutex);
    state.stopping = true;
  }
  state.stopped.notify_all();
  state.reactor->stop();
  if (state.evictionThread.joinable())
    state.evictionThread.join();
  if (state.evictor)
    state.evictor->shutdown();
  // Calls on an advertised object may run on beyond this. They meet destroyed
  // POAs and an empty evictor, so these stay until the next init.
  state.destroyRoot();
  state.process.release();
  if (getAceReactor() == state.reactor->get())
    setAceReactor(nullptr);
  state.setReactor(nullptr);
}

std::string const& Orb::name() const noexcept { return m_state->name; }

unsigned short Orb::port() const noexcept { return m_state->up ? m_state->process.port() : 0; }

ACE_Reactor* Orb::getReactor() const noexcept
{
  return m_state->reactor ? m_state->reactor->get() : nullptr;
}

bool Orb::relieveReactor()
{
  auto const reactor = m_state->findReactor();
  return reactor && reactor->relieve();
}

void Orb::allowReactor(std::chrono::milliseconds time)
{
  if (auto const reactor = m_state->findReactor())
    reactor->allow(time);
}

bool Orb::isReactorTurning(std::chrono::milliseconds time)
{
  auto const reactor = m_state->findReactor();
  return !reactor || reactor->isTurning(time);
}

OrbCore* Orb::getOrbCore() noexcept { return m_state->up ? &m_state->core : nullptr; }

void Orb::setRequestTimeout(ACE_Time_Value const& timeout)
{
  CORBA::ULong const limit = milliseconds(timeout);
  omniORB::setClientCallTimeout(limit);
  // A call that has to connect first takes up to the greater of both.
  omniORB::setClientConnectTimeout(limit == 0 ? CONNECT_TIMEOUT : std::min(limit, CONNECT_TIMEOUT));
}

CORBA::Object_ptr Orb::resolveInitialReference(char const* identifier)
{
  m_state->requireUp();
  if (std::strcmp(identifier, "RootPOA") == 0)
    return PortableServer::POA::_duplicate(m_state->root);
  return m_state->process.orb()->resolve_initial_references(identifier);
}

CORBA::Object_ptr Orb::activateObject(PortableServer::Servant servant)
{
  m_state->requireUp();
  SpareMemory const forReference;
  std::string const key = makeObjectKey();
  PortableServer::ObjectId id;
  id.length(static_cast<CORBA::ULong>(key.size()));
  std::memcpy(id.get_buffer(), key.data(), key.size());
  m_state->objects->activate_object_with_id(id, servant);
  return m_state->objects->id_to_reference(id);
}

CORBA::Object_ptr Orb::activateEvictable(PortableServer::Servant servant, char const* repositoryId,
                                         CORBA::OctetSeq_out objectId)
{
  // The ORB makes a reference under a lock that it keeps when it gets no memory: no call
  // would be served any more.
  SpareMemory const forReference;
  Evictor& evictor = getEvictor();
  CORBA::OctetSeq_var id = evictor.activate(servant);
  try
  {
    PortableServer::ObjectId poaId(id->length(), id->length(), id->get_buffer());
    CORBA::Object_var reference = m_state->evictable->create_reference_with_id(poaId, repositoryId);
    objectId = id._retn();
    return reference._retn();
  }
  catch (...)
  {
    evictor.removeObject(id.in(), true, true);
    throw;
  }
}

void Orb::advertiseObject(char const* name, CORBA::Object_ptr object)
{
  m_state->requireUp();
  PortableServer::ServantBase_var servant = m_state->objects->reference_to_servant(object);
  m_state->process.publish(name, servant.in());
}

void Orb::destroyObjectRef(CORBA::Object_ptr object, PortableServer::POA_ptr poa)
{
  if (!m_state->up || CORBA::is_nil(object))
    return;
  PortableServer::POA_ptr const home =
      CORBA::is_nil(poa) ? static_cast<PortableServer::POA_ptr>(m_state->objects) : poa;
  try
  {
    PortableServer::ObjectId_var id = home->reference_to_id(object);
    PortableServer::ServantBase_var servant = home->id_to_servant(id);
    m_state->process.withdraw(servant.in());
    home->deactivate_object(id);
  }
  catch (PortableServer::POA::WrongAdapter const&)
  {
  }
  catch (PortableServer::POA::ObjectNotActive const&)
  {
  }
  catch (CORBA::OBJECT_NOT_EXIST const&)
  {
    // The POA is gone, and its objects with it.
  }
}

CORBA::Object_ptr Orb::resolveObject(OzfHostname const& host, char const* service, char const* name,
                                     ACE_Time_Value const& timeout)
{
  m_state->requireUp();
  std::string const& hostName = host.exportNarrow();
  unsigned short const port = getServicePort(service, hostName);
  if (port == 0)
    return CORBA::Object::_nil();
  // The ORB tries them in this order.
  std::string places;
  for (auto const& address : getHostAddresses(hostName))
    if (isHostAddress(address))
      places += (places.empty() ? "" : ",") + placeAt(address, port);
  if (places.empty())
    throw CORBA::BAD_PARAM(0, CORBA::COMPLETED_NO);
  std::string const reference = "corbaloc:" + places + "/" + escapedKey(name);
  CORBA::Object_var object = m_state->process.orb()->string_to_object(reference.c_str());
  if (timeout != ACE_Time_Value::zero)
    omniORB::setClientCallTimeout(object, milliseconds(timeout));
  return object._retn();
}

void Orb::setIdleTask(std::function<void()> task)
{
  std::lock_guard guard(m_state->idleTaskMutex);
  m_state->idleTask = std::move(task);
}

bool Orb::isEvictorEnabled() const noexcept { return m_state->evicting; }

Evictor& Orb::getEvictor()
{
  m_state->requireUp();
  if (!m_state->evictor)
    throw CORBA::BAD_INV_ORDER(0, CORBA::COMPLETED_NO);
  return *m_state->evictor;
}

PortableServer::POA_ptr Orb::getEvictingPOA() { return m_state->evictable; }

} // namespace Quillon::Tessarine::Ozf
