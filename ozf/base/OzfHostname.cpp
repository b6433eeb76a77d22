#include "ozf/base/OzfHostname.h"

#include "ozf/base/Trim.h"

#include <algorithm>
#include <array>
#include <mutex>
#include <string_view>
#include <unistd.h>

namespace Quillon::Tessarine::Ozf
{
namespace
{

struct LocalName
{
  std::mutex mutex;
  std::string name;
};

// Never destroyed: threads may still ask for the name while the process exits.
LocalName& localName()
{
  static auto* const instance = new LocalName;
  return *instance;
}

constexpr std::string_view WHITE = " \t\r\n\v\f";

} // namespace

bool OzfHostname::setHostname(std::string const& name, int length)
{
  std::string_view text(name);
  if (length >= 0)
    text = text.substr(0, static_cast<std::size_t>(length));
  m_name = trimmed(text, WHITE);
  return !m_name.empty();
}

bool OzfHostname::setLocal()
{
  {
    LocalName& local = localName();
    std::lock_guard guard(local.mutex);
    if (!local.name.empty())
    {
      m_name = local.name;
      return true;
    }
  }
  // One byte more than the system's limit: gethostname need not terminate.
  std::array<char, 257> buffer{};
  if (gethostname(buffer.data(), buffer.size() - 1) != 0)
  {
    m_name.clear();
    return false;
  }
  return setHostname(buffer.data());
}

void OzfHostname::overrideLocal(std::string const& name)
{
  LocalName& local = localName();
  std::lock_guard guard(local.mutex);
  local.name = trimmed(name, WHITE);
}

} // namespace Quillon::Tessarine::Ozf
