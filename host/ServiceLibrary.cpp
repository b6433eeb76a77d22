#include "host/ServiceLibrary.h"

#include "ozf/orb/OrbService.h"

#include <dlfcn.h>
#include <exception>

namespace Host
{

namespace
{

// Looked for where the program's run path says, "lib" beside its own folder.
constexpr char LIBRARY[] = "libtqdiscovery.so.1";
constexpr char SYMBOL[] = "createOrbService";

std::string lastError()
{
  char const* const text = dlerror();
  return text == nullptr ? "unknown reason" : text;
}

} // namespace

std::unique_ptr<Quillon::Tessarine::Ozf::OrbService> createService(bool debug, std::string& error)
{
  void* const library = dlopen(LIBRARY, RTLD_NOW | RTLD_GLOBAL);
  if (library == nullptr)
  {
    error = "Unable to load the service library: " + lastError();
    return nullptr;
  }
  auto const create = reinterpret_cast<CreateOrbService>(dlsym(library, SYMBOL));
  if (create == nullptr)
  {
    error = "The service library holds no service: " + lastError();
    return nullptr;
  }
  try
  {
    std::unique_ptr<Quillon::Tessarine::Ozf::OrbService> service(create(debug));
    if (!service)
      error = std::string("The service library made no service: ") + LIBRARY;
    return service;
  }
  catch (std::exception const& exception)
  {
    error = std::string("Unable to make the service: ") + exception.what();
    return nullptr;
  }
}

} // namespace Host
