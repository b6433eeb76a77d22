#include "ozf/tls/TlsChannel.h"

#include "ozf/base/SystemError.h"
#include "ozf/base/WaitForSocket.h"
#include "ozf/tls/TlsErrors.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <limits>
#include <new>

namespace Quillon::Tessarine::Ozf
{

namespace
{

constexpr int NO_BYTE = -1;
constexpr int RECORD_OF_ALERT = 0x15;
constexpr int RECORD_OF_HANDSHAKE = 0x16;
constexpr int MOST_OF_FIRST = 16384;
constexpr char CLOSED[] = "it closed the connection";

std::string refusalText(std::string const& names, std::string const& why)
{
  return "its certificate (" + names + ") is refused: " + why;
}

int asSize(std::size_t size)
{
  return static_cast<int>(std::min<std::size_t>(size, std::numeric_limits<int>::max()));
}

} // namespace

// What lies below the session: the socket, and what is known only there. OpenSSL's
// own way to a socket has the process killed by a peer that goes at a bad time.
struct TlsChannel::Wire
{
  explicit Wire(int socket) : descriptor(socket) {}

  static int read(BIO* bio, char* data, int size)
  {
    auto& wire = *static_cast<Wire*>(BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    auto const got = recv(wire.descriptor, data, static_cast<std::size_t>(size), MSG_DONTWAIT);
    if (got > 0 && wire.firstByte == NO_BYTE)
      wire.firstByte = static_cast<unsigned char>(*data);
    if (got > 0 && !wire.isModest(data, static_cast<std::size_t>(got)))
    {
      wire.ended = true;
      wire.failure = EMSGSIZE;
      return -1;
    }
    if (got < 0 && (errno == EAGAIN || errno == EINTR))
      BIO_set_retry_read(bio);
    else if (got <= 0)
    {
      wire.ended = true;
      wire.failure = got == 0 ? 0 : errno;
    }
    return static_cast<int>(got);
  }

  // Whether the first message, as far as it has come, is of no more than a record:
  // OpenSSL takes the memory for what a message says it is at once, 170 KB at most,
  // from whoever connects.
  bool isModest(char const* data, std::size_t size)
  {
    std::size_t const taken = std::min(size, start.size() - started);
    std::copy_n(data, taken, start.begin() + static_cast<std::ptrdiff_t>(started));
    started += taken;
    // Behind the header of the record and the kind of the message, its length.
    return started < start.size() || start[0] != RECORD_OF_HANDSHAKE ||
           start[6] * 65536 + start[7] * 256 + start[8] <= MOST_OF_FIRST;
  }

  static int write(BIO* bio, char const* data, int size)
  {
    auto& wire = *static_cast<Wire*>(BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    auto const sent =
        ::send(wire.descriptor, data, static_cast<std::size_t>(size), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent < 0 && (errno == EAGAIN || errno == EINTR || errno == ENOBUFS || errno == ENOMEM))
      BIO_set_retry_write(bio);
    else if (sent < 0)
    {
      wire.ended = true;
      wire.failure = errno;
    }
    return static_cast<int>(sent);
  }

  static long control(BIO*, int command, long, void*) { return command == BIO_CTRL_FLUSH ? 1 : 0; }

  static BIO_METHOD* method()
  {
    static BIO_METHOD* const one = []
    {
      auto* const made = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "socket");
      if (made != nullptr)
      {
        BIO_meth_set_read(made, read);
        BIO_meth_set_write(made, write);
        BIO_meth_set_ctrl(made, control);
      }
      return made;
    }();
    return one;
  }

  // Called by OpenSSL for each certificate of a chain, the host's own last.
  static int judge(int holds, X509_STORE_CTX* chain)
  {
    auto* const session =
        static_cast<SSL*>(X509_STORE_CTX_get_ex_data(chain, SSL_get_ex_data_X509_STORE_CTX_idx()));
    auto& wire = *static_cast<Wire*>(SSL_get_app_data(session));
    if (holds == 1 || wire.refusal != X509_V_OK)
      return holds;
    wire.refusal = X509_STORE_CTX_get_error(chain);
    X509* const first = X509_STORE_CTX_get0_cert(chain);
    try
    {
      wire.why = certificateErrorText(chain);
      if (first != nullptr && X509_up_ref(first) == 1)
        wire.refused.emplace(first);
    }
    catch (std::bad_alloc const&)
    {
      // Told without its name: nothing may be thrown through the library.
    }
    return holds;
  }

  int const descriptor;
  int firstByte = NO_BYTE;
  std::array<unsigned char, 9> start{};
  std::size_t started = 0; // of them have come
  bool ended = false;
  int failure = 0; // why it ended; 0 when the peer closed it
  int refusal = X509_V_OK;
  std::string why;                    // in words
  std::optional<Certificate> refused; // and which
};

TlsChannel::TlsChannel(std::shared_ptr<TlsContext const> context, Role role, int descriptor)
    : m_context(std::move(context)),
      m_role(role),
      m_wire(std::make_unique<Wire>(descriptor)),
      m_session(SSL_new(m_context->get()), SSL_free)
{
  BIO* const bio = Wire::method() == nullptr ? nullptr : BIO_new(Wire::method());
  if (!m_session || bio == nullptr)
  {
    BIO_free(bio);
    throw std::bad_alloc();
  }
  BIO_set_data(bio, m_wire.get());
  BIO_set_init(bio, 1);
  SSL* const session = m_session.get();
  SSL_set_bio(session, bio, bio);
  SSL_set_app_data(session, m_wire.get());
  SSL_set_verify(session, SSL_get_verify_mode(session), Wire::judge);
  if (role == SERVER)
    SSL_set_accept_state(session);
  else
    SSL_set_connect_state(session);
}

TlsChannel::~TlsChannel() = default;

std::string TlsChannel::reason() const
{
  std::lock_guard const guard(m_mutex);
  return m_reason;
}

bool TlsChannel::isRefused() const
{
  std::lock_guard const guard(m_mutex);
  return m_refused;
}

bool TlsChannel::peerIsPlain() const noexcept
{
  return m_role == CLIENT && !m_peer &&
         (m_wire->firstByte == NO_BYTE
              ? m_wire->ended
              : m_wire->firstByte != RECORD_OF_ALERT && m_wire->firstByte != RECORD_OF_HANDSHAKE);
}

std::string TlsChannel::refusalNow(TlsContext const& context) const
{
  std::lock_guard const guard(m_mutex);
  std::string const why =
      context.refusalOfCaller(m_peer->get(), SSL_get_peer_cert_chain(m_session.get()));
  return why.empty() ? why : refusalText(m_peer->shownNames(), why);
}

std::string TlsChannel::version() const
{
  std::lock_guard const guard(m_mutex);
  return SSL_get_version(m_session.get());
}

// Under m_mutex. error is what SSL_get_error says.
void TlsChannel::noteFailure(int error)
{
  if (!m_reason.empty())
    return;
  unsigned long const first = ERR_peek_error();
  int const cause = ERR_GET_LIB(first) == ERR_LIB_SSL ? ERR_GET_REASON(first) : 0;
  if (m_wire->refusal != X509_V_OK)
    m_reason =
        refusalText(m_wire->refused ? m_wire->refused->shownNames() : std::string(),
                    m_wire->why.empty() ? certificateErrorText(m_wire->refusal) : m_wire->why);
  else if (cause == SSL_R_PEER_DID_NOT_RETURN_A_CERTIFICATE)
    m_reason = "it shows no certificate";
  else if (peerIsPlain())
    m_reason = "it does not speak TLS";
  else if (cause >= SSL_AD_REASON_OFFSET)
  {
    int const alert = cause - SSL_AD_REASON_OFFSET;
    std::string about = alertAboutCertificate(alert);
    m_refused = !about.empty();
    // The alert is the same for each certificate of the chain.
    if (alert == SSL_AD_CERTIFICATE_EXPIRED && m_context->certificate().end() > std::time(nullptr))
      about = "it, or that of its authority, has expired there";
    m_reason = about.empty() ? "it ended the connection: " + takeTlsError()
                             : "it refuses this host's certificate: " + about;
  }
  else if (m_wire->ended || error == SSL_ERROR_ZERO_RETURN)
    m_reason = m_wire->failure == 0 ? CLOSED : errorText(m_wire->failure);
  else
    m_reason = takeTlsError();
  ERR_clear_error();
}

TlsChannel::Progress TlsChannel::handshake()
{
  std::lock_guard const guard(m_mutex);
  ERR_clear_error();
  int const result = SSL_do_handshake(m_session.get());
  if (result == 1)
  {
    X509* const certificate = SSL_get1_peer_certificate(m_session.get());
    if (certificate != nullptr)
    {
      m_peer.emplace(certificate);
      return Progress::DONE;
    }
    m_reason = "it shows no certificate";
    return Progress::FAILED;
  }
  switch (int const error = SSL_get_error(m_session.get(), result))
  {
  case SSL_ERROR_WANT_READ:
    return Progress::READ;
  case SSL_ERROR_WANT_WRITE:
    return Progress::WRITE;
  default:
    noteFailure(error);
    return Progress::FAILED;
  }
}

TlsChannel::Progress TlsChannel::handshake(Clock::time_point deadline)
{
  for (;;)
  {
    auto const progress = handshake();
    if (progress == Progress::DONE || progress == Progress::FAILED)
      return progress;
    if (waitForSocket(m_wire->descriptor, progress == Progress::READ ? POLLIN : POLLOUT, deadline))
      continue;
    std::lock_guard const guard(m_mutex);
    m_reason = "it does not go on with the handshake";
    return Progress::FAILED;
  }
}

// Under m_mutex. result is what reading or writing gave, and not a success.
TlsChannel::Progress TlsChannel::advance(int result)
{
  int const error = SSL_get_error(m_session.get(), result);
  if (error == SSL_ERROR_WANT_READ)
    return Progress::READ;
  if (error == SSL_ERROR_WANT_WRITE)
    return Progress::WRITE;
  noteFailure(error);
  return Progress::FAILED;
}

int TlsChannel::receive(void* data, std::size_t size, Clock::time_point deadline)
{
  for (;;)
  {
    short events = POLLIN;
    {
      std::lock_guard const guard(m_mutex);
      ERR_clear_error();
      int const got = SSL_read(m_session.get(), data, asSize(size));
      if (got > 0)
        return got;
      auto const progress = advance(got);
      if (progress == Progress::FAILED)
        return -1;
      if (progress == Progress::WRITE)
        events = POLLOUT;
    }
    if (!waitForSocket(m_wire->descriptor, events, deadline))
      return 0;
  }
}

int TlsChannel::send(void const* data, std::size_t size, Clock::time_point deadline)
{
  for (;;)
  {
    short events = POLLOUT;
    {
      std::lock_guard const guard(m_mutex);
      ERR_clear_error();
      int const sent = SSL_write(m_session.get(), data, asSize(size));
      if (sent > 0)
        return sent;
      auto const progress = advance(sent);
      if (progress == Progress::FAILED)
        return -1;
      if (progress == Progress::READ)
        events = POLLIN;
    }
    if (!waitForSocket(m_wire->descriptor, events, deadline))
      return 0;
  }
}

int TlsChannel::receiveNow(void* data, std::size_t size)
{
  std::lock_guard const guard(m_mutex);
  ERR_clear_error();
  int const got = SSL_read(m_session.get(), data, asSize(size));
  if (got > 0)
    return got;
  // Who asks for new keys and does not read them would be looked at for ever.
  return advance(got) == Progress::READ ? 0 : -1;
}

int TlsChannel::sendNow(void const* data, std::size_t size)
{
  std::unique_lock const lock(m_mutex, std::try_to_lock);
  if (!lock.owns_lock())
    return 0;
  ERR_clear_error();
  int const sent = SSL_write(m_session.get(), data, asSize(size));
  if (sent > 0)
    return sent;
  return advance(sent) == Progress::FAILED ? -1 : 0;
}

bool TlsChannel::holdsBytes() const
{
  std::lock_guard const guard(m_mutex);
  return SSL_pending(m_session.get()) > 0;
}

} // namespace Quillon::Tessarine::Ozf
