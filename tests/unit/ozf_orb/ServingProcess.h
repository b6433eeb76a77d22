// A process that serves the probe, and a client of it.

#pragma once

#include "ozf/tls/CurrentTls.h"
#include "tests/unit/ozf_orb/ProbeServant.h"

#include <csignal>
#include <sys/resource.h>
#include <sys/wait.h>

using Quillon::Tessarine::Ozf::Orb;
using Quillon::Tessarine::Ozf::OzfHostname;

inline OrbTest::Probe_var probeOf(Orb& orb, char const* name, ACE_Time_Value const& timeout = {})
{
  OzfHostname host;
  host.setHostname("127.0.0.1");
  CORBA::Object_var object = orb.resolveObject(host, "ProbeService", name, timeout);
  return OrbTest::Probe::_unchecked_narrow(object);
}

inline sockaddr_in loopback(unsigned short port, char const* address = "127.0.0.1")
{
  sockaddr_in name{};
  name.sin_family = AF_INET;
  name.sin_port = htons(port);
  inet_pton(AF_INET, address, &name.sin_addr);
  return name;
}

inline std::string serviceAt(unsigned short port, char const* address = "127.0.0.1")
{
  return std::string("ORB_BIND = ") + address +
         "\nORB_PORT.ProbeService = " + std::to_string(port) + "\n";
}

// A process of its own that serves a probe called "Probe" until the object
// goes. Calls from one process to itself do not go over the wire. It comes to be
// before this process has threads, also when it is to serve later.
class ServingProcess
{
public:
  enum Begin
  {
    AT_ONCE,
    LATER
  };

  explicit ServingProcess(rlim_t descriptors = 0, Begin when = AT_ONCE)
  {
    int toChild[2];
    int toParent[2];
    if (pipe(toChild) != 0 || pipe(toParent) != 0)
      std::abort();
    m_pid = fork();
    if (m_pid == 0)
    {
      close(toChild[1]);
      close(toParent[0]);
      _exit(serve(toChild[0], toParent[1], descriptors));
    }
    close(toChild[0]);
    close(toParent[1]);
    m_tell = toChild[1];
    m_hear = toParent[0];
    if (when == AT_ONCE)
      begin();
  }
  ~ServingProcess()
  {
    // Not by closing alone: a later one of these processes has the pipe as well.
    char const end = 'e';
    if (m_pid != -1 && write(m_tell, &end, 1) != 1)
      ADD_FAILURE() << "the serving process has ended";
    close(m_tell);
    close(m_hear);
    if (m_pid == -1)
      return;
    int status = 0;
    waitpid(m_pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  }

  void begin()
  {
    char byte = 'b';
    if (write(m_tell, &byte, 1) != 1 || read(m_hear, &byte, 1) != 1)
      ADD_FAILURE() << "the serving process did not start";
  }

  // Reads the configuration and the files that it names anew.
  void reload()
  {
    if (!obeys('l'))
      ADD_FAILURE() << "the serving process did not set TLS up anew";
  }

  // Until a call that pauses has begun.
  void awaitPause()
  {
    if (!obeys('p'))
      ADD_FAILURE() << "nobody had the serving process pause";
  }

  void kill()
  {
    EXPECT_EQ(::kill(m_pid, SIGKILL), 0);
    EXPECT_EQ(waitpid(m_pid, nullptr, 0), m_pid);
    m_pid = -1;
  }

  pid_t pid() const { return m_pid; }

private:
  bool obeys(char command)
  {
    char answer = 0;
    return write(m_tell, &command, 1) == 1 && read(m_hear, &answer, 1) == 1 && answer == command;
  }

  static bool obey(char command)
  {
    if (command == 'p')
      return eventually([] { return ProbeServant::pauses > 0; });
    std::string error;
    Quillon::Tessarine::Ozf::reloadConfiguration();
    return Quillon::Tessarine::Ozf::setUpTls(error);
  }

  static int serve(int told, int ready, rlim_t descriptors)
  {
    char byte = 0;
    if (read(told, &byte, 1) != 1 || byte != 'b')
      return 0;
    if (descriptors != 0)
    {
      rlimit const limit{descriptors, descriptors};
      setrlimit(RLIMIT_NOFILE, &limit);
    }
    Orb orb(1, "", "ProbeService", 1, 16);
    if (!orb.init() || orb.run(0) != 0)
      return 1;
    ProbeServant* const servant = new ProbeServant;
    CORBA::Object_var object = orb.activateObject(servant);
    servant->destroy = [&] { orb.destroyObjectRef(object); };
    orb.advertiseObject("Probe", object);
    servant->_remove_ref();
    if (write(ready, "r", 1) != 1)
      return 2;
    while (read(told, &byte, 1) == 1 && (byte == 'l' || byte == 'p'))
    {
      char const answer = obey(byte) ? byte : 'f';
      if (write(ready, &answer, 1) != 1)
        return 2;
    }
    orb.shutdown();
    return 0;
  }

  pid_t m_pid = -1;
  int m_tell = -1;
  int m_hear = -1;
};

struct Client
{
  Client() : orb(1, "", "client", 1, 16)
  {
    EXPECT_TRUE(orb.init());
    orb.run(0);
  }
  Orb orb;
};
