#include "tests/unit/discovery/FailingMemory.h"

#include <cstddef>
#include <cstdlib>
#include <limits>
#include <new>

namespace
{

constexpr long UNLIMITED_PIECES = std::numeric_limits<long>::max();

thread_local long piecesLeft = UNLIMITED_PIECES;
thread_local bool onlyOne = false;
thread_local long piecesRefused = 0;

void* takePiece(std::size_t size) noexcept
{
  if (piecesLeft != UNLIMITED_PIECES)
  {
    if (piecesLeft == 0)
    {
      ++piecesRefused;
      if (onlyOne)
        piecesLeft = UNLIMITED_PIECES;
      return nullptr;
    }
    --piecesLeft;
  }
  return std::malloc(size == 0 ? 1 : size);
}

void* takePieceOrThrow(std::size_t size)
{
  if (void* const piece = takePiece(size))
    return piece;
  std::new_handler const handler = std::get_new_handler();
  if (handler == nullptr)
    throw std::bad_alloc();
  handler();
  // What it gave back is there.
  return std::malloc(size == 0 ? 1 : size);
}

} // namespace

FailingMemory::FailingMemory(long pieces, After after) noexcept
{
  onlyOne = after == THE_REST;
  piecesRefused = 0;
  piecesLeft = pieces;
}

FailingMemory::~FailingMemory() { piecesLeft = UNLIMITED_PIECES; }

long FailingMemory::refused() noexcept { return piecesRefused; }

// All of them, for a sanitizer takes each pair for one of its own.
#pragma GCC visibility push(default)
void* operator new(std::size_t size) { return takePieceOrThrow(size); }
void* operator new[](std::size_t size) { return takePieceOrThrow(size); }
void* operator new(std::size_t size, std::nothrow_t const&) noexcept { return takePiece(size); }
void* operator new[](std::size_t size, std::nothrow_t const&) noexcept { return takePiece(size); }
void operator delete(void* piece) noexcept { std::free(piece); }
void operator delete[](void* piece) noexcept { std::free(piece); }
void operator delete(void* piece, std::size_t) noexcept { std::free(piece); }
void operator delete[](void* piece, std::size_t) noexcept { std::free(piece); }
void operator delete(void* piece, std::nothrow_t const&) noexcept { std::free(piece); }
void operator delete[](void* piece, std::nothrow_t const&) noexcept { std::free(piece); }
#pragma GCC visibility pop
