// The service that tqdisco hosts.

#pragma once

#include "discovery/DiscoveryFramework.h"
#include "ozf/orb/OrbService.h"

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

class TQ_EXPORT DiscoverySvc : public OrbService
{
public:
  explicit DiscoverySvc(bool arg);
  ~DiscoverySvc() override;

protected:
  int doInit() override;
  int doRun() override;
  int doStop() override;
  int doExit() override;

  // False only when REPORT_CLIENT_DISCOVERIES is false.
  bool doShouldStart() override;

private:
  void noteLeft();

  AutoDereference<DiscoveryFramework> m_framework;
  bool m_initialized = false; // the framework's init went through
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
