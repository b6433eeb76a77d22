// Two mutexes. One guards the count and is held while the CORBA ORB comes up
// and goes down, which upcalls never do; going down waits for upcalls. These
// may publish and withdraw names, so the table of names has a mutex of its
// own, taken after the other where both are.

#include "ozf/orb/CorbaProcess.h"

#include "ozf/base/LineIfMemory.h"
#include "ozf/base/SystemError.h"
#include "ozf/config/Configuration.h"
#include "ozf/config/ConfigurationKeys.h"
#include "ozf/log/Assertion.h"
#include "ozf/log/FrameworkLogger.h"
#include "ozf/orb/CallingConnection.h"
#include "ozf/orb/ClosedConnection.h"
#include "ozf/orb/Connection.h"
#include "ozf/orb/ConnectionTable.h"
#include "ozf/orb/Endpoint.h"
#include "ozf/orb/ListenCheck.h"
#include "ozf/plugin/CurrentException.h"
#include "ozf/tls/CurrentTls.h"
#include "ozf/xml/XmlDocumentInterface.h"

#include <omniORB4/callDescriptor.h>
#include <omniORB4/minorCode.h>
#include <omniORB4/omniInterceptors.h>
#include <omniORB4/omniORB.h>

// Each needs the ones before it.
#include <giopStrand.h>

#include <giopStream.h>

#include <GIOP_S.h>

#include <ace/ACE.h>
#include <ace/ARGV.h>
#include <ace/Init_ACE.h>
#include <sys/resource.h>

#include <algorithm>
#include <cxxabi.h>
#include <map>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

namespace Quillon::Tessarine::Ozf
{

namespace
{

constexpr char SOURCE[] = "CorbaProcess";

struct Published
{
  CorbaProcess const* owner;
  PortableServer::Servant servant;
};

struct Shared
{
  std::mutex lifeMutex;
  long users = 0;
  CORBA::ORB_var orb;
  unsigned short port = 0;

