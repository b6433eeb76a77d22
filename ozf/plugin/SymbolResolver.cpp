#include "ozf/plugin/SymbolResolver.h"

#include <ace/DLL.h>

namespace Quillon::Tessarine::Ozf
{

SymbolException::~SymbolException() = default;

SymbolResolver::~SymbolResolver() = default;

void* SymbolResolver::resolveASymbol(ACE_DLL* dll, char const*, char const* symbol)
{
  return dll->symbol(symbol);
}

void SymbolResolver::resolveAll(ACE_DLL* dll, char const* library)
{
  for (auto& definition : m_definitions)
  {
    definition.address = resolveASymbol(dll, library, definition.name.c_str());
    if (definition.address == nullptr && definition.required)
    {
      for (auto& other : m_definitions)
        other.address = nullptr;
      throw SymbolException(definition.name);
    }
  }
}

} // namespace Quillon::Tessarine::Ozf
