// Very many connections that do harm, all in the same way.

#pragma once

#include <cstddef>
#include <string>
#include <sys/types.h>

namespace tqbench
{

struct Attack
{
  enum Manner
  {
    WAIT,        // until the service ends the connection
    ASK_AGAIN,   // send the same again after each answer
    SEND_ALWAYS, // the same again and again, and read nothing
    LEAVE        // end the connection at once
  };

  std::string work;    // what each does, for the table
  std::string message; // what each begins with
  Manner manner = WAIT;
  int anew = 2000; // so many connections a second take the place of those that ended, at most
};

// A process of its own with so many connections, from a few addresses, to the service
// at that port of 127.0.0.1. Connections that end are opened anew.
class Attackers
{
public:
  // Returns a second after all have been opened. Forks, so this process must have neither an
  // ORB nor threads.
  Attackers(Attack const& attack, unsigned short port, std::size_t connections);
  ~Attackers();
  Attackers(Attackers const&) = delete;
  Attackers& operator=(Attackers const&) = delete;

private:
  pid_t m_pid = 0;
};

} // namespace tqbench
