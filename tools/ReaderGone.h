// The end of a command whose output nobody reads any more.

#pragma once

#include <thread>

namespace tqdiscoctl
{

// Ends the process as other programs end when what reads their output has
// gone: by SIGPIPE, which the ORB has ignored.
[[noreturn]] void endWithReader();

// While it lives, the process ends as soon as whoever reads its standard output
// has gone, also while it waits for another host or has nothing to write. For
// commands that only read: what others have begun is worth finishing. Without
// effect when standard output is neither a pipe nor a socket.
class WhileRead
{
public:
  WhileRead();
  ~WhileRead();
  WhileRead(WhileRead const&) = delete;
  WhileRead& operator=(WhileRead const&) = delete;

private:
  int m_end = -1; // an event that ends the thread
  std::thread m_thread;
};

} // namespace tqdiscoctl
