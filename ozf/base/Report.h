// The way in which rooms below the logger say that something went wrong.
//
// The logger installs itself here when it is first created; until then a
// report goes to standard error, so nothing is lost at start or exit.

#pragma once

#include "ozf/base/Export.h"

#include <string>

namespace Quillon::Tessarine::Ozf
{

// Receives one report; must not throw.
using ReportSink = void (*)(int level, char const* operation, std::string const& text);

// Replaces the sink; null restores standard error. Any thread.
OZF_EXPORT void setReportSink(ReportSink sink) noexcept;

// Hands text to the sink. Any thread; never throws.
OZF_EXPORT void report(int level, char const* operation, std::string const& text) noexcept;

} // namespace Quillon::Tessarine::Ozf
