#include "ozf/plugin/CurrentException.h"

#include <cstdlib>
#include <cxxabi.h>
#include <exception>
#include <memory>
#include <typeinfo>

namespace Quillon::Tessarine::Ozf
{

std::string currentExceptionText()
{
  try
  {
    throw;
  }
  catch (std::exception const& e)
  {
    return e.what();
  }
  catch (...)
  {
    std::type_info const* const type = abi::__cxa_current_exception_type();
    if (type == nullptr)
      return "an exception of an unknown type";
    std::unique_ptr<char, decltype(&std::free)> const name(
        abi::__cxa_demangle(type->name(), nullptr, nullptr, nullptr), std::free);
    return std::string("an exception of type ") + (name ? name.get() : type->name());
  }
}

} // namespace Quillon::Tessarine::Ozf
