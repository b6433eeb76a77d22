#include "web/HttpServer.h"

#include "discovery/RemoteDBDrain.h"
#include "web/Channel.h"
#include "web/CommonHeaders.h"
#include "web/HeaderValues.h"
#include "web/ListenSocket.h"
#include "web/WebLog.h"
#include "web/Zip.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstring>
#include <microhttpd.h>
#include <netdb.h>
#include <new>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace Web
{

using namespace Quillon::Tessarine::Ozf;

namespace
{

constexpr char SOURCE[] = "HttpServer";
constexpr unsigned THREADS = 2;
constexpr std::chrono::seconds HEADER_TIME(10);
constexpr unsigned QUIET_SECONDS = 15; // of a connection on which nothing moves
constexpr std::size_t STREAM_BLOCK = 16384;
constexpr std::size_t OF_NONE = 0;
constexpr std::size_t OF_ALL = 1;
constexpr std::size_t FIRST_OF_ONE = 2;
constexpr char TOO_MUCH[] = "too much is asked for at the same time";
constexpr char FAILED[] = "this server failed; its log says why";

std::string_view headerOf(MHD_Connection* connection, char const* name)
{
  char const* const value = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
  return value == nullptr ? std::string_view() : value;
}

// Null of one for which there was no memory.
Peer* findPeer(MHD_Connection* connection)
{
  auto const* const info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
  return static_cast<Peer*>(info->socket_context);
}

Peer& peerOf(MHD_Connection* connection) { return *findPeer(connection); }

std::string addressOf(MHD_Connection* connection)
{
  auto const* const info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
  if (info == nullptr || info->client_addr == nullptr)
    return {};
  bool const isSix = info->client_addr->sa_family == AF_INET6;
  if (!isSix && info->client_addr->sa_family != AF_INET)
    return {};
  char host[NI_MAXHOST];
  return getnameinfo(info->client_addr, isSix ? sizeof(sockaddr_in6) : sizeof(sockaddr_in), host,
                     sizeof host, nullptr, 0, NI_NUMERICHOST) == 0
             ? host
             : std::string();
}

// Of no bytes where there is none.
MHD_Response* responseOf(std::unique_ptr<AnswersSent::Hold> body)
{
  if (!body)
    return MHD_create_response_from_buffer(0, nullptr, MHD_RESPMEM_PERSISTENT);
  std::string const& text = body->text();
  MHD_Response* const response = MHD_create_response_from_buffer_with_free_callback_cls(
      text.size(), const_cast<char*>(text.data()),
      [](void* hold) { delete static_cast<AnswersSent::Hold*>(hold); }, body.get());
  if (response != nullptr)
    body.release(); // NOLINT(bugprone-unused-return-value): the response's
  return response;
}

MHD_Result resultOf(int result) { return result != 0 ? MHD_YES : MHD_NO; }

} // namespace

// One request with its answer.
struct HttpServer::Exchange
{
  std::string text; // of the target, as it came
  bool begun = false;

  // Of an answer that another thread makes.
  enum State
  {
    NOT_ASKED,
    ASKED,
    MADE,
    TOO_MANY, // others are asked for
    BROKEN    // there was not even the memory for a problem
  };
  std::atomic<State> state{NOT_ASKED};
  Answer made;

  Answer take()
  {
    switch (state)
    {
    case MADE:
      return std::move(made);
    case TOO_MANY:
      return problem(503, TOO_MUCH);
    case BROKEN:
      return problem(500, FAILED);
    default:
      return problem(503, "this server stops");
    }
  }
};

// What the library calls, with the server behind it. No exception may leave.
struct HttpServer::Callbacks
{
  static void* target(void*, char const* uri, MHD_Connection* connection)
  {
    try
    {
      auto exchange = std::make_unique<Exchange>();
      exchange->text = uri;
      // The library keeps each parameter and each cookie beside the headers, though nobody here
      // asks it for them, and where they are many it has no memory left to say so and falls
      // silent: it is shown one of each. The text is its own buffer, and no constant; of several
      // headers with cookies it reads the first.
      std::replace(const_cast<char*>(uri), const_cast<char*>(uri) + exchange->text.size(), '&',
                   '_');
      MHD_set_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_COOKIE, "-");
      return exchange.release();
    }
    catch (std::bad_alloc const&)
    {
      return nullptr;
    }
  }

  static MHD_Result request(void* server, MHD_Connection* connection, char const*,
                            char const* method, char const* version, char const*, std::size_t*,
                            void** context)
  {
    auto& self = *static_cast<HttpServer*>(server);
    if (*context == nullptr || findPeer(connection) == nullptr)
      return MHD_NO;
    try
    {
      return resultOf(self.answer(connection, *static_cast<Exchange*>(*context), method, version));
    }
    catch (std::exception const& exception)
    {
      tell(exception.what());
      return failed(self, connection);
    }
  }

  // There may be no memory for these, either.
  static void tell(char const* failure)
  {
    try
    {
      OZF_LOG(getWebLogger(), 1, SOURCE, "HttpServer::answer",
              "Caught exception answering a request: " << failure);
    }
    catch (std::exception const&)
    {
    }
  }
  static MHD_Result failed(HttpServer& self, MHD_Connection* connection)
  {
    try
    {
      return resultOf(self.queue(connection, problem(500, FAILED)));
    }
    catch (std::exception const&)
    {
      return MHD_NO;
    }
  }

  static void completed(void* server, MHD_Connection* connection, void** context,
                        MHD_RequestTerminationCode)
  {
    delete static_cast<Exchange*>(*context);
    *context = nullptr;
    if (Peer* const peer = findPeer(connection))
      static_cast<HttpServer*>(server)->m_connections.enter(peer, Peer::IDLE);
  }

  static void connection(void* server, MHD_Connection* connection, void** context,
                         MHD_ConnectionNotificationCode code)
  {
    auto& connections = static_cast<HttpServer*>(server)->m_connections;
    if (code == MHD_CONNECTION_NOTIFY_STARTED)
    {
      try
      {
        auto peer = std::make_unique<Peer>();
        auto const* const info =
            MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
        peer->fd = info == nullptr ? -1 : info->connect_fd;
        peer->address = addressOf(connection);
        connections.opened(peer.get());
        *context = peer.release();
      }
      catch (std::bad_alloc const&)
      {
        *context = nullptr; // what it asks for is refused
      }
      return;
    }
    std::unique_ptr<Peer> const peer(static_cast<Peer*>(*context));
    if (peer)
      connections.closed(peer.get());
    *context = nullptr;
  }

  [[gnu::format(printf, 2, 0)]] static void log(void*, char const* format, va_list arguments)
  {
    char text[512];
    vsnprintf(text, sizeof text, format, arguments);
    OZF_LOG(getWebLogger(), 4, SOURCE, "HttpServer", "The server of HTTP says: " << text);
  }
};

