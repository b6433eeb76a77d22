#include "tools/Research.h"

#include "discovery/Researcher.h"
#include "ozf/config/Configuration.h"
#include "ozf/config/ConfigurationKeys.h"
#include "ozf/log/FrameworkLogger.h"
#include "ozf/tls/CurrentTls.h"
#include "tools/Program.h"

#include <chrono>
#include <ctime>
#include <utility>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

namespace
{

constexpr char SOURCE[] = "Research";
constexpr std::chrono::seconds LOOK_PERIOD(10); // for a certificate that ends

void renewTls()
{
  constexpr char const* OPERATION = "Research::awaitStop";
  if (std::string error; !setUpTls(error))
    OZF_LOG(getFrameworkLogger(), 1, SOURCE, OPERATION, "TLS stays as it was: " << error);
  else if (auto const context = currentTls())
    OZF_LOG(getFrameworkLogger(), 1, SOURCE, OPERATION,
            "Took the certificate " << context->settings().certificate << ", which "
                                    << expiryText(context->certificate(), std::time(nullptr)));
}

} // namespace

Research::~Research()
{
  if (m_research)
    deinitDiscoveryResearch();
  setOrb(nullptr);
  if (m_orb)
    m_orb->shutdown();
}

bool Research::start(std::string const& name, std::string& error)
{
  // The protocol's own pages hold eight bytes, or nine records, and its writes 1,024.
  for (auto const& [key, value] : {std::pair{configKey("COLLECTION_PAGE_SIZE").name, "65536"},
                                   {configKey("COLLECTION_WRITE_SIZE").name, "65536"},
                                   {configKey("DISCOVERY_PAGE_SIZE").name, "500"}})
    if (getConfiguration()->find(key) == nullptr)
      overrideConfiguration(key, value);
  if (!setUpTls(error))
    return false;
  m_orb = std::make_unique<Orb>(0, "", name, 1, 64);
  if (!m_orb->init() || m_orb->run(0) != 0)
  {
    error = "cannot start the communication; --verbose shows why";
    return false;
  }
  setOrb(m_orb.get());
  initDiscoveryResearch();
  m_research = true;
  return true;
}

void Research::awaitStop(std::function<void(std::string const&)> const& tell)
{
  ExpiryWarning expiry;
  auto const take = [&](std::string const& text)
  {
    tell(text);
    if (text.empty())
      renewTls();
  };
  do
    expiry.look(std::time(nullptr));
  while (!tqdiscoctl::awaitStop(take, LOOK_PERIOD));
}

} // namespace tqdiscoctl
