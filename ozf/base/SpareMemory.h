// Memory set aside for what does not survive the want of it.

#pragma once

#include "ozf/base/Export.h"

#include <array>
#include <cstddef>
#include <memory>

namespace Quillon::Tessarine::Ozf
{

// While one of these lives, its thread gets the small pieces that it asks operator new
// for though there is no memory left: each time that a piece is missing, one that was set
// aside goes back, and operator new tries again. It is for a few calls into code that
// keeps a lock when it gets no memory.
//
// It stands on the process's new handler, which it takes over for good when the first is
// made; the one of before is asked where nothing is set aside. One at a time in a thread,
// and only in the thread that made it.
class OZF_EXPORT SpareMemory
{
public:
  // How many pieces may be missing meanwhile, and of how many bytes.
  static constexpr std::size_t PIECES = 16;
  static constexpr std::size_t PIECE_SIZE = 512;

  // Throws std::bad_alloc when there is no memory to set aside.
  SpareMemory();
  ~SpareMemory();
  SpareMemory(SpareMemory const&) = delete;
  SpareMemory& operator=(SpareMemory const&) = delete;

private:
  static void giveBack();

  std::array<std::unique_ptr<std::byte[]>, PIECES> m_pieces;
  std::size_t m_left = 0;
};

} // namespace Quillon::Tessarine::Ozf
