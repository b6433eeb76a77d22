// The one CORBA ORB of the process, shared by the Orb objects.

#pragma once

#include "ozf/orb/Corba.h"

#include <string>

namespace Quillon::Tessarine::Ozf
{

// One of these in an Orb counts for one user of the CORBA ORB. All operations
// may be called from any thread.
class CorbaProcess
{
public:
  CorbaProcess() = default;
  ~CorbaProcess() { release(); }
  CorbaProcess(CorbaProcess const&) = delete;
  CorbaProcess& operator=(CorbaProcess const&) = delete;

  // Brings the CORBA ORB up or joins it. arguments are further options of the
  // ORB, which hold only for the user that brings it up. False, with a line at
  // level 1, when the ORB cannot listen on the port or runs on another one.
  // A port of 0 asks for none in particular.
  bool acquire(std::string const& name, unsigned short port, std::string const& arguments);

  // The last user takes the CORBA ORB down; calls in progress are waited for.
  void release() noexcept;

  // Null before acquire. After release it may be one that was taken down, whose
  // operations raise exceptions: a call that still runs may hold on to it.
  CORBA::ORB_ptr orb() const noexcept { return m_orb; }

  // The port on which the process listens.
  unsigned short port() const noexcept { return m_port; }

  // Publishes the servant under a plain key. The name replaces an older user
  // of the same name. Raises what the ORB raises.
  void publish(std::string const& name, PortableServer::Servant servant);

  // Takes every name of this servant's away that publish of this user gave it.
  void withdraw(PortableServer::Servant servant);

private:
  bool m_user = false;
  CORBA::ORB_var m_orb;
  unsigned short m_port = 0;
};

} // namespace Quillon::Tessarine::Ozf
