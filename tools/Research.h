// What it takes to ask services: the ORB, and the research API over it.

#pragma once

#include "ozf/orb/Orb.h"

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

  // From start on, also from one that failed; else null.
  Quillon::Tessarine::Ozf::Orb* orb() const noexcept { return m_orb.get(); }

private:
  std::unique_ptr<Quillon::Tessarine::Ozf::Orb> m_orb;
  bool m_research = false;
};

} // namespace tqdiscoctl
