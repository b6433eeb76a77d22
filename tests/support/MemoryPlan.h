// Programs whose memory runs short when a test says so.

#pragma once

#include "tests/support/Process.h"
#include "tests/support/TempDir.h"
#include "tests/torture/LackingMemory.h"

#include <fcntl.h>
#include <stdexcept>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

namespace tqtest
{

using tqtorture::MemoryPlan;

// The plan in a file that services map; they get it by the environment.
class SharedPlan
{
public:
  SharedPlan()
  {
    writeText(path(), std::string(sizeof(MemoryPlan), '\0'));
    int const fd = open(path().c_str(), O_RDWR | O_CLOEXEC);
    void* const memory =
        mmap(nullptr, sizeof(MemoryPlan), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (memory == MAP_FAILED)
      throw std::runtime_error("cannot map " + path());
    m_plan = static_cast<MemoryPlan*>(memory);
  }
  ~SharedPlan() { munmap(m_plan, sizeof(MemoryPlan)); }
  SharedPlan(SharedPlan const&) = delete;
  SharedPlan& operator=(SharedPlan const&) = delete;

  Process::Environment environment() const
  {
    return {{"LD_PRELOAD", TQ_FIXTURE_DIR "/liblacking_memory.so"}, {"TQ_MEMORY_FILE", path()}};
  }

  void refuse(std::int64_t first, std::int64_t count)
  {
    m_plan->asked = 0;
    m_plan->refused = 0;
    m_plan->first = first;
    m_plan->last = first + count - 1;
  }
  // How many were refused.
  std::int64_t grant()
  {
    m_plan->last = 0;
    return m_plan->refused;
  }
  std::int64_t asked() const { return m_plan->asked; }

private:
  std::string path() const { return m_folder / "plan"; }

  TempDir m_folder;
  MemoryPlan* m_plan = nullptr;
};

} // namespace tqtest
