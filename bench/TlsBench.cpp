// What TLS costs: calls and writes to a service that takes TLS alone, beside the same
// to one that takes none, and full handshakes of the service beside those of a bare
// server with the same files.

#include "bench/BareTls.h"
#include "bench/Bench.h"
#include "bench/Records.h"
#include "bench/Service.h"
#include "bench/Writers.h"

#include "ozf/config/Configuration.h"
#include "ozf/orb/Orb.h"
#include "tests/support/Certificates.h"

#include <DiscoveryServiceC.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>

namespace tqbench
{
namespace
{

constexpr int CALL_ROUNDS = 21;
constexpr int CALLS = 1000;

constexpr std::size_t CLIENTS = 50;
constexpr std::size_t WRITES = 40; // of each client in a round
constexpr int WRITE_ROUNDS = 5;

constexpr int HANDSHAKE_ROUNDS = 11;
constexpr std::size_t HANDSHAKES = 200; // in a round

constexpr char HOST6[] = "benchmaster6";
constexpr char PLAIN[] = "PlainService"; // ORB_PORT.PlainService is the port of the plain one

// Two services that differ in TLS alone, and this process, which calls either as it
// wants to be called.
class TwoServices
{
public:
  explicit TwoServices(Settings const& settings)
      : m_files(settings.directory + "/certificates"), m_orb(0, "", "tqbench", 1, 1024)
  {
    std::filesystem::create_directory(m_files);
    tqtest::CertificateAuthority authority;
    authority.writeTo(m_files + "/ca.pem");
    tqtest::Wish wish;
    wish.names = std::string("DNS:") + HOST + ",DNS:" + HOST6;
    authority.issue(m_files, "host", wish);
    std::string const byOtherAddress =
        std::string("ORB_BIND = ::1\nHOST_ADDRESS.") + HOST6 + " = ::1\n";
    start(&m_plain, settings, "plain", m_plainPort, byOtherAddress);
    start(&m_tls, settings, "tls", m_tlsPort, byOtherAddress + lines("only"));
    start(nullptr, settings, "client", m_tlsPort,
          byOtherAddress + "ORB_PORT." + PLAIN + " = " + std::to_string(m_plainPort) + '\n' +
              lines("both"));
    require(reloadConfiguration(), "the configuration was refused");
    require(m_orb.init() && m_orb.run(0) == 0, "no ORB");
    for (char const* const service : {"DiscoveryService", PLAIN})
    {
      Remote::DiscoveryService_var const ready =
          connectTo<Remote::DiscoveryService>(m_orb, service, "DiscoveryService");
    }
  }
  ~TwoServices() { m_orb.shutdown(); }
  TwoServices(TwoServices const&) = delete;
  TwoServices& operator=(TwoServices const&) = delete;

  Remote::DiscoveryService_ptr connect(bool tls, bool byOtherAddress = false)
  {
    OzfHostname host;
    host.setHostname(byOtherAddress ? HOST6 : HOST);
    CORBA::Object_var const object = m_orb.resolveObject(host, tls ? "DiscoveryService" : PLAIN,
                                                         "DiscoveryService", ACE_Time_Value::zero);
    return Remote::DiscoveryService::_narrow(object);
  }

  unsigned short port() const { return m_tlsPort; }
  std::string const& files() const { return m_files; }

private:
  std::string lines(char const* mode) const { return tqtest::tlsLines(mode, m_files, "host"); }

  // The last root that was named is this process's own.
  static void start(std::optional<ServiceProcess>* process, Settings const& settings,
                    std::string const& name, unsigned short port, std::string const& more)
  {
    std::string const root = settings.directory + '/' + name;
    writeConfiguration(root, port, more);
    ::setenv("TESSARINE_ROOT", root.c_str(), 1);
    if (process != nullptr)
      process->emplace(settings.service);
  }

  std::string const m_files;
  unsigned short const m_plainPort = freePort();
  unsigned short const m_tlsPort = freePort();
  std::optional<ServiceProcess> m_plain;
  std::optional<ServiceProcess> m_tls;
  Orb m_orb;
};

} // namespace

std::vector<Row> benchTls(Settings const& settings)
{
  BareTls bare; // forks
  TwoServices services(settings);
  bare.begin(services.files());

  auto const calls = [&](bool tls)
  {
    Remote::DiscoveryService_var const service = services.connect(tls);
    auto const iterator = std::make_shared<Remote::DiscoveryIterator_var>(
        service->queryDiscoveries(DQ_DISCOVERY_DATA, AT_ANYANDALL, "*", AUTHORITY));
    return [iterator]
    {
      return timed(
                 [&]
                 {
                   for (int call = 0; call < CALLS; ++call)
                     require((*iterator)->pageSize() > 0, "a call was not answered");
                 }) /
             CALLS;
    };
  };
  std::vector<double> const perCall =
      alternate(settings, {{"product", calls(true)}, {"floor", calls(false)}}, CALL_ROUNDS);

  std::string const payload = payloadOf(4);
  auto const writes = [&](bool tls)
  {
    return [&, tls]
    {
      auto const times = together(CLIENTS, WRITES,
                                  [&](std::size_t number)
                                  {
                                    // A master serves only so many writers of one address.
                                    Remote::DiscoveryService_var const service =
                                        services.connect(tls, number / WRITES % 2 != 0);
                                    writeByCalls(service, number, payload);
                                  });
      return *std::max_element(times.begin(), times.end()) / (CLIENTS * WRITES);
    };
  };
  std::vector<double> const perWrite =
      alternate(settings, {{"product", writes(true)}, {"floor", writes(false)}}, WRITE_ROUNDS);

  TlsCallers callers(services.files());
  auto const handshakes = [&](unsigned short port)
  { return [&, port] { return callers.shakeHands(port, HANDSHAKES) / HANDSHAKES; }; };
  std::vector<double> const perHandshake = alternate(
      settings, {{"product", handshakes(services.port())}, {"floor", handshakes(bare.port())}},
      HANDSHAKE_ROUNDS);

  std::string const many = std::to_string(CLIENTS) + " clients write at once, 4 KiB payload, ";
  return {{"a call with TLS", "us", perCall[0] * 1e6, "without", perCall[1] * 1e6, 5},
          {many + "with TLS", "us", perWrite[0] * 1e6, "without", perWrite[1] * 1e6, 1 / 0.7},
          {"a full handshake of both sides", "us", perHandshake[0] * 1e6, "of a bare server",
           perHandshake[1] * 1e6, 1 / 0.8}};
}

} // namespace tqbench
