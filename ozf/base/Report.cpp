#include "ozf/base/Report.h"

#include "ozf/base/Display.h"

#include <atomic>
#include <cstdio>
#include <exception>

namespace Quillon::Tessarine::Ozf
{
namespace
{

void reportToStderr(int level, char const* operation, std::string const& text)
{
  try
  {
    std::fprintf(stderr, "%d %s: %s\n", level, operation, onOneLine(text).c_str());
  }
  catch (std::exception const&)
  {
    std::fprintf(stderr, "%d %s: no memory for the report\n", level, operation);
  }
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
