#include "ozf/orb/Connection.h"

#include "ozf/orb/ConnectionTable.h"

namespace Quillon::Tessarine::Ozf
{

namespace
{

// "giop:tcp:192.0.2.7:4711", "giop:tcp:[2001:db8::1]:4711"
std::string addressIn(std::string const& text)
{
  auto const open = text.find('[');
  auto const close = text.find(']');
  auto const port = text.rfind(':');
  if (open != std::string::npos && close != std::string::npos && open < close)
  {
    std::string const address = text.substr(open + 1, close - open - 1);
    constexpr char mapped[] = "::ffff:";
    return address.starts_with(mapped) && address.find('.') != std::string::npos
               ? address.substr(sizeof mapped - 1)
               : address;
  }
  if (port == std::string::npos || port == 0)
    return text;
  return text.substr(text.rfind(':', port - 1) + 1, port - text.rfind(':', port - 1) - 1);
}

} // namespace

Connection::Connection(omni::giopConnection* inner, Ended ended)
    : m_inner(inner),
      m_ended(std::move(ended)),
      m_peer(ConnectionTable::instance().add(addressIn(inner->peeraddress())))
{
}

Connection::~Connection()
{
  ConnectionTable::instance().remove(m_peer);
  m_ended(m_inner);
  m_inner->decrRefCount(true);
}

int Connection::Send(void* data, std::size_t size, omni_time_t const& deadline)
{
  return m_inner->Send(data, size, deadline);
}

int Connection::Recv(void* data, std::size_t size, omni_time_t const& deadline)
{
  return m_inner->Recv(data, size, deadline);
}

void Connection::Shutdown() { m_inner->Shutdown(); }

char const* Connection::myaddress() { return m_inner->myaddress(); }

char const* Connection::peeraddress() { return m_inner->peeraddress(); }

char const* Connection::peeridentity() { return m_inner->peeridentity(); }

void* Connection::peerdetails() { return m_inner->peerdetails(); }

_CORBA_Boolean Connection::gatekeeperCheckSpecific(omni::giopStrand* strand)
{
  return m_inner->gatekeeperCheckSpecific(strand);
}

void Connection::setSelectable(int now, _CORBA_Boolean dataInBuffer)
{
  m_inner->setSelectable(now, dataInBuffer);
}

void Connection::clearSelectable() { m_inner->clearSelectable(); }

_CORBA_Boolean Connection::isSelectable() { return m_inner->isSelectable(); }

_CORBA_Boolean Connection::Peek() { return m_inner->Peek(); }

} // namespace Quillon::Tessarine::Ozf
