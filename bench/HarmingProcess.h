// A process of its own that does harm until it is killed.

#pragma once

#include <functional>
#include <sys/types.h>

namespace tqbench
{

// It ends with this process at the latest.
class HarmingProcess
{
public:
  // Has a child process do the work, which gets the end of a pipe and writes a byte to it
  // once it is at it; returns then. Throws std::runtime_error with the complaint when it
  // ends before. Forks, so this process must have neither an ORB nor threads.
  HarmingProcess(std::function<void(int pipe)> const& work, char const* complaint);
  ~HarmingProcess();
  HarmingProcess(HarmingProcess const&) = delete;
  HarmingProcess& operator=(HarmingProcess const&) = delete;

private:
  void end() const;

  pid_t m_pid = 0;
};

} // namespace tqbench
