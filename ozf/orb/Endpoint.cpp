#include "ozf/orb/Endpoint.h"

#include "ozf/log/FrameworkLogger.h"
#include "ozf/orb/Connection.h"

#include <memory>
#include <mutex>
#include <unordered_map>
#include <utility>

namespace Quillon::Tessarine::Ozf
{

char const WATCHED_TCP[] = "giop:watched";

namespace
{

constexpr char SOURCE[] = "Endpoint";
constexpr char INNER_TCP[] = "giop:tcp:";

// Which wrapper a connection inside belongs to. Connections may outlast the end
// point that accepted them.
class Wrappers
{
public:
  void add(omni::giopConnection* inner, Connection* outer)
  {
    std::lock_guard guard(m_mutex);
    m_outer[inner] = outer;
  }
  void remove(omni::giopConnection* inner)
  {
    std::lock_guard guard(m_mutex);
    m_outer.erase(inner);
  }
  Connection* of(omni::giopConnection* inner) const
  {
    std::lock_guard guard(m_mutex);
    auto const found = m_outer.find(inner);
    return found == m_outer.end() ? nullptr : found->second;
  }

private:
  mutable std::mutex m_mutex;
  std::unordered_map<omni::giopConnection*, Connection*> m_outer;
};

class Endpoint final : public omni::giopEndpoint
{
public:
  // address is kept by the one inside, which is taken.
  Endpoint(std::string address, omni::giopEndpoint* (*make)(char const*))
      : m_address(std::move(address)), m_inner(make(m_address.c_str()))
  {
  }
  ~Endpoint() override { delete m_inner; }

  bool valid() const noexcept { return m_inner != nullptr; }

  char const* type() const override { return m_inner->type(); }
  char const* address() const override { return m_inner->address(); }
  omni::orbServer::EndpointList const* addresses() const override { return m_inner->addresses(); }
  _CORBA_Boolean publish(omni::orbServer::PublishSpecs const& specifications, _CORBA_Boolean all,
                         _CORBA_Boolean allEndPoints,
                         omni::orbServer::EndpointList& published) override
  {
    return m_inner->publish(specifications, all, allEndPoints, published);
  }
  _CORBA_Boolean Bind() override { return m_inner->Bind(); }
  omni::giopConnection* AcceptAndMonitor(omni::giopConnection::notifyReadable_t tell,
                                         void* cookie) override;
  void Poke() override { m_inner->Poke(); }

  // The ORB asks for nothing afterwards and leaves the end point to itself.
  void Shutdown() override
  {
    std::exchange(m_inner, nullptr)->Shutdown();
    delete this;
  }

private:
  static void readable(void* self, omni::giopConnection* inner);

  std::string const m_address;
  omni::giopEndpoint* m_inner;
  std::shared_ptr<Wrappers> const m_wrappers = std::make_shared<Wrappers>();
  omni::giopConnection::notifyReadable_t m_tell = nullptr;
  void* m_cookie = nullptr;
};

omni::giopConnection* Endpoint::AcceptAndMonitor(omni::giopConnection::notifyReadable_t tell,
                                                 void* cookie)
{
  m_tell = tell;
  m_cookie = cookie;
  while (true)
  {
    omni::giopConnection* const inner = m_inner->AcceptAndMonitor(readable, this);
    if (inner == nullptr)
      return nullptr;
    try
    {
      auto* const outer = new Connection(inner, [wrappers = m_wrappers](omni::giopConnection* ended)
                                         { wrappers->remove(ended); });
      m_wrappers->add(inner, outer);
      return outer;
    }
    catch (std::exception const& exception)
    {
      OZF_LOG(getFrameworkLogger(), 1, SOURCE, "Endpoint::AcceptAndMonitor",
              "Unable to take a connection in: " << exception.what());
      inner->decrRefCount(true);
    }
  }
}

void Endpoint::readable(void* self, omni::giopConnection* inner)
{
  auto const* const endPoint = static_cast<Endpoint*>(self);
  if (auto* const outer = endPoint->m_wrappers->of(inner))
    endPoint->m_tell(endPoint->m_cookie, outer);
}

class Transport final : public omni::giopTransportImpl
{
public:
  Transport() : giopTransportImpl(WATCHED_TCP) {}

  omni::giopEndpoint* toEndpoint(char const* parameter) override
  {
    if (isValid(parameter) == 0)
      return nullptr;
    return new Endpoint(INNER_TCP + std::string(parameter), omni::giopEndpoint::str2Endpoint);
  }
  _CORBA_Boolean isValid(char const* parameter) override
  {
    return omni::giopEndpoint::strIsValidEndpoint((INNER_TCP + std::string(parameter)).c_str());
  }
  // Neither is asked for: what is published and called is "giop:tcp".
  omni::giopAddress* toAddress(char const*) override { return nullptr; }
  _CORBA_Boolean addToIOR(char const*, omni::IORPublish*) override { return false; }
  omnivector<char const*> const* getInterfaceAddress() override { return nullptr; }
};

} // namespace

void registerWatchedTransport() { [[maybe_unused]] static auto* const transport = new Transport; }

} // namespace Quillon::Tessarine::Ozf
