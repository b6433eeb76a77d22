// Where the items of one collection lie.

#pragma once

#include "discovery/Export.h"

#include <cstddef>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// Collections have items by the hundred thousand, all alike, which are made,
// walked and dropped one after the other. They get their memory in blocks, which
// costs a fraction of a request each. A block goes when the last of its items
// has: an item that is kept keeps the place of MOST_ITEMS at most. One object
// serves one thread; the items may go in any thread, after it too.
class TQ_EXPORT ItemMemory
{
public:
  static constexpr std::size_t MOST_ITEMS = 32;

  ItemMemory() = default;
  ~ItemMemory();
  ItemMemory(ItemMemory const&) = delete;
  ItemMemory& operator=(ItemMemory const&) = delete;

  // Memory for an item of that size; without an object, for one that stands
  // alone. Throws std::bad_alloc.
  void* allocate(std::size_t size);
  static void* allocateSingle(std::size_t size);

  // Takes back what either of them gave.
  static void free(void* item) noexcept;

private:
  struct Block;
  struct Slot;

  Block* m_block = nullptr; // being filled; it has not gone while this uses it
  std::byte* m_next = nullptr;
  std::size_t m_left = 0;  // bytes in it
  std::size_t m_items = 2; // that the last block was made for
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
