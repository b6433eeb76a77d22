// Writes to a connection that the other side has ended.

#pragma once

#include <csignal>

namespace tqtest
{

// While it lives such a write of this thread fails, as EPIPE, and does not end the
// process. Signals are not ignored for that: programs that a test starts would inherit it.
class BrokenPipes
{
public:
  BrokenPipes()
  {
    sigemptyset(&m_signal);
    sigaddset(&m_signal, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &m_signal, &m_before);
  }
  ~BrokenPipes()
  {
    timespec const atOnce{};
    while (sigtimedwait(&m_signal, nullptr, &atOnce) == SIGPIPE)
      continue;
    pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
  }
  BrokenPipes(BrokenPipes const&) = delete;
  BrokenPipes& operator=(BrokenPipes const&) = delete;

private:
  sigset_t m_signal{};
  sigset_t m_before{};
};

} // namespace tqtest
