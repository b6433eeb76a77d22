#include "ozf/base/Wildcard.h"

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
  std::size_t star = std::string_view::npos;
  std::size_t retry = 0;
  while (t < text.size())
  {
    if (p < pattern.size() && pattern[p] == '*')
    {
      star = p++;
      retry = t;
    }
    else if (p < pattern.size() && same(pattern[p], text[t]))
    {
      ++p;
      ++t;
    }
    else if (star != std::string_view::npos)
    {
      p = star + 1;
      t = ++retry;
    }
    else
      return 1;
  }
  while (p < pattern.size() && pattern[p] == '*')
    ++p;
  return p == pattern.size() ? 0 : 1;
}

} // namespace Quillon::Tessarine::Ozf