HttpServer::HttpServer(Settings const& settings, Router const& router, EventStreams& events)
    : m_settings(settings),
      m_router(router),
      m_events(events),
      m_access(settings),
      m_connections({settings.connections,
                     std::min<std::chrono::milliseconds>(
                         HEADER_TIME, std::chrono::seconds(settings.requestTime)),
                     // What reads for it is given up first, and says so.
                     std::chrono::seconds(settings.requestTime) + HEADER_TIME}),
      m_sent(settings.sent)
{
  std::size_t const masters = settings.masters.size();
  for (std::size_t i = 0; i < FIRST_OF_ONE + (masters > 1 ? masters : 0); ++i)
    m_readers.push_back(std::make_unique<ReaderPool>(i == OF_NONE ? THREADS : settings.reads,
                                                     std::chrono::seconds(settings.requestTime)));
}

ReaderPool& HttpServer::readersFor(Plan const& plan) const
{
  bool const hasOwn = plan.master && m_readers.size() > FIRST_OF_ONE;
  return *m_readers[plan.isListed ? OF_NONE : hasOwn ? FIRST_OF_ONE + *plan.master : OF_ALL];
}

bool HttpServer::start(std::string& error)
{
  UniqueFd socket = listenAt(m_settings.listen, error);
  if (!socket.valid())
    return false;
  m_path = m_settings.listen.path;
  for (auto const& readers : m_readers)
    readers->start();
  if (!daemonStarted(socket.get(), error))
    return false;
  socket.release(); // the daemon's
  m_watcher = std::thread([this] { endSlowOnes(); });
  return true;
}

