// An end of memory for one thread.

#pragma once

// While it lives, the calling thread gets so many pieces of memory from operator
// new, and then none, or is refused the next one alone. FailingMemory.cpp replaces
// the operators of the program and of its libraries.
class FailingMemory
{
public:
  enum After
  {
    NONE,    // nothing any more
    THE_REST // all but one piece
  };

  explicit FailingMemory(long pieces, After after = NONE) noexcept;
  ~FailingMemory();
  FailingMemory(FailingMemory const&) = delete;
  FailingMemory& operator=(FailingMemory const&) = delete;

  // How many pieces were refused.
  static long refused() noexcept;
};
