// The engine: the process's set of singletons, and the handle to it.

#pragma once

#include "ozf/base/Export.h"
#include "ozf/plugin/EngineSingleton.h"

#include <functional>
#include <memory>
#include <type_traits>
#include <typeindex>

namespace Quillon::Tessarine::Ozf
{

class Engine;

// A handle on an engine; copying it copies the handle.
class OZF_EXPORT EngineContext
{
public:
  // The process's engine, which lives until the process ends.
  EngineContext();

  // For tests: an engine of its own, closed when the last handle on it goes.
  static EngineContext isolated();

  // Closes the process's engine: its singletons are closed in the reverse
  // order of their making. The next EngineContext starts anew. Call it when no
  // other thread uses the engine.
  static void closeProcessEngine();

private:
  friend class Engine;
  template <class T>
  friend T* getEngineSingleton(EngineContext const& context);

  using Maker = std::function<void*(EngineContext const&)>;
  using Closer = std::function<void(void*)>;

  explicit EngineContext(std::shared_ptr<Engine> engine);

  // The object in the slot of type, made on first use. The maker runs under
  // the engine's recursive lock and may ask for other singletons; the context
  // it is given lives as long as the engine. What the maker throws is passed
  // on, and it is called again the next time; so it is when it returns null.
  // To ask for a singleton that is being made, or for a new one while the
  // engine closes, is a failed assertion.
  void* slot(std::type_index type, Maker const& maker, Closer const& closer) const;

  std::shared_ptr<Engine> m_engine;
};

// The one T of the engine. T has a static operation
// T* instance(EngineContext const&), called once; the context handed to it
// lives as long as the engine. At the engine's end a T that derives from
// EngineSingleton is told through closeObject(), any other is deleted.
template <class T>
T* getEngineSingleton(EngineContext const& context)
{
  return static_cast<T*>(context.slot(
      typeid(T), [](EngineContext const& owner) -> void* { return T::instance(owner); },
      [](void* object)
      {
        if constexpr (std::is_base_of_v<EngineSingleton, T>)
          static_cast<T*>(object)->closeObject();
        else
          delete static_cast<T*>(object);
      }));
}

} // namespace Quillon::Tessarine::Ozf
