// A host that does harm to whoever asks it.

#pragma once

#include <sys/types.h>

namespace tqbench
{

// A process with a service of its own that answers every other list with pages without
// end, and the others with one discovery whose payload is without end.
class EndlessHost
{
public:
  static constexpr char SERVICE[] = "EndlessService"; // ORB_PORT.EndlessService is its port

  // Forks, so this process must have neither an ORB nor threads yet. Serves when it returns.
  EndlessHost();
  ~EndlessHost();
  EndlessHost(EndlessHost const&) = delete;
  EndlessHost& operator=(EndlessHost const&) = delete;

private:
  pid_t m_pid = 0;
};

} // namespace tqbench
