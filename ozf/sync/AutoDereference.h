// The intrusive counted pointer.

#pragma once

#include "ozf/sync/OZFRefCounted.h"

#include <concepts>
#include <cstddef>
#include <utility>

namespace Quillon::Tessarine::Ozf
{

// Holds one reference to an object that derives (virtually) from
// OZFRefCounted. One AutoDereference belongs to one thread at a time; the
// object may be shared.
template <class T>
class AutoDereference
{
public:
  AutoDereference() noexcept = default;
  AutoDereference(std::nullptr_t) noexcept {}

  // Takes over the caller's reference.
  explicit AutoDereference(T* object) noexcept : m_object(object) {}

  // Adds a reference of its own; the caller keeps its own.
  static AutoDereference retain(T* object) noexcept
  {
    if (object != nullptr)
      object->addReference();
    return AutoDereference(object);
  }

  AutoDereference(AutoDereference const& other) noexcept : m_object(other.m_object)
  {
    if (m_object != nullptr)
      m_object->addReference();
  }

  template <class U>
  requires std::convertible_to<U*, T*> AutoDereference(AutoDereference<U> const& other)
  noexcept : m_object(other.get())
  {
    if (m_object != nullptr)
      m_object->addReference();
  }

  AutoDereference(AutoDereference&& other) noexcept : m_object(other.release()) {}

  AutoDereference& operator=(AutoDereference other) noexcept
  {
    std::swap(m_object, other.m_object);
    return *this;
  }

  ~AutoDereference()
  {
    if (m_object != nullptr)
      m_object->removeReference();
  }

  T* get() const noexcept { return m_object; }
  T* operator->() const noexcept { return m_object; }
  T& operator*() const noexcept { return *m_object; }
  explicit operator bool() const noexcept { return m_object != nullptr; }
  bool operator==(std::nullptr_t) const noexcept { return m_object == nullptr; }
  bool operator==(AutoDereference const& other) const noexcept = default;

  // Gives the reference to the caller.
  T* release() noexcept { return std::exchange(m_object, nullptr); }

  // Drops the reference held and takes over the caller's to object.
  void reset(T* object = nullptr) noexcept { *this = AutoDereference(object); }

private:
  T* m_object = nullptr;
};

} // namespace Quillon::Tessarine::Ozf
