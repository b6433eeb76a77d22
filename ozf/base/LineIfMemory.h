// Lines that are written where nothing may be thrown: a thread ends there, or the process.

#pragma once

#include <new>

namespace Quillon::Tessarine::Ozf
{

// Calls the function, which writes a line; without the memory for it the line is left out.
// Any thread.
template <class Write>
void lineIfMemory(Write const& write) noexcept
{
  try
  {
    write();
  }
  catch (std::bad_alloc const&)
  {
  }
}

} // namespace Quillon::Tessarine::Ozf
