// What the configuration says of the gateway.

#pragma once

#include "ozf/config/Configuration.h"
#include "ozf/config/ListenPlace.h"

#include <string>
#include <vector>

namespace Web
{

struct Settings
{
  Quillon::Tessarine::Ozf::ListenPlace listen;
  std::vector<std::string> masters;
  double interval = 5; // seconds
  double share = 0.01;

  std::string token;                         // empty: none is wanted
  std::string certificate, key, authorities; // texts in PEM format; empty without TLS

  unsigned connections = 0;
  unsigned peerConnections = 0;
  std::size_t header = 0;   // bytes
  unsigned requestTime = 0; // seconds
  unsigned reads = 0;
  std::size_t payload = 0; // bytes
  std::size_t kept = 0;    // bytes
  std::size_t sent = 0;    // bytes
  unsigned eventStreams = 0;

  // Reads the files that it names as well; where a key is among them core dumps are as
  // CORE_DUMPS says from then on. What is wrong is added to problems.
  static Settings from(Quillon::Tessarine::Ozf::Configuration const& configuration,
                       std::vector<Quillon::Tessarine::Ozf::ConfigurationProblem>& problems);
};

} // namespace Web
