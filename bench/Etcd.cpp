#include "bench/Etcd.h"

#include "bench/Bench.h"
#include "bench/Service.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <thread>

namespace tqbench
{
namespace
{

constexpr char PROGRAM[] = "/usr/bin/etcd";
constexpr std::size_t MOST_KEPT = std::size_t(1) << 20; // of an answer that has been taken

constexpr auto DEADLINE = std::chrono::seconds(30);

constexpr char DIGITS[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

void appendBase64(std::string& text, std::string_view bytes)
{
  std::size_t at = 0;
  auto const byte = [&](std::size_t i)
  { return i < bytes.size() ? static_cast<unsigned char>(bytes[i]) : 0U; };
  for (; at < bytes.size(); at += 3)
  {
    unsigned const group = byte(at) << 16 | byte(at + 1) << 8 | byte(at + 2);
    text += DIGITS[group >> 18];
    text += DIGITS[group >> 12 & 63];
    text += at + 1 < bytes.size() ? DIGITS[group >> 6 & 63] : '=';
    text += at + 2 < bytes.size() ? DIGITS[group & 63] : '=';
  }
}

void appendPut(std::string& body, std::string_view key, std::string_view value)
{
  body += R"({"key":")";
  appendBase64(body, key);
  body += R"(","value":")";
  appendBase64(body, value);
  body += R"("})";
}

std::array<unsigned char, 256> valuesOfDigits()
{
  std::array<unsigned char, 256> values{};
  for (unsigned char i = 0; i < 64; ++i)
    values[static_cast<unsigned char>(DIGITS[i])] = i;
  return values;
}

std::string_view decodeBase64(std::string_view text, std::string& bytes)
{
  static std::array<unsigned char, 256> const values = valuesOfDigits();
  bytes.resize(text.size() / 4 * 3);
  std::size_t size = 0;
  for (std::size_t at = 0; at + 3 < text.size(); at += 4)
  {
    unsigned group = 0;
    for (std::size_t i = 0; i < 4; ++i)
      group = group << 6 | values[static_cast<unsigned char>(text[at + i])];
    bytes[size++] = static_cast<char>(group >> 16);
    bytes[size++] = static_cast<char>(group >> 8 & 255);
    bytes[size++] = static_cast<char>(group & 255);
  }
  while (size > 0 && text.ends_with('='))
  {
    --size;
    text.remove_suffix(1);
  }
  return std::string_view(bytes).substr(0, size);
}

int connectTo(unsigned short port)
{
  int const fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  int const yes = 1;
  if (fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes) == 0)
    return fd;
  if (fd >= 0)
    ::close(fd);
  return -1;
}

bool beginsWith(std::string_view line, std::string_view name)
{
  return line.size() >= name.size() && ::strncasecmp(line.data(), name.data(), name.size()) == 0;
}

// The values of a member of that name, one after the other; texts of base64 have
// no escapes.
std::string_view nextValue(std::string_view json, std::string_view member, std::size_t& at)
{
  std::size_t const begin = json.find(member, at);
  if (begin == std::string_view::npos)
    return {};
  at = json.find('"', begin + member.size());
  require(at != std::string_view::npos, "etcd's answer is cut");
  return json.substr(begin + member.size(), at - begin - member.size());
}

} // namespace

bool EtcdProcess::isInstalled()
{
  static bool const found = []
  {
    bool const there = ::access(PROGRAM, X_OK) == 0;
    if (!there)
      std::cerr << "etcd is not installed (Debian's package etcd-server): what is compared with "
                   "it is left out\n";
    return there;
  }();
  return found;
}

EtcdProcess::EtcdProcess(std::string const& directory) : m_port(freePort())
{
  std::filesystem::create_directories(directory);
  std::string const client = "http://127.0.0.1:" + std::to_string(m_port);
  std::string const peer = "http://127.0.0.1:" + std::to_string(freePort());
  m_pid = startProgram({PROGRAM, "--name=bench", "--data-dir=" + directory + "/data",
                        "--listen-client-urls=" + client, "--advertise-client-urls=" + client,
                        "--listen-peer-urls=" + peer, "--initial-advertise-peer-urls=" + peer,
                        "--initial-cluster=bench=" + peer, "--log-level=error"},
                       directory + "/log");
  auto const end = std::chrono::steady_clock::now() + DEADLINE;
  bool answers = false;
  while (!(answers = EtcdClient::answers(m_port)) && std::chrono::steady_clock::now() < end &&
         ::waitpid(m_pid, nullptr, WNOHANG) == 0)
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  if (answers)
    return;
  ::kill(m_pid, SIGKILL);
  ::waitpid(m_pid, nullptr, 0);
  require(false, "etcd does not answer");
}

