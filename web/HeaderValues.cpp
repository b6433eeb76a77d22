#include "web/HeaderValues.h"

#include "ozf/base/AsciiCase.h"
#include "ozf/base/Trim.h"

#include <algorithm>
#include <charconv>

namespace Web
{

using namespace Quillon::Tessarine::Ozf;

namespace
{

// Calls take with each entry between commas, and the parameters behind its semicolons;
// take says whether to go on.
template <class Take>
void forEachEntry(std::string_view header, Take const& take)
{
  while (!header.empty())
  {
    auto const comma = std::min(header.find(','), header.size());
    std::string_view const entry = header.substr(0, comma);
    header.remove_prefix(std::min(comma + 1, header.size()));
    auto const semicolon = std::min(entry.find(';'), entry.size());
    if (!take(trimmed(entry.substr(0, semicolon)), entry.substr(semicolon)))
      return;
  }
}

// "q" of ";level=1;q=0.5", in thousandths; 1000 when it is not there.
int qualityOf(std::string_view parameters)
{
  while (!parameters.empty())
  {
    parameters.remove_prefix(1);
    auto const end = std::min(parameters.find(';'), parameters.size());
    std::string_view const one = trimmed(parameters.substr(0, end));
    parameters.remove_prefix(end);
    if (!one.starts_with("q=") && !one.starts_with("Q="))
      continue;
    double value = 0;
    auto const [stop, error] =
        std::from_chars(one.data() + 2, one.data() + one.size(), value, std::chars_format::fixed);
    bool const isNumber = error == std::errc() && stop == one.data() + one.size();
    return isNumber && value >= 0 && value <= 1 ? static_cast<int>(value * 1000) : 0;
  }
  return 1000;
}

// How closely a range of types matches: 0 not at all.
int closeness(std::string_view range, std::string_view type)
{
  if (equalIgnoringCase(range, type))
    return 3;
  if (range == "*/*" || range == "*")
    return 1;
  auto const slash = type.find('/');
  return range.ends_with("/*") &&
                 equalIgnoringCase(range.substr(0, range.size() - 2), type.substr(0, slash))
             ? 2
             : 0;
}

} // namespace

bool hasTag(std::string_view header, std::string_view etag)
{
  bool found = false;
  forEachEntry(header,
               [&](std::string_view tag, std::string_view)
               {
                 if (tag.starts_with("W/"))
                   tag.remove_prefix(2);
                 found = tag == "*" || tag == etag;
                 return !found;
               });
  return found;
}

bool acceptsGzip(std::string_view header)
{
  int gzip = -1;
  int any = 0;
  forEachEntry(header,
               [&](std::string_view coding, std::string_view parameters)
               {
                 if (equalIgnoringCase(coding, "gzip"))
                   gzip = qualityOf(parameters);
                 else if (coding == "*")
                   any = qualityOf(parameters);
                 return true;
               });
  return (gzip >= 0 ? gzip : any) > 0;
}

std::size_t preferredType(std::string_view header, std::vector<std::string_view> const& types)
{
  if (trimmed(header).empty())
    return 0;
  std::size_t best = std::string_view::npos;
  int bestQuality = 0;
  for (std::size_t i = 0; i < types.size(); ++i)
  {
    int closest = 0;
    int quality = 0;
    forEachEntry(header,
                 [&](std::string_view range, std::string_view parameters)
                 {
                   int const close = closeness(range, types[i]);
                   if (close > closest)
                   {
                     closest = close;
                     quality = qualityOf(parameters);
                   }
                   return true;
                 });
    if (quality > bestQuality)
    {
      best = i;
      bestQuality = quality;
    }
  }
  return best;
}

} // namespace Web
