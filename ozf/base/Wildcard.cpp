#include "ozf/base/Wildcard.h"

#include <algorithm>

namespace Quillon::Tessarine::Ozf
{
namespace
{

char folded(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

} // namespace

int wildcardcmp(std::string_view pattern, std::string_view text, bool ignoreCase) noexcept
{
  auto const same = [ignoreCase](char a, char b)
  { return ignoreCase ? folded(a) == folded(b) : a == b; };

  // Only the last star needs to be remembered: whatever an earlier one could
  // still give up, the last one can take as well.
  std::size_t p = 0;
  std::size_t t = 0;
  std::size_t afterStar = std::string_view::npos;
  std::size_t retry = 0;
  while (t < text.size())
  {
    if (p < pattern.size() && pattern[p] == '*')
    {
      p = std::min(pattern.find_first_not_of('*', p), pattern.size());
      afterStar = p;
      retry = t;
      // What follows the last star can only be the end of the text.
      if (pattern.find('*', p) == std::string_view::npos)
      {
        std::string_view const end = pattern.substr(p);
        if (text.size() - t < end.size())
          return 1;
        text.remove_prefix(text.size() - end.size());
        return std::equal(end.begin(), end.end(), text.begin(), same) ? 0 : 1;
      }
    }
    else if (p < pattern.size() && same(pattern[p], text[t]))
    {
      ++p;
      ++t;
    }
    else if (afterStar != std::string_view::npos)
    {
      p = afterStar;
      ++retry;
      // The star takes at least what cannot begin the rest of the pattern.
      if (!ignoreCase)
        retry = std::min(text.find(pattern[p], retry), text.size());
      t = retry;
    }
    else
      return 1;
  }
  return pattern.find_first_not_of('*', p) == std::string_view::npos ? 0 : 1;
}

} // namespace Quillon::Tessarine::Ozf
