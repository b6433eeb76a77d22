#include "bench/HostileMessages.h"

#include "bench/Bench.h"
#include "bench/Records.h"
#include "bench/Service.h"

#include "tests/support/GiopMutation.h"

#include <openssl/ssl.h>

#include <cstdint>
#include <memory>
#include <random>

namespace tqbench
{
namespace
{

namespace giop = tqtest::giop;

constexpr std::uint32_t SEED = 1;
constexpr char HARMFUL_HOST[] = "127.0.0.1";
constexpr char MINORS[] = {0, 1, 2};

// A message in little endian, as the ORB would write it.
class Written
{
public:
  explicit Written(char minor) : m_bytes("GIOP\1", 5)
  {
    m_bytes += minor;
    m_bytes += '\1';
    m_bytes += static_cast<char>(giop::REQUEST);
    m_bytes.append(4, '\0');
  }

  Written& number(std::uint64_t value, std::size_t size = 4)
  {
    align(size);
    for (std::size_t i = 0; i < size; ++i)
      m_bytes += static_cast<char>(value >> (8 * i));
    return *this;
  }
  Written& bytes(std::string const& value)
  {
    number(value.size());
    m_bytes += value;
    return *this;
  }
  Written& text(std::string const& value) { return bytes(value + '\0'); }
  Written& align(std::size_t size)
  {
    m_bytes.append((size - m_bytes.size() % size) % size, '\0');
    return *this;
  }
  std::string message()
  {
    giop::fitSize(m_bytes);
    return m_bytes;
  }

private:
  std::string m_bytes;
};

// All up to the arguments, of an operation of the service that is answered.
Written requestOf(char const* operation, char minor = 0)
{
  constexpr std::uint32_t TO_BE_ANSWERED = 1;
  constexpr std::uint32_t TO_BE_ANSWERED_1_2 = 3;
  Written request(minor);
  if (minor < 2)
    return request.number(0)
        .number(1)
        .number(TO_BE_ANSWERED)
        .bytes("DiscoveryService")
        .text(operation)
        .number(0);
  return request.number(1)
      .number(TO_BE_ANSWERED_1_2)
      .number(0)
      .bytes("DiscoveryService")
      .text(operation)
      .number(0)
      .align(8);
}

std::string queryOf(char minor)
{
  return requestOf("queryDiscoveries", minor)
      .number(DQ_DISCOVERY_DATA)
      .number(TYPE)
      .text(subjectName(7))
      .text(AUTHORITY)
      .message();
}

std::string firstHello()
{
  std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> const context(SSL_CTX_new(TLS_method()),
                                                                  SSL_CTX_free);
  std::unique_ptr<SSL, decltype(&SSL_free)> const session(SSL_new(context.get()), SSL_free);
  BIO* const out = BIO_new(BIO_s_mem());
  SSL_set_bio(session.get(), BIO_new(BIO_s_mem()), out);
  SSL_connect(session.get()); // has nobody to answer it
  char* begin = nullptr;
  long const size = BIO_get_mem_data(out, &begin);
  require(size > 0, "no first message of TLS");
  return {begin, static_cast<std::size_t>(size)};
}

} // namespace

std::vector<std::string> mutatedMessages(std::size_t count)
{
  giop::Mutator mutator(SEED);
  std::vector<std::string> made;
  while (made.size() < count)
  {
    std::string all;
    for (auto const& message : mutator.mutate(queryOf(MINORS[made.size() % std::size(MINORS)])))
      all += message;
    if (!all.empty())
      made.push_back(all);
  }
  return made;
}

std::vector<std::string> mutatedHellos(std::size_t count)
{
  constexpr std::size_t MOST_CHANGES = 8;
  constexpr std::size_t WHOLE = 3; // of so many one is not cut
  std::string const hello = firstHello();
  std::mt19937 random(SEED);
  std::vector<std::string> made;
  while (made.size() < count)
  {
    std::string changed = hello;
    for (std::size_t i = 1 + random() % MOST_CHANGES; i != 0; --i)
      changed[1 + random() % (changed.size() - 1)] = static_cast<char>(random());
    if (random() % WHOLE != 0)
      changed.resize(1 + random() % changed.size());
    made.push_back(changed);
  }
  return made;
}

std::string registrationOf(std::string const& subject, std::string const& service)
{
  return requestOf("registerExplorer")
      .text(HARMFUL_HOST)
      .text(service)
      .text(subject)
      .text("volume")
      .number(AT_EXTSRC)
      .number(1, 2)
      .message();
}

std::string dataRequestFor(std::string const& subject)
{
  return requestOf("getCollectionData")
      .number(DQ_UNDEFINED)
      .text(subject)
      .text("volume")
      .number(AT_EXTSRC)
      .number(CT_CONFIGURATION)
      .number(CS_CENTRALREPOSITORY)
      .number(0)
      .number(0, 8)
      .number(0, 8)
      .text(HARMFUL_HOST)
      .text("DiscoveryService")
      .text("")
      .message();
}

} // namespace tqbench
