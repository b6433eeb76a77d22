#include "tests/support/Fleet.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <set>

namespace tqtest
{

namespace fs = std::filesystem;

namespace
{

constexpr std::array<char const*, Fleet::HOSTS> NAMES = {Fleet::MASTER, Fleet::MEDIA, Fleet::MAIL,
                                                         Fleet::WEB, Fleet::LAST};

void addLibrary(std::string const& from, std::string const& to)
{
  fs::copy_file(from, to);
  fs::permissions(to, fs::perms(0755));
}

// A port that was free a moment ago on all of the addresses, as far as they are
// this machine's: those inside a namespace have all ports free.
unsigned short freePortOf(FleetNetwork const& network)
{
  for (;;)
  {
    unsigned short const port = freePort();
    std::vector<int> sockets;
    bool free = true;
    for (std::size_t host = 0; host < Fleet::HOSTS && free; ++host)
    {
      sockets.push_back(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
      sockaddr_in address{};
      address.sin_family = AF_INET;
      address.sin_port = htons(port);
      inet_pton(AF_INET, network.address(host).c_str(), &address.sin_addr);
      free = bind(sockets.back(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 ||
             errno == EADDRNOTAVAIL;
    }
    for (int const fd : sockets)
      close(fd);
    if (free)
      return port;
  }
}

} // namespace

// ---- one host ----

FleetHost::FleetHost(FleetNetwork& network, std::size_t number, std::string name)
    : m_network(network), m_number(number), m_name(std::move(name))
{
  for (char const* const folder : {"etc", "lib/plugins", "notes"})
    fs::create_directories(m_root / folder);
  // Nobody else may write where libraries and keys lie, whatever the umask.
  for (auto const& folder : {m_root.path(), m_root / "etc", m_root / "lib", m_root / "lib/plugins"})
    fs::permissions(folder, fs::perms(0755));
  addLibrary(TQ_LIB_DIR "/libtqexplorer.so", m_root / "lib/libtqexplorer.so");
  addLibrary(TQ_FIXTURE_DIR "/libdiscovery_fleet.so", m_root / "lib/plugins/libtqplugin-fleet.so");
}

void FleetHost::configure(std::string const& entries, CertificateAuthority* authority)
{
  std::string lines =
      "CLIENT_NAME = " + m_name + "\nORB_BIND = " + address() + "\nLOG_LEVEL = 4\n" + entries;
  if (authority != nullptr)
  {
    issue("host", m_name, *authority);
    authority->writeTo(m_root / "etc/ca.pem");
    lines += tlsLines("only", m_root / "etc", "host");
  }
  writeText(m_root / "etc/tq.conf", lines);
}

void FleetHost::addEntries(std::string const& entries)
{
  std::string const file = m_root / "etc/tq.conf";
  writeText(file, readText(file) + entries);
}

void FleetHost::launch(Process::Environment const& more)
{
  Process::Environment environment = more;
  environment["TESSARINE_ROOT"] = m_root.path();
  environment["TQ_FIXTURE_FOLDER"] = m_root / "notes";
  for (auto const& preloading : {m_network.callingFrom(m_number), clocks()})
    for (auto const& [variable, value] : preloading)
    {
      std::string& text = environment[variable];
      text = variable == "LD_PRELOAD" ? value + ' ' + text : value;
    }
  Words words = m_network.wrapper(m_number);
  words.push_back(TQ_BIN_DIR "/tqdisco");
  m_process.reset();
  m_process =
      std::make_unique<Process>(words.front(), Words(words.begin() + 1, words.end()), environment);
}

int FleetHost::stop()
{
  m_process->sendSignal(SIGTERM);
  return m_process->wait(std::chrono::seconds(120)) ? m_process->exitCode() : -1;
}

void FleetHost::kill()
{
  m_process->sendSignal(SIGKILL);
  EXPECT_TRUE(m_process->wait());
}

Outcome FleetHost::tqdiscoctlAs(std::string const& somebody, Words const& arguments) const
{
  Words words = m_network.wrapper(m_number);
  words.push_back(TQ_BIN_DIR "/tqdiscoctl");
  if (!somebody.empty())
    words.insert(words.end(), {"--tls-certificate", m_root / ("etc/" + somebody + ".pem"),
                               "--tls-key", m_root / ("etc/" + somebody + ".key")});
  words.insert(words.end(), arguments.begin(), arguments.end());
  Process::Environment environment = m_network.callingFrom(m_number);
  environment["TESSARINE_ROOT"] = m_root.path();
  environment["ASAN_OPTIONS"] = "verify_asan_link_order=0"; // as it comes first
  return runProgram(words.front(), Words(words.begin() + 1, words.end()), environment);
}

void FleetHost::issue(std::string const& somebody, std::string const& name,
                      CertificateAuthority& authority)
{
  authority.issue(m_root / "etc", somebody, wishFor(name));
}

std::size_t FleetHost::temporaryFiles() const
{
  if (!fs::exists(database()))
    return 0;
  return static_cast<std::size_t>(
      std::count_if(fs::directory_iterator(database()), fs::directory_iterator(),
                    [](auto const& entry) { return entry.path().extension() == ".updating"; }));
}

std::vector<std::string> FleetHost::notes(std::string const& file) const
{
  std::vector<std::string> lines;
  std::ifstream in(note(file));
  for (std::string line; std::getline(in, line);)
    lines.push_back(line);
  return lines;
}

// ---- all of them ----

Fleet::Fleet(std::unique_ptr<FleetNetwork> network, Trust trust) : m_network(std::move(network))
{
  if (trust == PROVEN)
    m_authority.emplace();
  std::string entries = std::string("SERVER = ") + MASTER +
                        "\nORB_PORT.DiscoveryService = " + std::to_string(freePortOf(*m_network)) +
                        '\n';
  for (std::size_t i = 0; i < HOSTS; ++i)
  {
    m_hosts[i] = std::make_unique<FleetHost>(*m_network, i, NAMES[i]);
    entries += "HOST_ADDRESS." + m_hosts[i]->name() + " = " + m_hosts[i]->address() + '\n';
  }
  for (auto const& host : m_hosts)
    host->configure(entries, m_authority ? &*m_authority : nullptr);
}

FleetHost& Fleet::operator[](std::string const& name)
{
  return **std::find_if(m_hosts.begin(), m_hosts.end(),
                        [&](auto const& host) { return host->name() == name; });
}

bool Fleet::start()
{
  if (!master().start())
    return false;
  for (auto const& host : m_hosts)
    if (!host->running())
      host->launch();
  return eventually([this] { return complete(); }, std::chrono::seconds(120));
}

std::vector<std::string> Fleet::stop()
{
  std::vector<std::string> failed;
  for (auto host = m_hosts.rbegin(); host != m_hosts.rend(); ++host)
    if ((*host)->running() && ((*host)->stop() != 0 || (*host)->temporaryFiles() != 0))
      failed.push_back((*host)->name());
  return failed;
}

bool Fleet::complete()
{
  Outcome const outcome = master().tqdiscoctl({"query", "--json"});
  if (outcome.exitCode != 0)
    return false;
  std::multiset<std::string> found;
  for (auto const& record : nlohmann::json::parse(outcome.output))
    for (char const* const authority : {"filesystem", "host", "paced", "service"})
      if (record["authority"] == authority && record["typeName"] == "client")
        found.insert(record["subject"]);
  std::size_t announced = 0;
  Outcome const volumes =
      master().tqdiscoctl({"query", "--authority", "volume", "--type", "remotepull", "--json"});
  if (volumes.exitCode == 0)
    announced = nlohmann::json::parse(volumes.output).size();
  return announced == HOSTS - 1 &&
         std::all_of(m_hosts.begin(), m_hosts.end(),
                     [&](auto const& host) { return found.count(host->name()) == 4; });
}

std::string Fleet::logs()
{
  std::string all;
  for (auto const& host : m_hosts)
    all += "---- " + host->name() + " ----\n" + host->log();
  return all;
}

} // namespace tqtest
