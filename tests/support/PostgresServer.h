// A PostgreSQL of a test's own: in a directory of its own, on a Unix socket in it, as an
// unprivileged user. Never the system's.

#pragma once

#include "tests/support/Certificates.h"
#include "tests/support/LiveService.h"

#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <sys/file.h>
#include <unistd.h>
#include <vector>

namespace tqtest
{

class PostgresServer
{
public:
  using Words = std::vector<std::string>;

  static constexpr char const* PROGRAMS = "/usr/lib/postgresql/15/bin/";
  static constexpr char const* OWNER = "owner";   // its superuser
  static constexpr unsigned UNPRIVILEGED = 65534; // who runs it where the test is root

  // Not started yet. lasting: what is committed survives the machine; a test that does not
  // look for that is faster without.
  explicit PostgresServer(bool lasting = false) : m_lasting(lasting)
  {
    std::filesystem::permissions(m_root.path(), std::filesystem::perms(0755));
    give(m_root.path());
  }

  // What the machine would have to be told before; entries are lines of postgresql.conf.
  bool create(std::string const& entries = "")
  {
    std::string const from = sealedTemplate();
    return !from.empty() && run("/bin/cp", {"-a", from, data()}) && configure(entries);
  }

  // At 127.0.0.1 as well, for TLS alone, with a certificate for that name. Before it starts.
  bool serveTls(CertificateAuthority& authority, std::string const& name)
  {
    m_port = freePort();
    authority.issue(data(), "server", wishFor(name));
    for (char const* const file : {"/server.pem", "/server.key"})
      give(data() + file);
    writeText(data() + "/pg_hba.conf", "local all all trust\nhostssl all all 127.0.0.1/32 trust\n");
    return configure("listen_addresses = '127.0.0.1'\nport = " + std::to_string(m_port) +
                     "\nssl = on\nssl_cert_file = 'server.pem'\nssl_key_file = 'server.key'\n");
  }

  // A standby of that server, which runs.
  bool createStandbyOf(PostgresServer const& primary)
  {
    return runUnprivileged(std::string(PROGRAMS) + "pg_basebackup",
                           {"-D", data(), "-h", primary.socket(), "-U", OWNER, "-R", "-X", "stream",
                            "-c", "fast", "--no-sync"}) &&
           configure("");
  }

  // Waits until it takes connections. wrapper: words of a command that ends by executing it.
  bool start(Words const& wrapper = {})
  {
    Words words = wrapper;
    if (geteuid() == 0)
      words.insert(words.end(), {"/usr/bin/setpriv", "--reuid=" + std::to_string(UNPRIVILEGED),
                                 "--regid=" + std::to_string(UNPRIVILEGED), "--clear-groups",
                                 "--pdeathsig=KILL"});
    words.insert(words.end(), {std::string(PROGRAMS) + "postgres", "-D", data()});
    std::string const first = words.front();
    words.erase(words.begin());
    m_process = std::make_unique<Process>(first, words, Process::Environment{{"LC_ALL", "C"}});
    return m_process->awaitError("ready to accept");
  }

  // In order, but without waiting for its clients.
  bool stop()
  {
    m_process->sendSignal(SIGINT);
    return m_process->wait();
  }

  // At once, as if the machine had failed.
  bool kill()
  {
    m_process->sendSignal(SIGQUIT);
    return m_process->wait();
  }

  bool promote()
  {
    return runUnprivileged(std::string(PROGRAMS) + "pg_ctl", {"promote", "-w", "-D", data()});
  }

  // For clients: where it is and who they are, and nothing of the user's own.
  Process::Environment environment(std::string const& user = OWNER,
                                   std::string const& database = "postgres") const
  {
    return {{"PGHOST", socket()},
            {"PGPORT", std::to_string(m_port)},
            {"PGUSER", user},
            {"PGDATABASE", database},
            {"PGPASSFILE", "/nonexistent"},
            {"PGSERVICEFILE", "/nonexistent"}};
  }

  // What the statements print: a line for each row, with | between columns.
  std::string sql(std::string const& statements, std::string const& database = "postgres") const
  {
    Outcome const outcome =
        runProgram(std::string(PROGRAMS) + "psql",
                   {"-X", "-A", "-t", "-q", "-v", "ON_ERROR_STOP=1", "-c", statements},
                   environment(OWNER, database));
    EXPECT_EQ(outcome.exitCode, 0) << statements << '\n' << outcome.errors;
    std::string text = outcome.output;
    while (!text.empty() && text.back() == '\n')
      text.pop_back();
    return text;
  }

  std::string socket() const { return m_root.path(); }
  unsigned short port() const { return m_port; }
  std::string data() const { return m_root / "data"; }
  Process& process() { return *m_process; }

  // Makes a path the server's own.
  static void give(std::string const& path)
  {
    if (geteuid() == 0 && chown(path.c_str(), UNPRIVILEGED, UNPRIVILEGED) != 0)
      ADD_FAILURE() << "cannot give " << path << " away";
  }

private:
  static bool run(std::string const& program, Words const& arguments)
  {
    Outcome const outcome = runProgram(program, arguments, {{"LC_ALL", "C"}});
    EXPECT_EQ(outcome.exitCode, 0) << program << ": " << outcome.errors;
    return outcome.exitCode == 0;
  }

  static bool runUnprivileged(std::string const& program, Words const& arguments)
  {
    if (geteuid() != 0)
      return run(program, arguments);
    Words words = {"--reuid=" + std::to_string(UNPRIVILEGED),
                   "--regid=" + std::to_string(UNPRIVILEGED), "--clear-groups", program};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return run("/usr/bin/setpriv", words);
  }

  // Making the files of a server takes seconds: all tests of a build copy the same ones.
  static std::string sealedTemplate()
  {
    std::string const place = TQ_BINARY_DIR "/postgres-" + std::to_string(geteuid());
    int const lock = open((place + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    EXPECT_EQ(0, flock(lock, LOCK_EX));
    bool isThere = std::filesystem::exists(place + "/PG_VERSION");
    if (!isThere)
    {
      TempDir made;
      std::filesystem::permissions(made.path(), std::filesystem::perms(0755));
      give(made.path());
      std::filesystem::remove_all(place + ".new"); // of a test that was killed
      isThere = runUnprivileged(std::string(PROGRAMS) + "initdb",
                                {"-D", made / "data", "-N", "-U", OWNER, "-A", "trust", "-E",
                                 "UTF8", "--locale=C.UTF-8"}) &&
                run("/bin/cp", {"-a", made / "data", place + ".new"}) &&
                rename((place + ".new").c_str(), place.c_str()) == 0;
    }
    close(lock);
    return isThere ? place : std::string();
  }

  bool configure(std::string const& entries) const
  {
    std::ofstream out(data() + "/postgresql.auto.conf", std::ios::app);
    out << "listen_addresses = ''\nunix_socket_directories = '" << socket()
        << "'\nshared_buffers = 16MB\nmax_connections = 20\nlogging_collector = off\n"
           "log_destination = 'stderr'\nlog_min_messages = warning\n"
           "dynamic_shared_memory_type = posix\n"
        << (m_lasting ? "" : "fsync = off\n") << entries;
    out.close();
    EXPECT_TRUE(out);
    return !out.fail();
  }

  bool const m_lasting;
  TempDir m_root;
  unsigned short m_port = 5432;
  std::unique_ptr<Process> m_process;
};

} // namespace tqtest
