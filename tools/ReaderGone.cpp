#include "tools/ReaderGone.h"

#include <csignal>
#include <cstdint>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tqdiscoctl
{

namespace
{

bool canBeLeft(int fd)
{
  struct stat status
  {
  };
  return fstat(fd, &status) == 0 && (S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode));
}

void awaitEnd(int end)
{
  for (;;)
  {
    pollfd waits[] = {{STDOUT_FILENO, 0, 0}, {end, POLLIN, 0}};
    if (poll(waits, 2, -1) <= 0)
      continue;
    if (waits[1].revents != 0)
      return;
    if ((waits[0].revents & (POLLERR | POLLHUP)) != 0)
      endWithReader();
  }
}

} // namespace

void endWithReader()
{
  std::signal(SIGPIPE, SIG_DFL);
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGPIPE);
  pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
  std::raise(SIGPIPE);
  _exit(128 + SIGPIPE);
}

WhileRead::WhileRead()
{
  if (!canBeLeft(STDOUT_FILENO) || (m_end = eventfd(0, EFD_CLOEXEC)) < 0)
    return;
  // Signals are for the thread that the command runs in.
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  m_thread = std::thread([end = m_end] { awaitEnd(end); });
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

WhileRead::~WhileRead()
{
  if (!m_thread.joinable())
    return;
  std::uint64_t const one = 1;
  while (write(m_end, &one, sizeof one) < 0)
    ;
  m_thread.join();
  close(m_end);
}

} // namespace tqdiscoctl
