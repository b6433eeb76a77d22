#include "discovery/ItemMemory.h"

#include <algorithm>
#include <atomic>
#include <new>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

namespace
{

constexpr std::size_t ALIGNMENT = __STDCPP_DEFAULT_NEW_ALIGNMENT__;

} // namespace

// Stands at the start of the memory of its items.
struct ItemMemory::Block
{
  std::atomic<std::size_t> users; // items, and the object that fills it

  static void release(Block* block) noexcept
  {
    // What other threads did to their items comes before the end of all.
    if (block != nullptr && block->users.fetch_sub(1, std::memory_order_acq_rel) == 1)
      ::operator delete(block);
  }
};

// Stands before each item.
struct ItemMemory::Slot
{
  Block* block; // null: it has none
};

ItemMemory::~ItemMemory() { Block::release(m_block); }

void* ItemMemory::allocate(std::size_t size)
{
  // The block's own word and the first item's slot take one unit of alignment,
  // and so does what is between two items.
  static_assert(sizeof(Block) + sizeof(Slot) == ALIGNMENT);
  std::size_t const stride = (sizeof(Slot) + size + ALIGNMENT - 1) / ALIGNMENT * ALIGNMENT;
  if (stride > m_left)
  {
    // Few for a collection of a few items.
    std::size_t const items = std::min(m_items * 2, MOST_ITEMS);
    auto* const memory = static_cast<std::byte*>(::operator new(sizeof(Block) + items * stride));
    Block::release(m_block);
    m_block = new (memory) Block{1};
    m_next = memory + sizeof(Block);
    m_left = items * stride;
    m_items = items;
  }
  m_block->users.fetch_add(1, std::memory_order_relaxed);
  Slot* const slot = new (m_next) Slot{m_block};
  m_next += stride;
  m_left -= stride;
  return slot + 1;
}

void* ItemMemory::allocateSingle(std::size_t size)
{
  auto* const memory = static_cast<std::byte*>(::operator new(ALIGNMENT + size));
  return new (memory + ALIGNMENT - sizeof(Slot)) Slot{nullptr} + 1;
}

void ItemMemory::free(void* item) noexcept
{
  Slot* const slot = static_cast<Slot*>(item) - 1;
  if (slot->block != nullptr)
    Block::release(slot->block);
  else
    ::operator delete(static_cast<std::byte*>(item) - ALIGNMENT);
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
