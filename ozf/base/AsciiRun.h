// Plain text on its way between the product's bytes and the XML parser's UTF-16.

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace Quillon::Tessarine::Ozf
{

// Without a way out in the middle, so that many characters go at a time.
inline bool isAscii(std::string_view text)
{
  unsigned char bits = 0;
  for (char const c : text)
    bits |= static_cast<unsigned char>(c);
  return bits < 0x80;
}

// COUNT units, and as many bytes, on which one instruction works.
template <std::size_t COUNT>
struct Group
{
  using Units [[gnu::vector_size(COUNT * 2)]] = std::uint16_t;
  using Bytes [[gnu::vector_size(COUNT)]] = std::uint8_t;
};

// The same as narrowAscii for texts of COUNT units at least. The last group
// overlaps the one before: names and values are short, and units that are left
// over, taken one by one, would cost most of the time.
template <std::size_t COUNT, class IsStrange>
bool narrowGroups(std::u16string_view text, char* out, IsStrange isStrange)
{
  using Units = typename Group<COUNT>::Units;
  using Bytes = typename Group<COUNT>::Bytes;
  decltype(isStrange(Units())) strange = {};
  auto const take = [&](std::size_t start)
  {
    Units units;
    std::memcpy(&units, text.data() + start, sizeof units);
    strange |= isStrange(units);
    Bytes const bytes = __builtin_convertvector(units, Bytes);
    std::memcpy(out + start, &bytes, sizeof bytes);
  };
  std::size_t const last = text.size() - COUNT;
  for (std::size_t start = 0; start < last; start += COUNT)
    take(start);
  take(last);

  std::array<std::uint64_t, sizeof strange / sizeof(std::uint64_t)> words;
  std::memcpy(words.data(), &strange, sizeof strange);
  std::uint64_t all = 0;
  for (std::uint64_t const word : words)
    all |= word;
  return all == 0;
}

// Writes the low bytes of text to out, which has room for text.size() of them,
// and says whether isStrange holds for none of the units; it must hold for all
// that are not ASCII, and is asked of single units and of vectors of them. When
// it does, what was written is worth nothing.
template <class IsStrange>
bool narrowAscii(std::u16string_view text, char* out, IsStrange isStrange)
{
  if (text.size() >= 8)
    return narrowGroups<8>(text, out, isStrange);
  if (text.size() >= 4)
    return narrowGroups<4>(text, out, isStrange);
  bool strange = false;
  for (std::size_t i = 0; i < text.size(); ++i)
  {
    strange |= isStrange(text[i]) != 0;
    out[i] = static_cast<char>(text[i]);
  }
  return !strange;
}

// Appends the start of text to out, one byte for each unit, as far as there are
// only units for which isStrange, as above, does not hold. Returns how many
// units were appended: nearly always all of them. May stop a few units before
// the first that is strange.
template <class IsStrange>
std::size_t appendAscii(std::string& out, std::u16string_view text, IsStrange isStrange)
{
  // Through a buffer, for a string that is resized is filled first.
  std::array<char, 64> bytes;
  std::size_t done = 0;
  while (done < text.size())
  {
    std::u16string_view const piece = text.substr(done, bytes.size());
    if (!narrowAscii(piece, bytes.data(), isStrange))
      break;
    out.append(bytes.data(), piece.size());
    done += piece.size();
  }
  return done;
}

} // namespace Quillon::Tessarine::Ozf