  std::mutex namesMutex;
  std::map<std::string, Published> names;
};

Shared& shared()
{
  static Shared state;
  return state;
}

void raiseDescriptorLimit()
{
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= limit.rlim_max)
    return;
  limit.rlim_cur = limit.rlim_max;
  if (setrlimit(RLIMIT_NOFILE, &limit) != 0)
    OZF_LOG(getFrameworkLogger(), 1, SOURCE, "CorbaProcess::acquire",
            "Unable to raise the limit of open files: " << errorText(errno));
}

// The ORB calls it in destructors, where an exception ends the process.
void logOfOrb(char const* text) noexcept
{
  lineIfMemory(
      [text]
      {
        std::string line = text;
        while (!line.empty() && (line.back() == '\n' || line.back() == ' '))
          line.pop_back();
        OZF_LOG(getFrameworkLogger(), 1, SOURCE, "omniORB", line);
      });
}

// Of the request that the thread has received last.
thread_local Peer const* peerOfRequest = nullptr;

// That request, until its call begins.
thread_local omni::GIOP_S* requestToCall = nullptr;

// Whether the ORB knows what to do with the key. The keys that it makes begin
// with the names of adapters, and then there is a mark that tells this run of the
// process from others; keys without the mark, but with a name that is known, it
// takes for its own and does not come to an end with. All other keys are names
// that were published, or nothing.
bool isKeyInOrder(unsigned char const* key, int size)
{
  constexpr unsigned char NAME = 0xff;
  constexpr unsigned char MARK = 0xfe;
  constexpr int MARK_SIZE = 8;
  if (size <= 0)
    return false;
  if (key[0] != NAME && key[0] != MARK && key[0] != 0)
    return true;
  auto const* const end = key + size;
  while (key != end && *key == NAME)
    key = std::find_if(
        key + 1, end, [](unsigned char byte) { return byte == NAME || byte == MARK || byte == 0; });
  return end - key > MARK_SIZE + 1 && *key == MARK && key[MARK_SIZE + 1] == 0;
}

CORBA::Boolean noteRequest(omni::omniInterceptors::serverReceiveRequest_T::info_T& info)
{
  auto& request = info.giop_s;
  auto* const connection = dynamic_cast<Connection*>(request.strand().connection);
  peerOfRequest = connection == nullptr ? nullptr : &connection->peer();
  requestToCall = &request;
  // A request that has left no trace on the connection is one that the ORB has
  // answered before.
  if (connection != nullptr && !connection->takeDelivered())
    request.strand().state(omni::giopStrand::DYING);
  // The peer calls anew, and proves who it is by what holds now.
  if (connection != nullptr && !connection->isStillTaken())
  {
    request.strand().state(omni::giopStrand::DYING);
    throw CORBA::TRANSIENT(omni::TRANSIENT_ConnectionClosed, CORBA::COMPLETED_NO);
  }
  if (connection != nullptr)
    connection->requireTurn(request.operation_name());
  if (!isKeyInOrder(request.key(), request.keysize()))
    throw CORBA::OBJECT_NOT_EXIST(0, CORBA::COMPLETED_NO);
  if (connection != nullptr)
    connection->requireRight(request.operation_name());
  return true;
}

// All of the request has been read: see Connection::keepFromWaiting.
void beginWaiting()
{
  auto* const request = std::exchange(requestToCall, nullptr);
  if (request != nullptr && request->state() == omni::IOP_S::RequestIsBeingProcessed)
    request->state(omni::IOP_S::WaitingForReply);
}

// Around every call on a servant: the ORB answers CORBA exceptions in their
// own right, all others would reach the caller as UNKNOWN.
void guardCall(omniCallDescriptor* call, omniServant* servant)
{
  char const* const operation = call->op() == nullptr ? "" : call->op();
  PeerOfCall const peer(call->is_upcall() ? peerOfRequest : nullptr);
  if (call->is_upcall())
    beginWaiting();
  try
  {
    call->interceptedCall(servant);
  }
  catch (AssertionFailure const&)
  {
    // Logged where it failed.
    throw CORBA::INTERNAL(0, CORBA::COMPLETED_MAYBE);
  }
  catch (std::bad_alloc const&)
  {
    OZF_LOG(getFrameworkLogger(), 1, SOURCE, "CorbaProcess::guardCall",
            "Out of memory in a call of " << operation);
    throw CORBA::NO_MEMORY(0, CORBA::COMPLETED_MAYBE);
  }
  catch (std::exception const& exception)
  {
    OZF_LOG(getFrameworkLogger(), 1, SOURCE, "CorbaProcess::guardCall",
            "Caught exception in a call of " << operation << ": " << exception.what());
    throw CORBA::INTERNAL(0, CORBA::COMPLETED_MAYBE);
  }
  catch (CORBA::Exception const&)
  {
    throw;
  }
  catch (abi::__forced_unwind const&)
  {
    // A thread that is cancelled; the C library insists on the rethrow.
    throw;
  }
  catch (...)
  {
    OZF_LOG(getFrameworkLogger(), 1, SOURCE, "CorbaProcess::guardCall",
            "Caught exception in a call of " << operation << ": " << currentExceptionText());
    throw CORBA::INTERNAL(0, CORBA::COMPLETED_MAYBE);
  }
}

CORBA::ORB_ptr startOrb(std::vector<std::string> const& endPoints, std::string const& arguments)
{
  // A file that configures every program of the host must not reconfigure this
  // one. Options given here come last and win.
  std::string const line = "-ORBconfigFile /dev/null " + arguments;
  ACE_ARGV argv(line.c_str(), false);
  int argc = argv.argc();

  struct Option
  {
    char const* name;
    char const* value;
  };
  std::vector<Option> options = {
      {"traceLevel", "1"},
      {"traceTime", "0"}, // lines of the log have their time, and this one is not safe in threads
      // Limits of calls.
      {"clientCallTimeOutPeriod", "30000"},
      {"clientConnectTimeOutPeriod", "10000"},
      {"serverCallTimeOutPeriod", "30000"},
      {"giopMaxMsgSize", "4194304"},
      {"maxGIOPConnectionPerServer", "100"},
      // A thread gets a connection when a request is there, and keeps it until
      // the request is answered: two requests of one connection that are read at
      // a time are not kept apart well.
      {"threadPerConnectionPolicy", "0"},
      {"maxServerThreadPoolSize", "600"},
      {"maxServerThreadPerConnection", "1"},
      // Seconds until an idle connection is closed, counted in scans: up to one
      // granularity less. The caller lets go well before the server, as a call that
      // meets a connection just closed fails.
      {"outConScanPeriod", "15"},
      {"inConScanPeriod", "30"},
      {"scanGranularity", "5"},
      // References are made without a look-up of the host's name.
      {"resolveNamesForTransportRules", "0"},
      {"endPointPublish", "addr"},
  };
  for (auto const& endPoint : endPoints)
    options.push_back({"endPoint", endPoint.c_str()});
  options.push_back({nullptr, nullptr});

  omniORB::setLogFunction(logOfOrb);
  registerWatchedTransport();
  static_assert(sizeof(Option) == sizeof(char const* [2]));
  CORBA::ORB_var orb = CORBA::ORB_init(argc, argv.argv(), "omniORB4",
                                       reinterpret_cast<char const*(*)[2]>(options.data()));

  auto* const interceptors = omniORB::getInterceptors();
  interceptors->clientOpenConnection.add(guardReplies);
  interceptors->clientSendRequest.add(leaveSpentConnection);
  interceptors->serverReceiveRequest.add(noteRequest);
  interceptors->invokeLocalCall.add(guardCall);
  return orb._retn();
}

// A thread that there is has to be given the processor, on a machine that is busy.
constexpr std::chrono::seconds LONGEST_TO_LISTEN(20);

// Creating the root POA is what opens the sockets.
void startServing(CORBA::ORB_ptr orb)
{
  CORBA::Object_var object = orb->resolve_initial_references("RootPOA");
  PortableServer::POA_var root = PortableServer::POA::_narrow(object);
  PortableServer::POAManager_var(root->the_POAManager())->activate();
  object = orb->resolve_initial_references("omniINSPOA");
  PortableServer::POA_var named = PortableServer::POA::_narrow(object);
  PortableServer::POAManager_var(named->the_POAManager())->activate();
  if (allListen(LONGEST_TO_LISTEN))
    return;
  OZF_LOG(getFrameworkLogger(), 1, SOURCE, "CorbaProcess::acquire",
          "There is no thread to take in connections");
  throw CORBA::NO_RESOURCES(0, CORBA::COMPLETED_NO);
}

PortableServer::POA_ptr namedPoa(CORBA::ORB_ptr orb)
{
  CORBA::Object_var object = orb->resolve_initial_references("omniINSPOA");
  return PortableServer::POA::_narrow(object);
}

void deactivateName(CORBA::ORB_ptr orb, std::string const& name)
{
  try
  {
    PortableServer::POA_var poa = namedPoa(orb);
    PortableServer::ObjectId_var id = PortableServer::string_to_ObjectId(name.c_str());
    poa->deactivate_object(id);
  }
  catch (PortableServer::POA::ObjectNotActive const&)
  {
  }
  catch (CORBA::SystemException const& exception)
  {
    OZF_LOG(getFrameworkLogger(), 1, SOURCE, "CorbaProcess::withdraw",
            "Unable to withdraw " << name << ": " << corbaExceptionText(exception));
  }
}

template <class Condition>
void withdrawWhere(CORBA::ORB_ptr orb, Condition condition)
{
  Shared& state = shared();
  std::lock_guard guard(state.namesMutex);
  for (auto i = state.names.begin(); i != state.names.end();)
  {
    if (condition(i->second))
    {
      deactivateName(orb, i->first);
      i = state.names.erase(i);
    }
    else
      ++i;
  }
}

void destroyOrb(CORBA::ORB_ptr orb) noexcept
{
  try
  {
    orb->destroy();
  }
  catch (CORBA::Exception const& exception)
  {
    OZF_LOG(getFrameworkLogger(), 1, SOURCE, "CorbaProcess::release",
            "Caught CORBA exception taking the ORB down: " << corbaExceptionText(exception));
  }
}

} // namespace

