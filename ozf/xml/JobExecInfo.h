// The command line of a job.

#pragma once

#include "ozf/base/Export.h"
#include "ozf/base/OzfString.h"
#include "ozf/sync/OZFRefCounted.h"

#include <ace/Arg_Shifter.h>

#include <string>
#include <vector>

namespace Quillon::Tessarine::Ozf
{

// Not locked; once shared it does not change.
class OZF_EXPORT JobExecInfo : public virtual OZFRefCounted
{
public:
  JobExecInfo();
  explicit JobExecInfo(std::vector<std::string> arguments);

  // Takes every argument that the shifter has not yet passed, and consumes it;
  // keep adds them to the arguments held instead of replacing those.
  void setValue(ACE_Arg_Shifter& shifter, bool keep);

  std::vector<std::string> const& getArguments() const noexcept { return m_arguments; }

  // The arguments as one text, separated by blanks and quoted where needed, so
  // that ACE_ARGV takes them apart again. One thing cannot be quoted: a reader
  // of filter parameters replaces $NAME by the variable of that name in its
  // own environment, if there is one.
  OzfString getCommandLine() const;

  ~JobExecInfo() override;

private:
  std::vector<std::string> m_arguments;
};

} // namespace Quillon::Tessarine::Ozf
