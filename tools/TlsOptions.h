// What the command line says of TLS in place of the configuration.

#pragma once

namespace CLI
{
class App;
}

namespace tqdiscoctl
{

struct Session;

// --tls, --tls-certificate, --tls-key and --tls-ca; they may stand before and behind
// the command.
void addTlsOptions(CLI::App& application);

// tls check
void addTlsCommand(CLI::App& application, Session& session);

} // namespace tqdiscoctl
