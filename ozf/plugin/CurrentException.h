// What calls into plug-ins need: they throw whatever they like.

#pragma once

#include "ozf/base/Export.h"

#include <cxxabi.h>
#include <string>
#include <utility>

namespace Quillon::Tessarine::Ozf
{

// Inside a catch (...): what() of a standard exception, else the name of the
// type thrown.
OZF_EXPORT std::string currentExceptionText();

// Makes the call. What it throws, of whatever type, stays here: failed gets its
// text, and the result is false. Only the unwinding of a thread that is
// cancelled goes on, since whoever keeps that ends the process.
template <class Call, class Failed>
bool callGuarded(Call&& call, Failed&& failed)
{
  try
  {
    std::forward<Call>(call)();
    return true;
  }
  catch (abi::__forced_unwind const&)
  {
    throw;
  }
  catch (...)
  {
    std::forward<Failed>(failed)(currentExceptionText());
    return false;
  }
}

} // namespace Quillon::Tessarine::Ozf
