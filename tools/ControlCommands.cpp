// push and stop: what a service is to do.

#include "tools/AnnouncingHost.h"
#include "tools/Commands.h"
#include "tools/Output.h"
#include "tools/Sending.h"
#include "tools/Table.h"

#include "discovery/RefreshRequests.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <iostream>
#include <memory>
#include <thread>
#include <unistd.h>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

namespace
{

struct ControlOptions
{
  std::string host;
  std::string authority; // of --now, empty for all
  bool all = false;
  bool now = false;
  bool noWait = false;
  bool json = false;
};

int failed(ControlOptions const& options, Connection const& connection,
           CORBA::Exception const& exception)
{
  if (CORBA::NO_PERMISSION::_downcast(&exception) != nullptr)
  {
    complain("the service refuses it to who calls from here: its log says why, and ALLOW_CONTROL "
             "of its configuration who may; by default that is its own host and the master");
    return EXIT_REFUSED;
  }
  complain("the service did not do it: " + reasonOf(exception));
  return options.host.empty() ? connection.conclude(EXIT_FAILED) : EXIT_FAILED;
}

// The service asked: the master's, or another host's, for which the master need
// not be there unless something is to be stored with it. An exit code.
int reach(ControlOptions const& options, Connection& connection,
          Remote::DiscoveryService_var& service)
{
  bool const needsMaster = options.host.empty() || options.now;
  if (int const result = needsMaster ? connection.open() : connection.prepare();
      result != EXIT_DONE || connection.several())
    return result;
  service = options.host.empty() ? Remote::DiscoveryService::_duplicate(connection.service())
                                 : connection.connect(options.host);
  return CORBA::is_nil(service) ? connection.whyNotConnected() : EXIT_DONE;
}

std::string whose(ControlOptions const& options, Connection const& connection)
{
  return options.host.empty() ? connection.place() : shown(options.host);
}

constexpr char NO_ITEMS[] = "<DiscoveredItems/>\n";

// The request that hosts look for before their next pass.
Remote::Discovery refreshRequest(ControlOptions const& options, std::string const& subject)
{
  // Long enough for a pass that was asked for, and for a host that is slow.
  constexpr std::uint64_t LIFETIME = 600; // seconds
  constexpr unsigned PRIORITY = 10;
  std::string const authority =
      REFRESH_AUTHORITY + (options.authority.empty() ? "" : '.' + options.authority);
  return recordToStore(subject, authority, AT_EXTSRC, PRIORITY, LIFETIME);
}

// Stores it for the hosts concerned. An exit code.
int requestRefresh(ControlOptions const& options, Connection const& connection)
{
  std::string subject = REFRESH_ALL_HOSTS;
  if (!options.all)
  {
    // A host obeys what is about the name that it calls itself.
    auto const asked = askAnnouncing(options.host.empty() ? connection.master() : options.host);
    if (!asked)
    {
      complain("the service at " + whose(options, connection) +
               " does not tell its name, it is too old for --now; --verbose shows more");
      return EXIT_FAILED;
    }
    subject = asked->name;
  }
  return sendToMaster(connection, refreshRequest(options, subject), NO_ITEMS);
}

constexpr char NOT_PUSHED[] = "either that service is not the master's, or it is still at work on "
                              "the last such request; its log tells";

// Has every host of several masters push. An exit code.
int pushAll(ControlOptions const& options, Connection const& connection)
{
  Masters& masters = connection.masters();
  Remote::Discovery const request = refreshRequest(options, REFRESH_ALL_HOSTS);
  std::atomic<bool> answered{false};
  masters.each(
      [&](Master& master, std::size_t)
      {
        Sent const sent = options.now ? sendTo(master.service, request, NO_ITEMS) : Sent();
        if (sent.result != EXIT_DONE)
          return sent.reason;
        bool const pushed = master.service->restartAllPushTimers();
        answered = true;
        return std::string(pushed ? "" : NOT_PUSHED);
      });
  std::string done;
  nlohmann::json all = nlohmann::json::array();
  for (Master const& master : masters.all())
  {
    all.push_back(
        {{"master", master.name}, {"service", master.place}, {"done", master.missing.empty()}});
    if (master.missing.empty())
      done += (done.empty() ? "" : ", ") + master.place;
  }
  if (options.json)
    printJson({{"masters", std::move(all)}, {"all", true}, {"now", options.now}});
  else if (!done.empty())
    std::cout << wrapped("Asked by " + done +
                             ", every known client moves its next pass to within a minute.",
                         terminalWidth(STDOUT_FILENO))
              << '\n';
  if (done.empty())
    return answered ? EXIT_FAILED : connection.conclude(EXIT_FAILED);
  return connection.conclude(EXIT_DONE);
}

int push(ControlOptions const& options, Session const& session)
{
  if (options.authority.find('*') != std::string::npos)
  {
    complain("--authority is a pattern; name one authority, or leave it out for all");
    return EXIT_USAGE;
  }
  Connection connection(session.connection, options.all ? Connection::SEVERAL : Connection::ONE);
  Remote::DiscoveryService_var service;
  if (int const result = reach(options, connection, service); result != EXIT_DONE)
    return result;
  if (connection.several())
    return pushAll(options, connection);
  if (options.now)
    if (int const result = requestRefresh(options, connection); result != EXIT_DONE)
      return result;
  try
  {
    if (!options.all)
      service->restartLocalPushTimer();
    else if (!service->restartAllPushTimers())
    {
      complain(std::string("not done: ") + NOT_PUSHED);
      return EXIT_FAILED;
    }
  }
  catch (CORBA::Exception const& exception)
  {
    return failed(options, connection, exception);
  }
  if (options.json)
    printJson(
        {{"service", whose(options, connection)}, {"all", options.all}, {"now", options.now}});
  else
  {
    std::string text =
        options.all ? "The master asks every known client to move its next pass to within a minute."
                    : "The next pass over the explorers of " + whose(options, connection) +
                          (options.now ? "" : " that are due") + " comes within a minute.";
    if (options.now)
      text += options.authority.empty()
                  ? " Before it all of them become due."
                  : " Before it those of " + shown(options.authority) + " become due.";
    std::cout << wrapped(text, terminalWidth(STDOUT_FILENO)) << '\n';
  }
  return EXIT_DONE;
}

// Whether nothing accepts connections there any more. A service that stops gives
// its object up first and then waits for the work in progress: while that lasts,
// and while it hangs, calls fail in other ways.
bool hasEnded(Remote::DiscoveryService_ptr service)
{
  try
  {
    service->_non_existent();
  }
  catch (CORBA::TRANSIENT const&)
  {
    return true;
  }
  catch (CORBA::Exception const&)
  {
    // It is there, whatever its state.
  }
  return false;
}

// Whether the service ends before the deadline.
bool awaitEnd(Remote::DiscoveryService_ptr service, std::chrono::milliseconds limit)
{
  auto const deadline = std::chrono::steady_clock::now() + limit;
  Progress progress("Waiting for the service to stop");
  while (std::chrono::steady_clock::now() < deadline)
  {
    if (hasEnded(service))
      return true;
    progress.update("it is still there");
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  return false;
}

int stop(ControlOptions const& options, Session const& session)
{
  Connection connection(session.connection);
  Remote::DiscoveryService_var service;
  if (int const result = reach(options, connection, service); result != EXIT_DONE)
    return result;
  bool stopped = false;
  std::chrono::milliseconds const longest = std::chrono::seconds(session.connection.call());
  try
  {
    if (!service->terminate())
    {
      complain("the service cannot stop itself; stop it where it runs: systemctl stop tqdisco");
      return EXIT_FAILED;
    }
    stopped = !options.noWait && awaitEnd(service, std::min(connection.clock().left(), longest));
  }
  catch (CORBA::Exception const& exception)
  {
    return failed(options, connection, exception);
  }
  if (!stopped && !options.noWait)
  {
    complain("the service was asked to stop, but has not ended after " +
             std::to_string(session.connection.call()) +
             " seconds; it may be waiting for work in progress");
    return EXIT_PARTLY;
  }
  if (options.json)
    printJson({{"service", whose(options, connection)}, {"stopped", stopped}});
  else
    std::cout << "The service at " << whose(options, connection)
              << (stopped ? " has stopped.\n" : " was asked to stop.\n");
  return EXIT_DONE;
}

void addHost(CLI::App& command, ControlOptions& options)
{
  command.add_option("--host", options.host, "The service of this host instead of the master's")
      ->type_name("HOST");
}

} // namespace

void addControlCommands(CLI::App& application, Session& session)
{
  auto const options = std::make_shared<ControlOptions>();

  CLI::App* const pushCommand = application.add_subcommand(
      "push", "Move the next pass over the explorers that are due to within a minute");
  addHost(*pushCommand, *options);
  pushCommand->add_flag("--all", options->all, "On every host of the fleet")->excludes("--host");
  auto* const now = pushCommand->add_flag("--now", options->now,
                                          "Also those that are not due; stores a request for it");
  pushCommand
      ->add_option("-a,--authority", options->authority, "With --now only explorers of this one")
      ->type_name("AUTHORITY")
      ->needs(now);
  pushCommand->add_flag("--json", options->json, "As JSON");
  pushCommand->callback([options, &session] { session.exitCode = push(*options, session); });

  CLI::App* const stopCommand =
      application.add_subcommand("stop", "Stop the service and wait until it has");
  addHost(*stopCommand, *options);
  stopCommand->add_flag("--no-wait", options->noWait, "Only ask it to");
  stopCommand->add_flag("--json", options->json, "As JSON");
  stopCommand->callback([options, &session] { session.exitCode = stop(*options, session); });
}

} // namespace tqdiscoctl
