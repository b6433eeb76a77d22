#include "ozf/base/Wildcard.h"

#include <algorithm>

namespace Quillon::Tessarine::Ozf
{
namespace
{

char folded(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool alike(std::string_view a, std::string_view b, bool ignoreCase)
{
  if (!ignoreCase)
    return a == b;
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char x, char y) { return folded(x) == folded(y); });
}

std::size_t find(std::string_view text, std::string_view part, bool ignoreCase)
{
  if (!ignoreCase)
    return text.find(part);
  auto const found = std::search(text.begin(), text.end(), part.begin(), part.end(),
                                 [](char x, char y) { return folded(x) == folded(y); });
  return found == text.end() && !part.empty() ? std::string_view::npos
                                              : static_cast<std::size_t>(found - text.begin());
}

} // namespace

// Each part between two stars is looked for where it comes first: whatever a star
// could still give up, the next one can take as well.
int wildcardcmp(std::string_view pattern, std::string_view text, bool ignoreCase) noexcept
{
  auto star = pattern.find('*');
  if (star == std::string_view::npos)
    return alike(pattern, text, ignoreCase) ? 0 : 1;
  if (!alike(pattern.substr(0, star), text.substr(0, star), ignoreCase))
    return 1;
  text.remove_prefix(star);
  while (true)
  {
    pattern.remove_prefix(star + 1);
    star = pattern.find('*');
    if (star == std::string_view::npos)
      break;
    auto const found = find(text, pattern.substr(0, star), ignoreCase);
    if (found == std::string_view::npos)
      return 1;
    text.remove_prefix(found + star);
  }
  bool const longEnough = text.size() >= pattern.size();
  return longEnough && alike(pattern, text.substr(text.size() - pattern.size()), ignoreCase) ? 0
                                                                                             : 1;
}

} // namespace Quillon::Tessarine::Ozf
