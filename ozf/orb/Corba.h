// The only place that includes an ORB product's headers besides the generated
// stubs. Users stay within the standard C++ mapping.

#pragma once

#include <omniORB4/CORBA.h>
#include <omniORB4/poa.h>

#include <string>

#include "ozf/base/Export.h"

namespace Quillon::Tessarine::Ozf
{

// "COMM_FAILURE (minor 0x41540009, completed NO)": what log lines say of an
// exception.
OZF_EXPORT std::string corbaExceptionText(CORBA::Exception const& exception);

} // namespace Quillon::Tessarine::Ozf
