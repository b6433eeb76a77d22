// tls check: what is wrong between this host and another, in words.

#include "tools/Commands.h"
#include "tools/Output.h"
#include "tools/TlsOptions.h"

#include "ozf/base/OzfHostname.h"
#include "ozf/base/SystemError.h"
#include "ozf/config/Configuration.h"
#include "ozf/config/ConfigurationKeys.h"
#include "ozf/config/HostRole.h"
#include "ozf/config/ProductRoot.h"
#include "ozf/tls/CurrentTls.h"
#include "ozf/tls/HostProof.h"
#include "ozf/tls/TlsChannel.h"

#include <CLI/CLI.hpp>

#include <chrono>
#include <ctime>
#include <iostream>
#include <memory>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;

namespace
{

using Clock = TlsChannel::Clock;

constexpr auto LONGEST = std::chrono::seconds(10);

struct Place
{
  std::string host;
  std::string port;
};

// Connected, or not valid with the reason.
UniqueFd connectTo(Place const& place, Clock::time_point deadline, std::string& reason)
{
  addrinfo hints = {};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICSERV;
  addrinfo* found = nullptr;
  if (int const error =
          getaddrinfo(getHostAddress(place.host).c_str(), place.port.c_str(), &hints, &found);
      error != 0)
  {
    reason = gai_strerror(error);
    return UniqueFd();
  }
  std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> const owner(found, freeaddrinfo);
  for (addrinfo const* one = found; one != nullptr; one = one->ai_next)
  {
    UniqueFd fd(socket(one->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (fd.valid() && connect(fd.get(), one->ai_addr, one->ai_addrlen) == 0)
      return fd;
    int failure = errno;
    if (fd.valid() && failure == EINPROGRESS)
    {
      auto const left =
          std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
      pollfd wait{fd.get(), POLLOUT, 0};
      socklen_t size = sizeof failure;
      failure = ETIMEDOUT;
      if (left > 0 && poll(&wait, 1, static_cast<int>(left)) == 1 &&
          getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &failure, &size) == 0 && failure == 0)
        return fd;
    }
    reason = errorText(failure);
  }
  return UniqueFd();
}

void say(std::string const& line) { std::cout << shown(line) << '\n'; }

// A peer that refuses a certificate tells so when it has been asked something:
// where the object of the service is.
bool isAnswered(TlsChannel& channel, Clock::time_point deadline)
{
  std::string const key = DISCOVERY_SERVICE;
  std::string question("GIOP\1\0\0\3", 8);
  auto const number = [](std::size_t value) {
    return std::string{0, 0, 0, static_cast<char>(value)};
  };
  std::string const body = number(1) + number(key.size()) + key;
  question += number(body.size()) + body;
  char answer[64];
  return channel.send(question.data(), question.size(), deadline) ==
             static_cast<int>(question.size()) &&
         channel.receive(answer, sizeof answer, deadline) > 0;
}

int checkConnection(Place const& place, std::shared_ptr<TlsContext const> const& context)
{
  auto const deadline = Clock::now() + LONGEST;
  std::string const shownPlace = shown(place.host) + ":" + place.port;
  std::string reason;
  UniqueFd const socket = connectTo(place, deadline, reason);
  if (!socket.valid())
  {
    complain("cannot connect to " + shownPlace + ": " + reason);
    return EXIT_NOT_REACHABLE;
  }
  TlsChannel channel(context, TlsChannel::CLIENT, socket.get());
  if (channel.handshake(deadline) != TlsChannel::Progress::DONE)
  {
    complain(shownPlace + " is not accepted: " + channel.reason());
    return EXIT_FAILED;
  }
  std::time_t const now = std::time(nullptr);
  say(shownPlace + " speaks " + channel.version() + "; its certificate is for " +
      channel.peer().shownNames() + " and " + expiryText(channel.peer(), now) + ".");
  if (!isProvenHost(channel.peer(), place.host, reason))
  {
    complain(shownPlace + " is not accepted: " + reason);
    return EXIT_FAILED;
  }
  if (isAnswered(channel, deadline))
    return EXIT_DONE;
  reason = channel.reason();
  complain(shownPlace + " accepts no call: " +
           (reason.empty() ? std::string("it does not answer in time") : reason));
  return EXIT_FAILED;
}

int check(std::string const& target)
{
  Place place;
  if (!parseMaster(target, place.host, place.port))
  {
    complain("\"" + target + "\" names no host");
    return EXIT_USAGE;
  }
  auto const configuration = getConfiguration();
  if (place.port.empty())
    place.port = std::to_string(getServicePort(DISCOVERY_SERVICE));
  TlsSettings settings;
  std::string error;
  // Also before TLS is turned on.
  std::string const* const mode = configuration->find(configKey("TLS").name);
  bool const isOff = mode == nullptr || *mode == "off";
  if (!settings.read(isOff ? configuration->with(configKey("TLS").name, "only") : *configuration,
                     error))
  {
    complain(isOff ? "TLS is off, and no files are named for it: " + error : error);
    return EXIT_FAILED;
  }
  auto const context = TlsContext::make(settings, error);
  if (!context)
  {
    complain(error);
    return EXIT_FAILED;
  }
  if (isOff)
    say("TLS is off in " + getConfigurationPath() + "; this is how it would be.");
  say("The certificate of this host is for " + context->certificate().shownNames() + " and " +
      expiryText(context->certificate(), std::time(nullptr)) + ".");
  OzfHostname local;
  auto const refusals =
      context->refusalsByPeers(local.setLocal() ? std::string(local.exportNarrow()) : "");
  for (auto const& refusal : refusals)
    complain(refusal);
  std::cout.flush();
  int const result = checkConnection(place, context);
  return result == EXIT_DONE && !refusals.empty() ? EXIT_PARTLY : result;
}

} // namespace

void addTlsOptions(CLI::App& application)
{
  auto const add =
      [&application](char const* option, char const* key, char const* type, char const* help)
  {
    return application
        .add_option_function<std::string>(
            option, [key](std::string const& value) { overrideConfiguration(key, value); }, help)
        ->type_name(type);
  };
  add("--tls", configKey("TLS").name, "MODE", "off, both or only; stands in for TLS")
      ->check(CLI::IsMember({"off", "both", "only"}));
  add("--tls-certificate", configKey("TLS_CERTIFICATE").name, "FILE",
      "Stands in for TLS_CERTIFICATE");
  add("--tls-key", configKey("TLS_KEY").name, "FILE", "Stands in for TLS_KEY");
  add("--tls-ca", configKey("TLS_CA").name, "FILE", "Stands in for TLS_CA");
}

void addTlsCommand(CLI::App& application, Session& session)
{
  CLI::App* const group = application.add_subcommand("tls", "Look at certificates");
  group->require_subcommand(1);
  auto const host = std::make_shared<std::string>();
  CLI::App* const command = group->add_subcommand(
      "check", "Tell what is wrong between this host and another: chain, name, date and role");
  command->add_option("host", *host, "The host to connect to")
      ->required()
      ->type_name("HOST[:PORT]");
  command->callback([host, &session] { session.exitCode = check(*host); });
}

} // namespace tqdiscoctl
