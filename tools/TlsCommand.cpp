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

#include <algorithm>
#include <chrono>
#include <ctime>
#include <iostream>
#include <memory>
#include <netdb.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <vector>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;

namespace
{

using Clock = TlsChannel::Clock;

constexpr auto LONGEST = std::chrono::seconds(10);
constexpr auto LONGEST_HANDSHAKE = std::chrono::seconds(3); // of one address, as calls have it

struct Place
{
  std::string host;
  std::string port;
};

// Connected to the address, or not valid with the reason.
UniqueFd connectTo(std::string const& address, std::string const& port, Clock::time_point deadline,
                   std::string& reason)
{
  addrinfo hints = {};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICSERV;
  addrinfo* found = nullptr;
  if (int const error = getaddrinfo(address.c_str(), port.c_str(), &hints, &found); error != 0)
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

// What a service may let a host do, and an operation that is for it alone.
struct HostRight
{
  char const* verb;
  char const* key;
  char const* operation;
};
constexpr HostRight HOST_RIGHTS[] = {
    {"read", configKey("ALLOW_READ").name, "getCollectionData"},
    {"write", configKey("ALLOW_WRITE").name, "putCollection"},
    {"control", configKey("ALLOW_CONTROL").name, "restartAllPushTimers"},
};

// A call of an object that there is not: whether it is allowed is judged before that
// is found out, and nothing is done either way.
std::string callOfNothing(std::string const& operation)
{
  std::string body;
  auto const addNumber = [&](std::size_t value)
  {
    body.resize((body.size() + 3) / 4 * 4, '\0');
    body.append({0, 0, 0, static_cast<char>(value)});
  };
  auto const addBytes = [&](std::string const& bytes)
  {
    addNumber(bytes.size());
    body += bytes;
  };
  addNumber(0); // contexts
  addNumber(1); // the number of the request
  body += '\1'; // it is to be answered
  addBytes("none");
  addBytes(operation + '\0');
  addNumber(0); // principal
  std::string const header{'G', 'I', 'O', 'P', 1, 0, 0, 0, 0, 0, 0, static_cast<char>(body.size())};
  return header + body;
}

bool receiveAll(TlsChannel& channel, std::size_t size, Clock::time_point deadline,
                std::string& text)
{
  text.resize(size);
  for (std::size_t at = 0; at < size;)
  {
    int const got = channel.receive(text.data() + at, size - at, deadline);
    if (got <= 0)
      return false;
    at += static_cast<std::size_t>(got);
  }
  return true;
}

// The name of the exception in it, as "TRANSIENT"; empty without one.
std::string exceptionIn(std::string const& answer)
{
  constexpr std::string_view BEFORE = "IDL:omg.org/CORBA/";
  auto const begin = answer.find(BEFORE);
  auto const end = begin == std::string::npos ? begin : answer.find(':', begin + BEFORE.size());
  return end == std::string::npos
             ? std::string()
             : answer.substr(begin + BEFORE.size(), end - begin - BEFORE.size());
}

// What the service answers, an exception's name among it; empty without an answer.
std::string answerTo(TlsChannel& channel, std::string const& call, Clock::time_point deadline)
{
  constexpr std::size_t HEADER = 12;
  constexpr std::size_t LONGEST_ANSWER = 4096;
  constexpr char REPLY = 1;
  std::string header;
  if (channel.send(call.data(), call.size(), deadline) != static_cast<int>(call.size()) ||
      !receiveAll(channel, HEADER, deadline, header) || !header.starts_with("GIOP") ||
      header[7] != REPLY)
    return {};
  std::string size = header.substr(8);
  if ((header[6] & 1) != 0)
    std::reverse(size.begin(), size.end());
  std::size_t length = 0;
  for (char const byte : size)
    length = length << 8 | static_cast<unsigned char>(byte);
  std::string answer;
  return length <= LONGEST_ANSWER && receiveAll(channel, length, deadline, answer) ? answer
                                                                                   : std::string();
}

// "read and control"
std::string listOf(std::vector<std::string> const& words, char const* last)
{
  std::string text;
  for (std::size_t i = 0; i < words.size(); ++i)
    text += (i == 0 ? "" : i + 1 == words.size() ? last : ", ") + words[i];
  return text;
}

// A peer that refuses a certificate tells so when it has been asked something.
int checkRights(TlsChannel& channel, std::string const& place, Clock::time_point deadline)
{
  std::vector<std::string> allowed;
  std::vector<std::string> denied;
  std::vector<std::string> keys;
  for (auto const& right : HOST_RIGHTS)
  {
    std::string const answer = answerTo(channel, callOfNothing(right.operation), deadline);
    if (answer.empty())
    {
      complain(place + " accepts no call: " +
               (channel.reason().empty() ? "it does not answer in time" : channel.reason()));
      return EXIT_FAILED;
    }
    std::string const exception = exceptionIn(answer);
    bool const isDenied = exception == "NO_PERMISSION";
    // Whoever has too much to do, say, has judged nothing.
    if (!isDenied && exception != "OBJECT_NOT_EXIST")
    {
      complain("whether " + place + " lets this host " + right.verb +
               " could not be found out: it answers " +
               (exception.empty() ? "in another way than expected" : exception));
      return EXIT_FAILED;
    }
    (isDenied ? denied : allowed).emplace_back(right.verb);
    if (isDenied)
      keys.emplace_back(right.key);
  }
  if (allowed.empty())
  {
    complain(place + " has no role for this host: it may not " + listOf(denied, " or ") +
                 " there, by " + listOf(keys, " and ") + " of its configuration",
             {"Its log tells who may, and by which names it knows this host."});
    return EXIT_REFUSED;
  }
  say(place + " lets this host " + listOf(allowed, " and ") +
      (denied.empty() ? "."
                      : ", but not " + listOf(denied, " or ") + ", by " + listOf(keys, " and ") +
                            " of its configuration."));
  return EXIT_DONE;
}

// Whether the host there proves to be the one that is meant, or the reason.
bool isMeant(TlsChannel& channel, std::string const& host, std::string const& where,
             Clock::time_point deadline, std::string& reason)
{
  if (channel.handshake(deadline) != TlsChannel::Progress::DONE)
  {
    reason = channel.reason();
    return false;
  }
  Certificate const& peer = channel.peer();
  say(where + " speaks " + channel.version() + "; its certificate is for " + peer.shownNames() +
      ", is signed by " + peer.shownIssuer() + " and " + expiryText(peer, std::time(nullptr)) +
      ".");
  return isProvenHost(peer, host, reason);
}

// As calls do: one address after the other, until the host that is meant is at one.
int checkConnection(Place const& place, std::shared_ptr<TlsContext const> const& context)
{
  auto const deadline = Clock::now() + LONGEST;
  auto const addresses = getHostAddresses(place.host);
  std::string const shownPlace = shown(place.host) + ":" + place.port;
  bool anyConnected = false;
  std::string reason;
  for (auto const& address : addresses)
  {
    UniqueFd const socket = connectTo(address, place.port, deadline, reason);
    if (!socket.valid())
      continue;
    anyConnected = true;
    std::string const where = shownPlace + (addresses.size() > 1 ? " at " + address : "");
    TlsChannel channel(context, TlsChannel::CLIENT, socket.get());
    if (isMeant(channel, place.host, where, std::min(deadline, Clock::now() + LONGEST_HANDSHAKE),
                reason))
      return checkRights(channel, where, deadline);
    std::cout.flush();
    complain(where + " is not accepted: " + reason);
  }
  if (anyConnected)
    return EXIT_FAILED;
  complain("cannot connect to " + shownPlace + ": " + reason);
  return EXIT_NOT_REACHABLE;
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
    place.port = std::to_string(getServicePort(DISCOVERY_SERVICE, place.host));
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
  setCoreDumpsWithKey(settings.coreDumps);
  auto const context = TlsContext::make(settings, error);
  if (!context)
  {
    complain(error);
    return EXIT_FAILED;
  }
  if (isOff)
    say("TLS is off in " + getConfigurationPath() + "; this is how it would be.");
  std::time_t const now = std::time(nullptr);
  Certificate const& own = context->certificate();
  say("The certificate of this host is for " + own.shownNames() + ", is signed by " +
      own.shownIssuer() + " and " + expiryText(own, now) + ".");
  if (std::string const authority = context->authorityToEnd(); !authority.empty())
    say("That of the authority " + authority + ", on which it rests, " +
        expiryText(context->firstToEnd(), now) + ".");
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
