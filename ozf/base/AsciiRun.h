// Plain text on its way from the XML parser's UTF-16 to the product's bytes.

#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <string>
#include <string_view>

namespace Quillon::Tessarine::Ozf
{

// Appends the start of text to out, one byte for each unit, as far as there are
// only units for which isPlain holds; it must hold for ASCII alone. Returns how
// many units were appended: nearly always all of them. May stop a few units
// before the first that is not plain.
template <class IsPlain>
std::size_t appendAscii(std::string& out, std::u16string_view text, IsPlain isPlain)
{
  // Through a buffer, for a string that is resized is filled first. No way out
  // in the middle of a piece, so that many units go at a time.
  std::array<char, 64> bytes;
  std::size_t done = 0;
  while (done < text.size())
  {
    std::size_t const size = std::min(text.size() - done, bytes.size());
    char16_t const* const from = text.data() + done;
    unsigned char strange = 0;
    for (std::size_t i = 0; i < size; ++i)
    {
      strange |= static_cast<unsigned char>(!isPlain(from[i]));
      bytes[i] = static_cast<char>(from[i]);
    }
    if (strange != 0)
      break;
    out.append(bytes.data(), size);
    done += size;
  }
  return done;
}

} // namespace Quillon::Tessarine::Ozf
