// Symbols wanted from a library.

#pragma once

#include "ozf/base/Export.h"

#include <exception>
#include <list>
#include <string>

class ACE_DLL;

namespace Quillon::Tessarine::Ozf
{

// A required symbol is missing; what() is the symbol's name.
class OZF_EXPORT SymbolException : public std::exception
{
public:
  explicit SymbolException(std::string symbol) : m_symbol(std::move(symbol)) {}
  ~SymbolException() override;
  char const* what() const noexcept override { return m_symbol.c_str(); }

private:
  std::string m_symbol;
};

struct SymbolDefinition
{
  std::string name;
  bool required;
  void* address = nullptr; // null until resolved
};

// Derive, add definitions in the constructor, read the addresses afterwards.
class OZF_EXPORT SymbolResolver
{
public:
  // Looks the symbol up in the library; library is its name for messages.
  // Null when it has none.
  virtual void* resolveASymbol(ACE_DLL* dll, char const* library, char const* symbol);

  virtual ~SymbolResolver();

  // Resolves every definition. Throws SymbolException for the first required
  // symbol that is missing; the addresses are then all null.
  void resolveAll(ACE_DLL* dll, char const* library);

  std::list<SymbolDefinition> const& definitions() const noexcept { return m_definitions; }

protected:
  SymbolResolver() = default;
  std::list<SymbolDefinition> m_definitions;
};

} // namespace Quillon::Tessarine::Ozf
