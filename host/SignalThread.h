// Signals, taken by one thread.

#pragma once

#include "host/Options.h"
#include "ozf/base/SystemError.h"
#include "ozf/tls/CurrentTls.h"

#include <atomic>
#include <csignal>
#include <string>
#include <thread>

namespace Host
{

// Blocks the signals that the thread takes, in the calling thread and those it
// starts from now on, and has SIGPIPE ignored. Call it first of all.
void blockSignals();

// Stops the service on SIGTERM and SIGINT (later ones are noted and change
// nothing). On SIGHUP opens the logs anew and takes what a reload can change of the
// configuration, with the files that TLS names; one with a mistake is refused whole.
// Tells of a certificate that ends. The service is made before and destroyed after the
// thread.
class SignalThread
{
public:
  explicit SignalThread(Options const& options);

  // Ends and joins the thread.
  ~SignalThread();
  SignalThread(SignalThread const&) = delete;
  SignalThread& operator=(SignalThread const&) = delete;

  // False, with the reason in error, when it cannot be started.
  bool start(std::string& error);

private:
  void loop();
  void take(int signal);
  void reload() const;

  Options const m_options;
  bool m_stopping = false; // the thread's own
  std::atomic<bool> m_ending{false};
  Quillon::Tessarine::Ozf::ExpiryWarning m_expiry;
  Quillon::Tessarine::Ozf::UniqueFd m_signals;
  Quillon::Tessarine::Ozf::UniqueFd m_end;
  std::thread m_thread;
};

} // namespace Host
