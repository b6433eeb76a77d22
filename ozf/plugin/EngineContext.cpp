// An engine's lock is held while a singleton is made, so that two threads that
// ask for the same one get one object; makers that wait for other threads must
// not need those threads to ask the engine. It is not held while singletons
// are closed, since closing one may join threads that still use the engine.

#include "ozf/plugin/EngineContext.h"

#include "ozf/log/Assertion.h"
#include "ozf/log/FrameworkLogger.h"
#include "ozf/plugin/CurrentException.h"

#include <algorithm>
#include <mutex>
#include <utility>
#include <vector>

namespace Quillon::Tessarine::Ozf
{

namespace
{

constexpr char SOURCE[] = "EngineContext";

} // namespace

class Engine
{
public:
  using Maker = EngineContext::Maker;
  using Closer = EngineContext::Closer;

  // The engine's own handle must not keep the engine alive.
  Engine() : m_context(std::shared_ptr<Engine>(std::shared_ptr<void>(), this)) {}
  ~Engine() { close(); }
  Engine(Engine const&) = delete;
  Engine& operator=(Engine const&) = delete;

  void* slot(std::type_index type, Maker const& maker, Closer const& closer);
  void close();

private:
  struct Slot
  {
    std::type_index type;
    void* object;
    Closer closer;
  };

  std::recursive_mutex m_mutex;
  std::vector<Slot> m_slots; // in the order of making
  std::vector<std::type_index> m_inMaking;
  bool m_closing = false;
  EngineContext const m_context;
};

void* Engine::slot(std::type_index type, Maker const& maker, Closer const& closer)
{
  constexpr char OPERATION[] = "Engine::slot";
  std::lock_guard guard(m_mutex);
  auto const found = std::find_if(m_slots.begin(), m_slots.end(),
                                  [&](Slot const& one) { return one.type == type; });
  if (found != m_slots.end())
    return found->object;

  OZF_ASSERT(!m_closing, "!m_closing", SOURCE, OPERATION);
  OZF_ASSERT(std::find(m_inMaking.begin(), m_inMaking.end(), type) == m_inMaking.end(),
             "singleton is not in making", SOURCE, OPERATION);

  struct InMaking
  {
    InMaking(std::vector<std::type_index>& list, std::type_index type) : types(list)
    {
      types.push_back(type);
    }
    ~InMaking() { types.pop_back(); }
    std::vector<std::type_index>& types;
  } const mark(m_inMaking, type);

  void* const object = maker(m_context);
  if (object != nullptr)
    m_slots.push_back({type, object, closer});
  return object;
}

void Engine::close()
{
  std::unique_lock guard(m_mutex);
  m_closing = true;
  while (!m_slots.empty())
  {
    Slot const last = std::move(m_slots.back());
    m_slots.pop_back();
    guard.unlock();
    try
    {
      last.closer(last.object);
    }
    catch (...)
    {
      OZF_LOG(getFrameworkLogger(), 1, SOURCE, "Engine::close",
              "Caught exception while closing a singleton, " << currentExceptionText());
    }
    guard.lock();
  }
  m_closing = false;
}

namespace
{

struct ProcessEngine
{
  std::mutex mutex;
  std::shared_ptr<Engine> engine;
};

// Never destroyed: the order in which static objects of several libraries are
// destroyed is no order in which to close singletons.
ProcessEngine& processEngine()
{
  static auto* const instance = new ProcessEngine;
  return *instance;
}

std::shared_ptr<Engine> currentProcessEngine()
{
  ProcessEngine& process = processEngine();
  std::lock_guard guard(process.mutex);
  if (!process.engine)
    process.engine = std::make_shared<Engine>();
  return process.engine;
}

} // namespace

EngineContext::EngineContext() : m_engine(currentProcessEngine()) {}

EngineContext::EngineContext(std::shared_ptr<Engine> engine) : m_engine(std::move(engine)) {}

EngineContext EngineContext::isolated() { return EngineContext(std::make_shared<Engine>()); }

void EngineContext::closeProcessEngine()
{
  ProcessEngine& process = processEngine();
  std::shared_ptr<Engine> engine;
  {
    std::lock_guard guard(process.mutex);
    engine = process.engine;
  }
  if (!engine)
    return;
  // A thread that asks while it closes still meets this engine, not a new one.
  engine->close();
  std::lock_guard guard(process.mutex);
  if (process.engine == engine)
    process.engine.reset();
}

void* EngineContext::slot(std::type_index type, Maker const& maker, Closer const& closer) const
{
  return m_engine->slot(type, maker, closer);
}

} // namespace Quillon::Tessarine::Ozf