bool CorbaProcess::acquire(std::string const& name, unsigned short port,
                           std::string const& arguments)
{
  constexpr char OPERATION[] = "CorbaProcess::acquire";
  // ACE stays up until the process ends: its singletons go with it.
  static int const aceUp = ACE::init();
  // Here and not by the first call that meets a document: what the library
  // brings in is to be set up before there are threads.
  initializeXml();
  if (aceUp < 0)
    OZF_LOG(getFrameworkLogger(), 1, SOURCE, OPERATION, "Unable to initialise ACE");

  Shared& state = shared();
  std::lock_guard guard(state.lifeMutex);
  if (state.users == 0)
  {
    raiseDescriptorLimit();
    auto addresses = getConfiguration()->list(configKey("ORB_BIND"));
    // What serves no one else need not be reached by others.
    if (addresses.empty() && port == 0)
      addresses.push_back("127.0.0.1");

    std::string error;
    if (!setUpTls(error) || (port != 0 && !setUpCallRights(error)) ||
        !canListen(addresses, port, error))
    {
      OZF_LOG(getFrameworkLogger(), 1, SOURCE, OPERATION, error);
      return false;
    }
    try
    {
      ConnectionTable::instance().start();
      state.orb = startOrb(makeEndPoints(addresses, port), arguments);
      startServing(state.orb);
      state.port = port;
    }
    catch (CORBA::Exception const& exception)
    {
      OZF_LOG(getFrameworkLogger(), 1, SOURCE, OPERATION,
              "Caught CORBA exception starting the ORB for " << name << " on port " << port << ": "
                                                             << corbaExceptionText(exception));
      if (!CORBA::is_nil(state.orb))
        destroyOrb(state.orb);
      ConnectionTable::instance().stop();
      state.orb = CORBA::ORB::_nil();
      return false;
    }
  }
  else if (port != 0 && port != state.port)
  {
    OZF_LOG(getFrameworkLogger(), 1, SOURCE, OPERATION,
            "Unable to listen on port " << port << " for " << name
                                        << ": the process's ORB is up without it");
    return false;
  }
  ++state.users;
  m_user = true;
  m_orb = CORBA::ORB::_duplicate(state.orb);
  m_port = state.port;
  return true;
}

void CorbaProcess::release() noexcept
{
  if (!m_user)
    return;
  m_user = false;
  Shared& state = shared();
  std::lock_guard guard(state.lifeMutex);
  withdrawWhere(m_orb, [this](Published const& published) { return published.owner == this; });
  if (--state.users == 0)
  {
    destroyOrb(state.orb);
    ConnectionTable::instance().stop();
    state.orb = CORBA::ORB::_nil();
    state.port = 0;
  }
}

void CorbaProcess::publish(std::string const& name, PortableServer::Servant servant)
{
  Shared& state = shared();
  std::lock_guard guard(state.namesMutex);
  if (state.names.erase(name) != 0)
    deactivateName(m_orb, name);
  PortableServer::POA_var poa = namedPoa(m_orb);
  PortableServer::ObjectId_var id = PortableServer::string_to_ObjectId(name.c_str());
  poa->activate_object_with_id(id, servant);
  state.names[name] = {this, servant};
}

void CorbaProcess::withdraw(PortableServer::Servant servant)
{
  withdrawWhere(m_orb, [this, servant](Published const& published)
                { return published.owner == this && published.servant == servant; });
}

} // namespace Quillon::Tessarine::Ozf