bool HttpServer::daemonStarted(int socket, std::string& error)
{
  unsigned flags = MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_EPOLL | MHD_ALLOW_SUSPEND_RESUME |
                   MHD_USE_ERROR_LOG;
  std::vector<MHD_OptionItem> options;
  auto const text = [](std::string const& value) { return const_cast<char*>(value.c_str()); };
  if (!m_settings.certificate.empty())
  {
    flags |= MHD_USE_TLS;
    options.push_back({MHD_OPTION_HTTPS_MEM_CERT, 0, text(m_settings.certificate)});
    options.push_back({MHD_OPTION_HTTPS_MEM_KEY, 0, text(m_settings.key)});
    if (!m_settings.authorities.empty())
      options.push_back({MHD_OPTION_HTTPS_MEM_TRUST, 0, text(m_settings.authorities)});
  }
  options.push_back({MHD_OPTION_END, 0, nullptr});
  m_daemon = MHD_start_daemon(
      flags, 0, nullptr, nullptr, &Callbacks::request, this, MHD_OPTION_EXTERNAL_LOGGER,
      &Callbacks::log, nullptr, MHD_OPTION_LISTEN_SOCKET, socket, MHD_OPTION_THREAD_POOL_SIZE,
      THREADS, MHD_OPTION_CONNECTION_LIMIT, m_settings.connections,
      MHD_OPTION_PER_IP_CONNECTION_LIMIT, m_settings.peerConnections, MHD_OPTION_CONNECTION_TIMEOUT,
      QUIET_SECONDS, MHD_OPTION_CONNECTION_MEMORY_LIMIT, m_settings.header,
      MHD_OPTION_URI_LOG_CALLBACK, &Callbacks::target, this, MHD_OPTION_NOTIFY_COMPLETED,
      &Callbacks::completed, this, MHD_OPTION_NOTIFY_CONNECTION, &Callbacks::connection, this,
      MHD_OPTION_ARRAY, options.data(), MHD_OPTION_END);
  if (m_daemon == nullptr)
    error = "Unable to start the server of HTTP; at level 4 the log says why";
  return m_daemon != nullptr;
}

void HttpServer::stop()
{
  {
    std::lock_guard const guard(m_mutex);
    m_ending = true;
  }
  m_changed.notify_all();
  if (m_watcher.joinable())
    m_watcher.join();
  // Closed at last: until they have ended the daemon's threads may use it.
  UniqueFd const socket(m_daemon == nullptr ? -1 : MHD_quiesce_daemon(m_daemon));
  // Whoever waits goes on, so that no connection is left waiting when the daemon ends.
  for (auto const& readers : m_readers)
    readers->stop();
  m_events.end();
  if (m_daemon != nullptr)
    MHD_stop_daemon(m_daemon);
  m_daemon = nullptr;
  if (!m_path.empty())
    unlink(m_path.c_str());
  m_path.clear();
}

void HttpServer::endSlowOnes()
{
  constexpr std::chrono::milliseconds STEP(250);
  std::unique_lock lock(m_mutex);
  while (!m_changed.wait_for(lock, STEP, [this] { return m_ending; }))
  {
    lock.unlock();
    std::size_t const ended = m_connections.endSlow(Peer::Steady::now());
    if (ended != 0)
      OZF_LOG(getWebLogger(), 4, SOURCE, "HttpServer::endSlowOnes",
              "Ended " << ended << " connections that were too slow");
    m_events.tick();
    LoggerFactory::reportLeftOut();
    lock.lock();
  }
}

int HttpServer::queue(MHD_Connection* connection, Answer const& answer)
{
  bool const isUnchanged = answer.status == 200 && !answer.etag.empty() &&
                           hasTag(headerOf(connection, MHD_HTTP_HEADER_IF_NONE_MATCH), answer.etag);
  bool const isZipped = !isUnchanged && answer.zipped &&
                        acceptsGzip(headerOf(connection, MHD_HTTP_HEADER_ACCEPT_ENCODING));
  std::string const etag = answer.etag.empty() ? std::string() : "W/" + answer.etag;
  std::unique_ptr<AnswersSent::Hold> body;
  if (!isUnchanged)
    body = m_sent.begin(isZipped ? answer.zipped : answer.body, peerOf(connection).address);
  if (!isUnchanged && !body)
    return queue(connection, problem(503, TOO_MUCH));
  MHD_Response* const response = responseOf(std::move(body));
  if (response == nullptr)
    return MHD_NO;
  addHeaders(response, answer.type, answer.isPage);
  MHD_add_response_header(response, MHD_HTTP_HEADER_VARY, "Accept, Accept-Encoding");
  if (isZipped)
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_ENCODING, "gzip");
  if (!etag.empty())
    MHD_add_response_header(response, MHD_HTTP_HEADER_ETAG, etag.c_str());
  for (auto const& [name, value] : answer.headers)
    MHD_add_response_header(response, name.c_str(), value.c_str());
  MHD_Result const result =
      MHD_queue_response(connection, isUnchanged ? MHD_HTTP_NOT_MODIFIED : answer.status, response);
  MHD_destroy_response(response);
  return result;
}

