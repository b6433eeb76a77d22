// Another process that holds a record lock, and questions about record locks
// that only another process can ask.

#pragma once

#include "discovery/DiscDBLock.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

// Polls until the condition holds; false when it has not within the deadline.
inline bool eventually(std::function<bool()> const& condition,
                       std::chrono::seconds deadline = std::chrono::seconds(60))
{
  auto const end = std::chrono::steady_clock::now() + deadline;
  while (!condition())
  {
    if (std::chrono::steady_clock::now() >= end)
      return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

inline int lockByte0(int fd, short type, int command = F_SETLK)
{
  struct flock lock
  {
  };
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_len = 1;
  return fcntl(fd, command, &lock);
}

// Holds a lock on byte 0 of the file, F_RDLCK or F_WRLCK, until told to run
// the last action and leave. Only async-signal-safe things belong there.
class OtherProcess
{
public:
  OtherProcess(std::string const& path, short type, std::function<void()> const& last = {})
  {
    int toChild[2];
    int fromChild[2];
    if (pipe(toChild) != 0 || pipe(fromChild) != 0)
    {
      ADD_FAILURE() << "no pipe";
      return;
    }
    m_pid = fork();
    if (m_pid == 0)
    {
      close(toChild[1]);
      int const fd = ::open(path.c_str(), O_RDWR | O_CREAT, 0644);
      char byte = fd >= 0 && lockByte0(fd, type) == 0 ? 'y' : 'n';
      if (write(fromChild[1], &byte, 1) == 1 && read(toChild[0], &byte, 1) == 0 && last)
        last();
      _exit(0);
    }
    close(toChild[0]);
    close(fromChild[1]);
    m_toChild = toChild[1];
    char byte = 'n';
    if (read(fromChild[0], &byte, 1) != 1 || byte != 'y')
      ADD_FAILURE() << "the other process cannot lock " << path;
    close(fromChild[0]);
  }
  ~OtherProcess() { leave(); }
  OtherProcess(OtherProcess const&) = delete;
  OtherProcess& operator=(OtherProcess const&) = delete;

  void leave()
  {
    if (m_pid <= 0)
      return;
    close(m_toChild);
    waitpid(m_pid, nullptr, 0);
    m_pid = -1;
  }

private:
  pid_t m_pid = -1;
  int m_toChild = -1;
};

// What another process is told of the locks on byte 0, or on the one given:
// F_RDLCK, F_WRLCK or F_UNLCK.
inline short lockSeenByOthers(std::string const& path, off_t at = 0)
{
  pid_t const pid = fork();
  if (pid == 0)
  {
    struct flock lock
    {
    };
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = at;
    lock.l_len = 1;
    int const fd = ::open(path.c_str(), O_RDWR);
    _exit(fd >= 0 && fcntl(fd, F_GETLK, &lock) == 0 ? lock.l_type : 99);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return static_cast<short>(WEXITSTATUS(status));
}

// Whether another process waits for a lock on the file, or a thread of this one
// for any.
inline bool someoneWaitsFor(std::string const& path)
{
  if (Quillon::Tessarine::Ozf::DiscoverySvc::LockWait::inProgress() > 0)
    return true;
  struct stat status
  {
  };
  if (stat(path.c_str(), &status) != 0)
    return false;
  std::string const inode = ":" + std::to_string(status.st_ino) + " ";
  std::ifstream locks("/proc/locks");
  for (std::string line; std::getline(locks, line);)
  {
    if (line.find("->") != std::string::npos && line.find(inode) != std::string::npos)
      return true;
  }
  return false;
}
