#include "tests/support/FleetNetwork.h"

#include "tests/support/BecomeRoot.h"
#include "tests/support/LiveService.h"
#include "tests/support/TempDir.h"

#include <fcntl.h>
#include <sched.h>
#include <thread>
#include <unistd.h>

namespace tqtest
{

namespace
{

class LoopbackNetwork : public FleetNetwork
{
public:
  std::string address(std::size_t host) const override
  {
    // 127.1.0.8 and on: sixteen for each process.
    unsigned const number = (static_cast<unsigned>(getpid()) * 16) & 0xfffffU;
    return "127." + std::to_string(1 + (number >> 16)) + '.' +
           std::to_string((number >> 8) & 0xffU) + '.' +
           std::to_string((number & 0xffU) + 1 + host);
  }
  std::vector<std::string> wrapper(std::size_t) const override { return {}; }
  Process::Environment callingFrom(std::size_t host) const override
  {
    return {{"TQ_CALL_FROM", address(host)}, {"LD_PRELOAD", TQ_FIXTURE_DIR "/libcall_from.so"}};
  }
  bool setLink(std::size_t, bool) override { return false; }
};

class NamespaceNetwork : public FleetNetwork
{
public:
  explicit NamespaceNetwork(std::size_t hosts) : m_switch(makeNamespace())
  {
    std::string links = "link add name bridge type bridge\nlink set bridge up\n";
    for (std::size_t host = 0; host < hosts; ++host)
    {
      m_hosts.push_back(makeNamespace());
      links += "link add " + port(host) + " type veth peer name eth0 netns " +
               pathOf(m_hosts.back()) + "\nlink set " + port(host) + " master bridge up\n";
    }
    configure(m_switch, links);
    for (std::size_t host = 0; host < hosts; ++host)
      configure(m_hosts[host],
                "addr add " + address(host) + "/24 dev eth0\nlink set eth0 up\nlink set lo up\n");
  }

  ~NamespaceNetwork() override
  {
    for (int const fd : m_hosts)
      close(fd);
    close(m_switch);
  }

  std::string address(std::size_t host) const override
  {
    return "10.66.0." + std::to_string(1 + host);
  }

  std::vector<std::string> wrapper(std::size_t host) const override { return enter(m_hosts[host]); }

  Process::Environment callingFrom(std::size_t) const override { return {}; }

  bool setLink(std::size_t host, bool up) override
  {
    configure(m_switch, "link set " + port(host) + (up ? " up\n" : " down\n"));
    return true;
  }

  // A descriptor that holds a new namespace, -1 without the right to it.
  static int makeNamespace()
  {
    int fd = -1;
    std::thread(
        [&]
        {
          if (unshare(CLONE_NEWNET) == 0)
            fd = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
        })
        .join();
    return fd;
  }

private:
  static std::string port(std::size_t host) { return "port" + std::to_string(host); }

  static std::string pathOf(int fd)
  {
    return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(fd);
  }

  static std::vector<std::string> enter(int fd)
  {
    return {"/usr/bin/nsenter", "--net=" + pathOf(fd)};
  }

  // Runs the lines of an ip batch in the namespace.
  void configure(int fd, std::string const& batch) const
  {
    writeText(m_folder / "batch", batch);
    std::vector<std::string> words = enter(fd);
    for (auto const& word : {std::string("ip"), std::string("-batch"), m_folder / "batch"})
      words.push_back(word);
    Outcome const outcome = runProgram(words.front(), {words.begin() + 1, words.end()});
    EXPECT_EQ(outcome.exitCode, 0) << batch << outcome.errors;
  }

  TempDir m_folder;
  int const m_switch;
  std::vector<int> m_hosts;
};

} // namespace

std::unique_ptr<FleetNetwork> makeLoopbackNetwork() { return std::make_unique<LoopbackNetwork>(); }

std::unique_ptr<FleetNetwork> makeNamespaceNetwork(std::size_t hosts, std::string& reason)
{
  reason.clear();
  int const probe = becomeRoot() ? NamespaceNetwork::makeNamespace() : -1;
  if (probe < 0)
  {
    reason = "network namespaces take root, or the right to make user namespaces";
    return nullptr;
  }
  close(probe);
  return std::make_unique<NamespaceNetwork>(hosts);
}

} // namespace tqtest
