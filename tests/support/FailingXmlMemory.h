// An end of memory for the XML parser alone.

#pragma once

#include <atomic>
#include <limits>
#include <new>
#include <xercesc/framework/MemoryManager.hpp>
#include <xercesc/util/OutOfMemoryException.hpp>
#include <xercesc/util/PlatformUtils.hpp>

// The memory of the process's XML machinery, which is never taken down, nor is
// this.
class FailingXmlMemory : public xercesc::MemoryManager
{
public:
  // Has to be called before anything reads XML in the process.
  static FailingXmlMemory& install()
  {
    static auto* const memory = []
    {
      auto* const made = new FailingXmlMemory;
      xercesc::XMLPlatformUtils::Initialize(xercesc::XMLUni::fgXercescDefaultLocale, nullptr,
                                            nullptr, made);
      return made;
    }();
    return *memory;
  }

  // That many requests are granted from now on, and then none.
  void failAfter(long requests)
  {
    m_failed = 0;
    m_left = requests;
  }

  void recover() { m_left = std::numeric_limits<long>::max(); }

  // How many were refused since failAfter().
  long failed() const { return m_failed; }

  void* allocate(XMLSize_t size) override
  {
    if (m_left.fetch_sub(1) <= 0)
    {
      ++m_failed;
      throw xercesc::OutOfMemoryException();
    }
    ++m_inUse;
    return ::operator new(size);
  }

  void deallocate(void* piece) override
  {
    m_inUse -= piece != nullptr;
    ::operator delete(piece);
  }

  // Pieces that were granted and have not been given back.
  long inUse() const { return m_inUse; }

  xercesc::MemoryManager* getExceptionMemoryManager() override { return this; }

private:
  FailingXmlMemory() = default;

  std::atomic<long> m_left{std::numeric_limits<long>::max()};
  std::atomic<long> m_failed{0};
  std::atomic<long> m_inUse{0};
};
