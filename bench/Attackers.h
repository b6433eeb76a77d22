// Very many connections that do harm, all in the same way.

#pragma once

#include "bench/HarmingProcess.h"

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

using SSL_CTX = struct ssl_ctx_st;

namespace tqbench
{

struct Attack
{
  enum Manner
  {
    WAIT,        // until the service ends the connection
    ASK_AGAIN,   // send the next message after each answer
    SEND_ALWAYS, // one message after the other, and read nothing
    LEAVE        // end the connection at once
  };

  std::string work;                  // what each does, for the table
  std::vector<std::string> messages; // in turn, whoever sends
  Manner manner = WAIT;
  int anew = 2000; // so many connections a second take the place of those that ended, at most
  // With any, the connections shake hands first, one as this and the next as that.
  std::vector<std::shared_ptr<SSL_CTX>> proofs{};
};

// A process of its own with so many connections, from a few addresses, to the service
// at that port of 127.0.0.1. Connections that end are opened anew.
class Attackers
{
public:
  // Returns a second after all have been opened. Forks, so this process must have neither an
  // ORB nor threads.
  Attackers(Attack const& attack, unsigned short port, std::size_t connections);

private:
  HarmingProcess m_process;
};

} // namespace tqbench