// Called once when the header is whole, and again when the request is; and once more
// when another thread has made the answer.
int HttpServer::answer(MHD_Connection* connection, Exchange& exchange, char const* method,
                       char const* version)
{
  if (exchange.state != Exchange::NOT_ASKED)
    return queue(connection, exchange.take());
  bool const isHead = std::strcmp(method, MHD_HTTP_METHOD_HEAD) == 0;
  if (!exchange.begun)
  {
    exchange.begun = true;
    Peer& peer = peerOf(connection);
    m_connections.enter(&peer, Peer::ANSWERING);
    // The library would begin its own refusal twice.
    if (std::strcmp(version, MHD_HTTP_VERSION_1_1) == 0 &&
        MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_HOST) == nullptr)
      return queue(connection, problem(400, "the header Host is missing"));
    if (auto const refusal = m_access.refusal(connection, peer))
      return queue(connection, *refusal);
    if (!isHead && std::strcmp(method, MHD_HTTP_METHOD_GET) != 0)
      return queue(connection, problem(405, "this server only tells what there is"));
    std::string_view const length = headerOf(connection, MHD_HTTP_HEADER_CONTENT_LENGTH);
    bool const hasBody = length.find_first_not_of('0') != std::string_view::npos ||
                         !headerOf(connection, MHD_HTTP_HEADER_TRANSFER_ENCODING).empty();
    return hasBody ? queue(connection, problem(413, "no request may have a body")) : MHD_YES;
  }
  Mistake mistake;
  auto target = RequestTarget::fromText(exchange.text, mistake);
  if (!target)
    return queue(connection, problem(mistake));
  Request const request{std::move(*target),
                        std::string(headerOf(connection, MHD_HTTP_HEADER_ACCEPT))};
  Plan plan = m_router.plan(request);
  if (isHead && plan.stream)
  {
    Answer none = answerOf(std::string(), plan.streamType);
    none.etag.clear();
    return queue(connection, none);
  }
  return carryOut(connection, exchange, std::move(plan));
}

int HttpServer::carryOut(MHD_Connection* connection, Exchange& exchange, Plan plan)
{
  if (plan.answer)
    return queue(connection, *plan.answer);
  if (plan.events)
  {
    std::string const lastId(headerOf(connection, "Last-Event-ID"));
    MHD_Response* const response = m_events.open(connection, lastId.empty() ? nullptr : &lastId);
    if (response == nullptr)
      return queue(connection, problem(503, TOO_MUCH));
    addHeaders(response, "text/event-stream", false);
    m_connections.enter(&peerOf(connection), Peer::ENDLESS);
    MHD_Result const result = MHD_queue_response(connection, MHD_HTTP_OK, response);
    MHD_destroy_response(response);
    return result;
  }
  if (plan.stream)
    return stream(connection, plan);

  ReaderPool::Job job =
      [this, connection, &exchange, read = std::move(plan.read)](std::chrono::seconds left)
  {
    try
    {
      exchange.made = readNow(read, left);
      exchange.state = Exchange::MADE;
    }
    catch (std::exception const&)
    {
      exchange.state = Exchange::BROKEN;
    }
    MHD_resume_connection(connection);
  };
  exchange.state = Exchange::ASKED;
  MHD_suspend_connection(connection);
  if (!isTaken(readersFor(plan), peerOf(connection).address, std::move(job)))
  {
    exchange.state = Exchange::TOO_MANY;
    MHD_resume_connection(connection);
  }
  return MHD_YES;
}

