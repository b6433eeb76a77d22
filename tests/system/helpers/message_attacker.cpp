// Attacks a service with messages that hardly a client would send: requests in
// fragments that overlap, share numbers, are cancelled or left, in sizes and
// orders of all kinds, over connections that are closed in between.
//
// message_attacker PORT SECONDS SEED
//
// Prints the number of connections made. Ends with 1 when the service does not
// accept connections any more, and with 2 when it does not answer at the end.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <thread>

namespace
{

constexpr int ANSWER_MILLISECONDS = 10000;
constexpr char KEY[] = "DiscoveryService";

enum Type : unsigned char
{
  REQUEST = 0,
  CANCEL_REQUEST = 2,
  LOCATE_REQUEST = 3,
  CLOSE_CONNECTION = 5,
  FRAGMENT = 7
};

std::string number(std::uint32_t value)
{
  std::string bytes;
  for (unsigned shift = 0; shift < 32; shift += 8)
    bytes += static_cast<char>(value >> shift);
  return bytes;
}

void align(std::string& body, std::size_t grain, std::size_t before = 0)
{
  while ((body.size() + before) % grain != 0)
    body += '\0';
}

std::string message(unsigned char type, bool more, std::string const& body, char minor = 2)
{
  std::string header = "GIOP\1";
  header += minor;
  header += static_cast<char>(more ? 3 : 1); // little endian
  header += static_cast<char>(type);
  return header + number(static_cast<std::uint32_t>(body.size())) + body;
}

std::string text(char const* characters)
{
  std::string const bytes = characters;
  return number(static_cast<std::uint32_t>(bytes.size() + 1)) + bytes + '\0';
}

std::string callOf(std::uint32_t id, char const* operation)
{
  std::string body = number(id) + std::string("\3\0\0\0", 4) + std::string(4, '\0');
  body += number(sizeof KEY - 1) + KEY;
  align(body, 4);
  body += text(operation);
  align(body, 4);
  return body + number(0);
}

// The body of a call that any object answers.
std::string call(std::uint32_t id) { return callOf(id, "_non_existent"); }

// And of one that takes its time.
std::string query(std::uint32_t id)
{
  std::string body = callOf(id, "queryDiscoveries");
  align(body, 8, 12);
  body += number(1) + number(0) + text("*");
  align(body, 4);
  return body + text("*");
}

// A run of messages of one connection.
class Attack
{
public:
  explicit Attack(std::mt19937& random) : m_random(random) {}

  std::string make()
  {
    std::string all;
    unsigned const count = 1 + below(8);
    for (unsigned i = 0; i < count; ++i)
      all += below(3) == 0 ? twins() : one();
    if (below(6) == 0 && !all.empty())
      all.resize(below(static_cast<unsigned>(all.size())));
    if (below(8) == 0 && !all.empty())
      all[below(static_cast<unsigned>(all.size()))] = static_cast<char>(below(256));
    return all;
  }

private:
  unsigned below(unsigned limit) { return static_cast<unsigned>(m_random()) % limit; }

  std::uint32_t id()
  {
    constexpr std::uint32_t ids[] = {0, 1, 2, 3, 0xffffffff, 0x7fffffff};
    return ids[below(6)];
  }

  std::string fragment(std::uint32_t which, bool more)
  {
    std::string body = number(which) + std::string(below(6) * 8 + (more ? 0 : below(8)), '\0');
    align(body, more ? 8 : 1, 12);
    return message(FRAGMENT, more, body);
  }

  std::string beginning(std::uint32_t which)
  {
    std::string body = below(2) == 0 ? query(which) : call(which);
    // Cut where the answer may or may not be known by then.
    if (below(2) == 0)
      body.resize(body.size() - std::min<std::size_t>(body.size() - 8, below(40)));
    align(body, 8, 12);
    return message(REQUEST, true, body);
  }

  // Two requests of one number in fragments, one after the other or into one
  // another.
  std::string twins()
  {
    std::uint32_t const which = id();
    if (below(2) == 0)
      return beginning(which) + fragment(which, false) + beginning(which) + fragment(which, false);
    return beginning(which) + beginning(which) + fragment(which, below(2) == 0) +
           fragment(which, false);
  }

  std::string one()
  {
    switch (below(10))
    {
    case 0:
    case 1:
      return message(REQUEST, false, below(2) == 0 ? query(id()) : call(id()),
                     static_cast<char>(below(8) == 0 ? below(4) : 2));
    case 2:
    case 3:
      return beginning(id());
    case 4:
    case 5:
      return fragment(id(), below(2) == 0);
    case 6:
      return message(CANCEL_REQUEST, below(8) == 0, number(id()));
    case 7:
      return message(LOCATE_REQUEST, below(4) == 0,
                     number(id()) + std::string(4, '\0') + number(sizeof KEY - 1) + KEY);
    case 8:
      return below(4) == 0 ? message(CLOSE_CONNECTION, false, "") : std::string();
    default:
      std::string odd = message(static_cast<unsigned char>(below(9)), below(2) == 0, "abcd");
      odd.replace(8, 4, number(m_random()));
      return odd;
    }
  }

  std::mt19937& m_random;
};

int connectTo(std::uint16_t port)
{
  sockaddr_in name{};
  name.sin_family = AF_INET;
  name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  name.sin_port = htons(port);
  int const fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&name), sizeof name) == 0)
    return fd;
  if (fd >= 0)
    close(fd);
  return -1;
}

bool isAnswered(std::uint16_t port)
{
  int const fd = connectTo(port);
  if (fd < 0)
    return false;
  std::string const request = message(REQUEST, false, call(5));
  pollfd wait{fd, POLLIN, 0};
  char answer[12] = {};
  bool const answered = send(fd, request.data(), request.size(), MSG_NOSIGNAL) > 0 &&
                        poll(&wait, 1, ANSWER_MILLISECONDS) == 1 &&
                        recv(fd, answer, sizeof answer, 0) == sizeof answer && answer[7] == 1;
  close(fd);
  return answered;
}

void attackOnce(int fd, std::mt19937& random)
{
  std::string const bytes = Attack(random).make();
  // In one piece mostly, in two sometimes.
  std::size_t const first = random() % 4 == 0 ? bytes.size() / 2 : bytes.size();
  if (send(fd, bytes.data(), first, MSG_NOSIGNAL) >= 0 && first < bytes.size())
  {
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 300));
    [[maybe_unused]] auto const sent =
        send(fd, bytes.data() + first, bytes.size() - first, MSG_NOSIGNAL);
  }
  if (random() % 2 == 0)
  {
    pollfd wait{fd, POLLIN, 0};
    char answers[4096];
    if (poll(&wait, 1, static_cast<int>(random() % 10)) == 1) [[maybe_unused]]
      auto const got = recv(fd, answers, sizeof answers, MSG_DONTWAIT);
  }
}

} // namespace

int main(int argc, char** argv)
{
  if (argc != 4)
  {
    std::fprintf(stderr, "usage: message_attacker PORT SECONDS SEED\n");
    return 3;
  }
  auto const port = static_cast<std::uint16_t>(std::atoi(argv[1]));
  auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(std::atoi(argv[2]));
  std::mt19937 random(static_cast<std::uint32_t>(std::atoll(argv[3])));
  unsigned long connections = 0;
  while (std::chrono::steady_clock::now() < end)
  {
    int const fd = connectTo(port);
    if (fd < 0)
    {
      std::printf("no connection after %lu\n", connections);
      return 1;
    }
    ++connections;
    attackOnce(fd, random);
    close(fd);
  }
  std::printf("%lu connections\n", connections);
  return isAnswered(port) ? 0 : 2;
}
