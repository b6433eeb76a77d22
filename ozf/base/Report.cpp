#include "ozf/base/Report.h"

#include <atomic>
#include <cstdio>

namespace Quillon::Tessarine::Ozf
{
namespace
{

void reportToStderr(int level, char const* operation, std::string const& text)
{
  std::fprintf(stderr, "%d %s: %s\n", level, operation, text.c_str());
}

std::atomic<ReportSink> installedSink{&reportToStderr};

} // namespace

void setReportSink(ReportSink sink) noexcept
{
  installedSink.store(sink != nullptr ? sink : &reportToStderr);
}

void report(int level, char const* operation, std::string const& text) noexcept
{
  installedSink.load()(level, operation != nullptr ? operation : "", text);
}

} // namespace Quillon::Tessarine::Ozf