bool HttpServer::isTaken(ReaderPool& readers, std::string const& peer, ReaderPool::Job job)
{
  try
  {
    return readers.add(peer, std::move(job));
  }
  catch (std::bad_alloc const&)
  {
    return false;
  }
}

Answer HttpServer::readNow(std::function<Answer()> const& read, std::chrono::seconds left) const
{
  try
  {
    if (left.count() <= 0)
      return problem(503, TOO_MUCH);
    DiscoverySvc::ReadDeadline const deadline(left);
    DiscoverySvc::ReadSize const size(m_settings.payload);
    return read();
  }
  catch (std::length_error const&)
  {
    return problem(502, "the answer is larger than this server makes one");
  }
  catch (std::exception const& exception)
  {
    OZF_LOG(getWebLogger(), 1, SOURCE, "HttpServer::carryOut",
            "Caught exception reading for a request: " << exception.what());
    return problem(500, FAILED);
  }
}

namespace
{

// The reading end of a channel, in a response.
struct StreamEnd
{
  std::shared_ptr<Channel> channel;
  MHD_Connection* connection;

  static ssize_t read(void* end, std::uint64_t, char* buffer, std::size_t most)
  {
    auto& self = *static_cast<StreamEnd*>(end);
    MHD_Connection* const connection = self.connection;
    std::size_t count = 0;
    switch (self.channel->read(
        buffer, most, count, [connection] { MHD_suspend_connection(connection); },
        [connection] { MHD_resume_connection(connection); }))
    {
    case Channel::SOME:
      return static_cast<ssize_t>(count);
    case Channel::NONE_YET:
      return 0;
    case Channel::END:
      return MHD_CONTENT_READER_END_OF_STREAM;
    default:
      return MHD_CONTENT_READER_END_WITH_ERROR;
    }
  }

  static void release(void* end)
  {
    std::unique_ptr<StreamEnd> const self(static_cast<StreamEnd*>(end));
    self->channel->close();
  }
};

} // namespace

bool HttpServer::isWritten(Channel& channel, std::function<void(std::ostream&)> const& write,
                           bool isZipped, std::chrono::seconds left) const
{
  try
  {
    DiscoverySvc::ReadDeadline const deadline(left);
    DiscoverySvc::ReadSize const size(m_settings.payload);
    ChannelStream stream(channel);
    if (isZipped)
    {
      ZipStream zip(stream);
      write(zip);
      zip.finish();
    }
    else
      write(stream);
    return true;
  }
  catch (std::exception const& exception)
  {
    OZF_LOG(getWebLogger(), 4, SOURCE, "HttpServer::stream",
            "An answer broke off: " << exception.what());
    return false;
  }
}

int HttpServer::stream(MHD_Connection* connection, Plan const& plan)
{
  auto const channel = std::make_shared<Channel>(HEADER_TIME);
  bool const isZipped = acceptsGzip(headerOf(connection, MHD_HTTP_HEADER_ACCEPT_ENCODING));
  ReaderPool::Job make = [this, channel, isZipped, write = plan.stream](std::chrono::seconds left)
  {
    bool whole = false;
    try
    {
      whole = left.count() > 0 && isWritten(*channel, write, isZipped, left);
    }
    catch (std::exception const&)
    {
    }
    channel->finish(whole);
  };
  if (!isTaken(readersFor(plan), peerOf(connection).address, std::move(make)))
    return queue(connection, problem(503, TOO_MUCH));
  auto end = std::make_unique<StreamEnd>(StreamEnd{channel, connection});
  MHD_Response* const response = MHD_create_response_from_callback(
      MHD_SIZE_UNKNOWN, STREAM_BLOCK, &StreamEnd::read, end.get(), &StreamEnd::release);
  if (response == nullptr)
  {
    channel->close();
    return MHD_NO;
  }
  end.release(); // NOLINT(bugprone-unused-return-value): the response's
  addHeaders(response, plan.streamType, false);
  MHD_add_response_header(response, MHD_HTTP_HEADER_VARY, "Accept, Accept-Encoding");
  if (isZipped)
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_ENCODING, "gzip");
  MHD_Result const result = MHD_queue_response(connection, MHD_HTTP_OK, response);
  MHD_destroy_response(response);
  return result;
}

} // namespace Web
