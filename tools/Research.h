// What it takes to ask services: the ORB, and the research API over it.

#pragma once

#include "ozf/orb/Orb.h"

#include <functional>
#include <memory>
#include <string>

namespace tqdiscoctl
{

// Brings both up, and down again at its end, when all that was read through them is
// released. One a process.
class Research
{
public:
  Research() = default;
  ~Research();
  Research(Research const&) = delete;
  Research& operator=(Research const&) = delete;

  // name: the ORB's, for the log. False, with the reason in error, when something of it
  // cannot be had. Has lists and payloads come in pages that are worth a round trip, as far as
  // the configuration says nothing else.
  bool start(std::string const& name, std::string& error);

  // Waits for the end of a program that has started it, as tqdiscoctl::awaitStop does. After
  // tell of a SIGHUP the files of TLS are read anew, so that calls over new connections go by
  // a renewed certificate; that the one in use ends soon is told in the log.
  static void awaitStop(std::function<void(std::string const&)> const& tell);

  // From start on, also from one that failed; else null.
  Quillon::Tessarine::Ozf::Orb* orb() const noexcept { return m_orb.get(); }

private:
  std::unique_ptr<Quillon::Tessarine::Ozf::Orb> m_orb;
  bool m_research = false;
};

} // namespace tqdiscoctl
