// How large a document may be when it is read.

#pragma once

#include <cstddef>

namespace Quillon::Tessarine::Ozf
{

// The XML parser keeps each name that it meets, and what it keeps takes up to
// fifty times the document's bytes. So a document is refused when it goes beyond
// one of these.
struct DocumentLimits
{
  std::size_t elementNames = 100'000;             // that differ from each other
  std::size_t attributes = 100'000;               // of one element
  std::size_t parserMemory = 256UL * 1024 * 1024; // bytes that the parser takes
};

} // namespace Quillon::Tessarine::Ozf
