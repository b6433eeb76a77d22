// tqdisco as a process, the master of a product root of its own on a loopback
// port, and tqdiscoctl beside it. The service logs to its standard error.

#pragma once

#include "tests/support/Process.h"
#include "tests/support/Service.h"
#include "tests/support/TempDir.h"

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace tqtest
{

struct Outcome
{
  int exitCode;
  std::string output;
  std::string errors;
};

// Runs a program to its end.
inline Outcome runProgram(std::string const& path, std::vector<std::string> const& arguments,
                          Process::Environment const& environment = {})
{
  Process process(path, arguments, environment);
  EXPECT_TRUE(process.wait()) << path << " does not end";
  return {process.exitCode(), process.output(), process.errors()};
}

inline std::size_t occurrences(std::string const& text, std::string const& part)
{
  std::size_t count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
    ++count;
  return count;
}

class LiveService
{
public:
  enum Explorers
  {
    WITHOUT_EXPLORERS, // only what addPlugin brings
    WITH_EXPLORERS
  };
  using Words = std::vector<std::string>;

  static constexpr char const* NAME = "tqtestmaster";

  // Several that ask each other are on one port, at addresses of their own.
  explicit LiveService(Explorers explorers = WITHOUT_EXPLORERS, std::string name = NAME,
                       std::string address = "127.0.0.1", unsigned short port = freePort())
      : m_name(std::move(name)), m_address(std::move(address)), m_port(port)
  {
    namespace fs = std::filesystem;
    fs::create_directories(m_root / "etc");
    fs::create_directories(m_root / "lib/plugins");
    // Nobody else may write where libraries lie, whatever the umask; anybody
    // may read, for services that run as another user.
    for (auto const& folder : {m_root.path(), m_root / "lib", m_root / "lib/plugins"})
      fs::permissions(folder, fs::perms(0755));
    if (explorers == WITH_EXPLORERS)
      addExplorers();
    configure();
  }

  // Takes hold at the next start. Lines that begin with another SERVER have that one
  // alone.
  void configure(std::string const& more = "")
  {
    std::string const server = more.starts_with("SERVER = ") ? "" : "SERVER = " + m_name + "\n";
    writeText(m_root / "etc/tq.conf",
              server + "CLIENT_NAME = " + m_name + "\nHOST_ADDRESS." + m_name + " = " + m_address +
                  "\nORB_BIND = " + m_address +
                  "\nORB_PORT.DiscoveryService = " + std::to_string(m_port) + "\n" + more);
  }

  // For the next start.
  void addExplorers() { addLibrary(TQ_LIB_DIR "/libtqexplorer.so", "lib/libtqexplorer.so"); }

  // A fixture as the plug-in libtqplugin-<name>.so.
  void addPlugin(std::string const& fixture, std::string const& name)
  {
    addLibrary(TQ_FIXTURE_DIR "/lib" + fixture + ".so", "lib/plugins/libtqplugin-" + name + ".so");
  }

  // Puts the programs and their libraries where every user may read them: the
  // build may lie in a folder of one user's own. For runs as another user.
  void shareProgramsWithEverybody()
  {
    namespace fs = std::filesystem;
    for (auto const& folder : {"programs", "programs/bin", "programs/lib"})
    {
      fs::create_directory(m_root / folder);
      fs::permissions(m_root / folder, fs::perms(0755));
    }
    for (auto const& program : {"tqdisco", "tqdiscoctl"})
      fs::copy_file(std::string(TQ_BIN_DIR "/") + program,
                    m_root / ("programs/bin/" + std::string(program)));
    for (auto const& library : {"libozf.so.1", "libtqdiscovery.so.1"})
      fs::copy_file(std::string(TQ_LIB_DIR "/") + library,
                    m_root / ("programs/lib/" + std::string(library)));
    m_bin = m_root / "programs/bin";
  }

  std::string program(std::string const& name) const { return m_bin + "/" + name; }

  // Starts it, as the last words of a command that ends by executing it when
  // there are wrapper words.
  Process& launch(Process::Environment environment = {}, Words const& wrapper = {})
  {
    environment["TESSARINE_ROOT"] = m_root.path();
    if (m_bin != TQ_BIN_DIR)
      environment["LSAN_OPTIONS"] = ""; // names a file that only this user may read
    Words words(wrapper);
    words.push_back(program("tqdisco"));
    std::string const first = words.front();
    words.erase(words.begin());
    m_process = std::make_unique<Process>(first, words, environment);
    return *m_process;
  }

  // Starts it and waits until it serves.
  bool start(Process::Environment const& environment = {}, Words const& wrapper = {})
  {
    return launch(environment, wrapper).awaitError("main: Started, version");
  }

  // The exit code, or -1 when it does not end in time.
  int stop(int signal = SIGTERM)
  {
    m_process->sendSignal(signal);
    return m_process->wait() ? m_process->exitCode() : -1;
  }

  Process& process() { return *m_process; }
  std::string log() const { return m_process->errors(); }

  Outcome tqdiscoctl(Words const& arguments) const
  {
    return runProgram(TQ_BIN_DIR "/tqdiscoctl", arguments, {{"TESSARINE_ROOT", m_root.path()}});
  }

  std::string database() const { return m_root / "db/discovery"; }
  std::string operator/(std::string const& name) const { return m_root / name; }
  std::string const& root() const { return m_root.path(); }
  unsigned short port() const { return m_port; }
  std::string const& name() const { return m_name; }
  std::string const& address() const { return m_address; }

private:
  void addLibrary(std::string const& from, std::string const& to)
  {
    namespace fs = std::filesystem;
    fs::copy_file(from, m_root / to);
    fs::permissions(m_root / to, fs::perms(0755));
  }

  TempDir m_root;
  std::string const m_name;
  std::string const m_address;
  std::string m_bin = TQ_BIN_DIR;
  unsigned short m_port;
  std::unique_ptr<Process> m_process;
};

} // namespace tqtest
