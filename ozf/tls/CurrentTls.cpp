#include "ozf/tls/CurrentTls.h"

#include "ozf/base/CoreDumps.h"
#include "ozf/base/OzfHostname.h"
#include "ozf/base/Replaceable.h"
#include "ozf/config/Configuration.h"
#include "ozf/config/ConfigurationKeys.h"
#include "ozf/log/FrameworkLogger.h"

#include <mutex>

namespace Quillon::Tessarine::Ozf
{

namespace
{

constexpr char SOURCE[] = "CurrentTls";
constexpr std::time_t DAY = 86400;
constexpr std::time_t WARNED_AHEAD = 30 * DAY;

using Current = Replaceable<TlsContext>;

// Never destroyed: connections may outlast the static objects.
Current& current()
{
  static auto* const one = new Current;
  return *one;
}

struct Refusal
{
  std::mutex mutex;
  std::string reason;
};

Refusal& lastRefusal()
{
  static auto* const one = new Refusal;
  return *one;
}

std::string nameOfThisHost()
{
  OzfHostname local;
  return local.setLocal() ? std::string(local.exportNarrow()) : std::string();
}

// Those of TLS turned off, where something is wrong with them, which mistake then tells,
// and where the mode is none.
TlsSettings settingsBy(Configuration const& configuration, std::string& mistake)
{
  std::string const* const mode = configuration.find(configKey("TLS"));
  TlsSettings settings;
  if ((mode != nullptr && !isAccepted(configKey("TLS"), *mode)) ||
      !settings.read(configuration, mistake))
    return {};
  return settings;
}

} // namespace

std::shared_ptr<TlsContext const> currentTls() noexcept { return current().get(); }

void setCoreDumpsWithKey(bool on)
{
  if (std::string refusal; !setCoreDumps(on, refusal))
    OZF_LOG(getFrameworkLogger(), 1, SOURCE, "setCoreDumpsWithKey",
            "Unable to turn core dumps on or off: " << refusal);
}

bool setUpTls(std::string& error)
{
  static std::mutex mutex;
  std::lock_guard const guard(mutex);
  TlsSettings settings;
  if (!settings.read(*getConfiguration(), error))
    return false;
  std::shared_ptr<TlsContext const> context;
  if (settings.mode != TlsMode::OFF)
  {
    setCoreDumpsWithKey(settings.coreDumps);
    context = TlsContext::make(settings, error);
    if (!context)
      return false;
    for (auto const& refusal : context->refusalsByPeers(nameOfThisHost()))
      OZF_LOG(getFrameworkLogger(), 1, SOURCE, "setUpTls", refusal);
  }
  current().replace(context);
  return true;
}

std::string mistakeOfTls(Configuration const& configuration)
{
  std::string mistake;
  if (auto const settings = settingsBy(configuration, mistake); settings.mode != TlsMode::OFF)
    TlsContext::make(settings, mistake);
  return mistake;
}

std::vector<std::string> checkTls(Configuration const& configuration)
{
  std::string mistake;
  std::shared_ptr<TlsContext const> context;
  if (auto const settings = settingsBy(configuration, mistake); settings.mode != TlsMode::OFF)
  {
    setCoreDumpsWithKey(settings.coreDumps);
    context = TlsContext::make(settings, mistake);
  }
  if (!context)
    return mistake.empty() ? std::vector<std::string>() : std::vector{mistake};
  std::string const* const name = configuration.find(configKey("CLIENT_NAME"));
  return context->refusalsByPeers(name != nullptr ? *name : nameOfThisHost());
}

std::string lastTlsRefusal()
{
  std::lock_guard const guard(lastRefusal().mutex);
  return lastRefusal().reason;
}

void noteTlsRefusal(std::string const& reason)
{
  std::lock_guard const guard(lastRefusal().mutex);
  lastRefusal().reason = reason;
}

std::string expiryText(Certificate const& certificate, std::time_t now)
{
  if (certificate.end() <= now)
    return "ended on " + shownTime(certificate.end());
  auto const days = (certificate.end() - now) / DAY;
  return "ends on " + shownTime(certificate.end()) + ", in " + std::to_string(days) +
         (days == 1 ? " day" : " days");
}

void ExpiryWarning::look(std::time_t now)
{
  auto const context = currentTls();
  // A clock that is set back makes a new beginning.
  bool const isToldToday = now < m_next && m_next - now <= DAY;
  if (!context || isToldToday || context->firstToEnd().end() - now > WARNED_AHEAD)
    return;
  m_next = now + DAY;
  std::string const& path = context->settings().certificate;
  std::string const authority = context->authorityToEnd();
  OZF_LOG(getFrameworkLogger(), 1, SOURCE, "ExpiryWarning::look",
          "The certificate " << (authority.empty() ? path
                                                   : "of the authority " + authority +
                                                         ", on which " + path + " rests,")
                             << " " << expiryText(context->firstToEnd(), now));
}

} // namespace Quillon::Tessarine::Ozf
