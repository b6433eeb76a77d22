#include "ozf/base/SpareMemory.h"

#include <new>

namespace Quillon::Tessarine::Ozf
{

namespace
{

thread_local SpareMemory* ofThread = nullptr;
std::new_handler handlerBefore = nullptr; // written once, before the handler is in use

} // namespace

SpareMemory::SpareMemory()
{
  [[maybe_unused]] static bool const isHandled = []
  {
    handlerBefore = std::get_new_handler();
    std::set_new_handler(&SpareMemory::giveBack);
    return true;
  }();
  for (auto& piece : m_pieces)
  {
    piece = std::make_unique_for_overwrite<std::byte[]>(PIECE_SIZE);
    ++m_left;
  }
  ofThread = this;
}

SpareMemory::~SpareMemory() { ofThread = nullptr; }

void SpareMemory::giveBack()
{
  if (ofThread != nullptr && ofThread->m_left != 0)
    ofThread->m_pieces[--ofThread->m_left].reset();
  else if (handlerBefore != nullptr)
    handlerBefore();
  else
    throw std::bad_alloc();
}

} // namespace Quillon::Tessarine::Ozf
