// The server of HTTP.

#pragma once

#include "ozf/base/SystemError.h"
#include "web/Access.h"
#include "web/AnswersSent.h"
#include "web/Connections.h"
#include "web/EventStreams.h"
#include "web/ReaderPool.h"
#include "web/Router.h"
#include "web/Settings.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

struct MHD_Connection;
struct MHD_Daemon;

namespace Web
{

class Channel;

// Threads of its own answer what needs no master, others wait for masters, and one ends who
// is too slow. From start to stop, which the end of the object calls.
class HttpServer
{
public:
  HttpServer(Settings const& settings, Router const& router, EventStreams& events);
  ~HttpServer() { stop(); }
  HttpServer(HttpServer const&) = delete;
  HttpServer& operator=(HttpServer const&) = delete;

  // False, with the reason, when it cannot listen.
  bool start(std::string& error);

  // Answers in progress end, as far as they may be waited for.
  void stop();

  // Connections that are open.
  std::size_t connections() const { return m_connections.count(); }

private:
  struct Exchange;
  struct Callbacks;
  friend struct Callbacks;

  bool daemonStarted(int socket, std::string& error);
  int answer(MHD_Connection* connection, Exchange& exchange, char const* method,
             char const* version);
  int carryOut(MHD_Connection* connection, Exchange& exchange, Plan plan);
  int stream(MHD_Connection* connection, Plan const& plan);
  ReaderPool& readersFor(Plan const& plan) const;
  // False also when there is no memory for it.
  static bool isTaken(ReaderPool& readers, std::string const& peer, ReaderPool::Job job);
  // What left is 0 or less of is not read any more.
  Answer readNow(std::function<Answer()> const& read, std::chrono::seconds left) const;
  // Whether all has been.
  bool isWritten(Channel& channel, std::function<void(std::ostream&)> const& write, bool isZipped,
                 std::chrono::seconds left) const;
  int queue(MHD_Connection* connection, Answer const& answer);
  void endSlowOnes();

  Settings const& m_settings;
  Router const& m_router;
  EventStreams& m_events;
  Access const m_access;
  Connections m_connections;
  AnswersSent m_sent; // goes after the daemon
  // The first for what waits for no master, the second for what waits for all, and where there
  // are several one for each: who waits for one that hangs keeps none from the others.
  std::vector<std::unique_ptr<ReaderPool>> m_readers;
  std::string m_path; // of the socket that was made
  MHD_Daemon* m_daemon = nullptr;
  std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_ending = false;
  std::thread m_watcher;
};

} // namespace Web