EtcdProcess::~EtcdProcess()
{
  ::kill(m_pid, SIGTERM);
  ::waitpid(m_pid, nullptr, 0);
}

EtcdClient::EtcdClient(unsigned short port) : m_fd(connectTo(port))
{
  require(m_fd >= 0, "etcd cannot be reached");
}

EtcdClient::~EtcdClient() { ::close(m_fd); }

bool EtcdClient::answers(unsigned short port)
{
  int const fd = connectTo(port);
  if (fd < 0)
    return false;
  ::close(fd);
  try
  {
    EtcdClient(port).put("ready", "yes");
    return true;
  }
  catch (std::exception const&)
  {
    return false;
  }
}

void EtcdClient::putAll(std::vector<std::pair<std::string, std::string>> const& pairs)
{
  std::string body = R"({"success":[)";
  for (auto const& [key, value] : pairs)
  {
    body += body.ends_with('[') ? R"({"requestPut":)" : R"(,{"requestPut":)";
    appendPut(body, key, value);
    body += '}';
  }
  body += "]}";
  require(post("/v3/kv/txn", body).find("\"succeeded\":true") != std::string::npos,
          "etcd has refused a transaction");
}

void EtcdClient::put(std::string_view key, std::string_view value)
{
  std::string body;
  appendPut(body, key, value);
  require(post("/v3/kv/put", body).find("\"revision\"") != std::string::npos,
          "etcd has refused a put");
}

std::size_t EtcdClient::list(std::string_view first, std::string_view end, std::size_t& bytes)
{
  std::string body = R"({"key":")";
  appendBase64(body, first);
  body += R"(","range_end":")";
  appendBase64(body, end);
  body += R"("})";
  std::string const& answer = post("/v3/kv/range", body);
  std::size_t count = 0;
  std::string buffer;
  for (std::size_t at = 0;;)
  {
    std::string_view const key = nextValue(answer, R"("key":")", at);
    if (key.empty())
      return count;
    bytes += decodeBase64(key, buffer).size();
    bytes += decodeBase64(nextValue(answer, R"("value":")", at), buffer).size();
    ++count;
  }
}

void EtcdClient::sendAll(std::string const& text) const
{
  for (std::size_t done = 0; done < text.size();)
  {
    ssize_t const count = ::send(m_fd, text.data() + done, text.size() - done, MSG_NOSIGNAL);
    require(count > 0, "etcd has ended the connection");
    done += static_cast<std::size_t>(count);
  }
}

bool EtcdClient::readMore()
{
  char buffer[65536];
  ssize_t const count = ::recv(m_fd, buffer, sizeof buffer, 0);
  if (count > 0)
    m_input.append(buffer, static_cast<std::size_t>(count));
  return count > 0;
}

void EtcdClient::readUntil(std::size_t size)
{
  while (m_input.size() < size)
    require(readMore(), "etcd's answer is cut");
}

// The line that begins there, without its end; the result is where the next does.
std::size_t EtcdClient::readLine(std::size_t from, std::string_view& line)
{
  std::size_t end;
  while ((end = m_input.find("\r\n", from)) == std::string::npos)
    require(readMore(), "etcd's answer is cut");
  line = std::string_view(m_input).substr(from, end - from);
  return end + 2;
}

std::string const& EtcdClient::post(char const* path, std::string const& body)
{
  sendAll("POST " + std::string(path) +
          " HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: application/json\r\nContent-Length: " +
          std::to_string(body.size()) + "\r\n\r\n" + body);
  m_input.clear();
  m_answer.clear();
  std::string_view line;
  std::size_t at = readLine(0, line);
  require(line.starts_with("HTTP/1.1 200"), "etcd has answered with a failure");
  std::size_t length = 0;
  bool chunked = false;
  for (;;)
  {
    at = readLine(at, line);
    if (line.empty())
      break;
    constexpr std::string_view LENGTH = "Content-Length:";
    if (beginsWith(line, LENGTH))
      length = std::strtoul(line.data() + LENGTH.size(), nullptr, 10);
    chunked |= beginsWith(line, "Transfer-Encoding: chunked");
  }
  if (!chunked)
  {
    readUntil(at + length);
    return m_answer.assign(m_input, at, length);
  }
  for (;;)
  {
    at = readLine(at, line);
    length = std::strtoul(line.data(), nullptr, 16);
    readUntil(at + length + 2);
    if (length == 0)
      return m_answer;
    m_answer.append(m_input, at, length);
    at += length + 2;
    // Pieces are small, and what is behind them would be moved for each.
    if (at < MOST_KEPT)
      continue;
    m_input.erase(0, at);
    at = 0;
  }
}

} // namespace tqbench
