// Names of hosts.

#pragma once

#include "ozf/base/CodePage.h"
#include "ozf/base/Export.h"
#include "ozf/base/OzfString.h"

#include <string>

namespace Quillon::Tessarine::Ozf
{

class OZF_EXPORT OzfHostname
{
public:
  OzfHostname() = default;

  // Takes the first length bytes of name, all of it when length is negative,
  // without surrounding white space. An empty result leaves the name unset.
  // Returns whether a name is set afterwards.
  bool setHostname(std::string const& name, int length = -1);

  // The name of this host: the one given to overrideLocal, else the system's
  // host name. Returns false, and leaves the name unset, when there is none.
  bool setLocal();

  bool empty() const noexcept { return m_name.empty(); }
  std::string const& exportNarrow() const noexcept { return m_name; }
  OzfString toString(CodePage page = CodePage::Utf8) const { return OzfString(m_name, page); }

  // Gives this process another name for its own host (configuration key
  // CLIENT_NAME); empty goes back to the system's. Any thread.
  static void overrideLocal(std::string const& name);

private:
  std::string m_name;
};

} // namespace Quillon::Tessarine::Ozf
