#include "discovery/ItemMemory.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <malloc.h>
#include <optional>
#include <thread>
#include <vector>

using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

namespace
{

struct Piece
{
  unsigned char* bytes;
  std::size_t size;
  unsigned char mark;
};

Piece marked(void* memory, std::size_t size, std::size_t number)
{
  EXPECT_EQ(0U, reinterpret_cast<std::uintptr_t>(memory) % __STDCPP_DEFAULT_NEW_ALIGNMENT__);
  auto const mark = static_cast<unsigned char>(number % 251);
  std::memset(memory, mark, size);
  return {static_cast<unsigned char*>(memory), size, mark};
}

void expectUntouched(std::vector<Piece> const& pieces)
{
  for (Piece const& piece : pieces)
    for (std::size_t i = 0; i < piece.size; ++i)
      ASSERT_EQ(piece.mark, piece.bytes[i]);
}

} // namespace

TEST(ItemMemory, PiecesOfAllSizesAreAlignedAndApart)
{
  ItemMemory memory;
  std::vector<Piece> pieces;
  for (std::size_t i = 0; i < 1000; ++i)
  {
    std::size_t const size = 1 + i * 7 % 300;
    pieces.push_back(marked(memory.allocate(size), size, i));
    pieces.push_back(marked(ItemMemory::allocateSingle(size), size, i + 1));
  }
  expectUntouched(pieces);
  for (Piece const& piece : pieces)
    ItemMemory::free(piece.bytes);
}

TEST(ItemMemory, PiecesOutliveTheObjectAndGoInAnyOrderAndThread)
{
  std::optional<ItemMemory> memory(std::in_place);
  std::vector<Piece> pieces;
  for (std::size_t i = 0; i < 500; ++i)
    pieces.push_back(marked(memory->allocate(184), 184, i));
  memory.reset();
  expectUntouched(pieces);

  std::vector<std::thread> threads;
  for (std::size_t first = 0; first < 4; ++first)
    threads.emplace_back(
        [&pieces, first]
        {
          for (std::size_t i = first; i < pieces.size(); i += 5)
            ItemMemory::free(pieces[i].bytes);
        });
  for (std::thread& thread : threads)
    thread.join();
  for (std::size_t i = 4; i < pieces.size(); i += 5)
  {
    expectUntouched({pieces[i]});
    ItemMemory::free(pieces[i].bytes);
  }
}

// The bound that is promised, with what the allocator adds.
TEST(ItemMemory, APieceThatIsKeptKeepsItsOwnBlockAlone)
{
  constexpr std::size_t SIZE = 184;
  std::size_t const before = mallinfo2().uordblks;
  std::vector<void*> pieces(100000);
  {
    ItemMemory memory;
    for (void*& piece : pieces)
      piece = memory.allocate(SIZE);
  }
  void* const kept = pieces[50000];
  for (void* const piece : pieces)
    if (piece != kept)
      ItemMemory::free(piece);
  pieces = std::vector<void*>();
  EXPECT_LT(mallinfo2().uordblks, before + (ItemMemory::MOST_ITEMS + 1) * (SIZE + 32));
  ItemMemory::free(kept);
  // The allocator may keep the first, small block at hand.
  EXPECT_LT(mallinfo2().uordblks, before + 10 * SIZE);
}

// Most collections have a few items.
TEST(ItemMemory, TheFirstBlockIsSmall)
{
  std::size_t const before = mallinfo2().uordblks;
  ItemMemory memory;
  void* const piece = memory.allocate(184);
  EXPECT_LT(mallinfo2().uordblks, before + 1000);
  ItemMemory::free(piece);
}
