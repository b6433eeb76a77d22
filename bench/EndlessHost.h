// A host that does harm to whoever asks it.

#pragma once

#include "bench/HarmingProcess.h"

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

private:
  HarmingProcess m_process;
};

} // namespace tqbench
