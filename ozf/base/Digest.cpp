#include "ozf/base/Digest.h"

#include <openssl/evp.h>
#include <stdexcept>

namespace Quillon::Tessarine::Ozf
{

namespace
{

// Found once: the library would look for it again for each digest. Null when it
// is not there. Never given back: digests may be taken as the process exits.
EVP_MD const* sha256()
{
  static EVP_MD const* const found = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  return found;
}

} // namespace

Sha256 sha256Of(std::string_view text)
{
  Sha256 digest{};
  unsigned length = 0;
  if (sha256() == nullptr ||
      EVP_Digest(text.data(), text.size(), digest.data(), &length, sha256(), nullptr) != 1 ||
      length != digest.size())
    throw std::runtime_error("SHA-256 is not available");
  return digest;
}

std::string digestOf(std::string_view text)
{
  Sha256 const digest = sha256Of(text);
  constexpr std::string_view HEX = "0123456789abcdef";
  std::string result;
  for (std::size_t i = 0; i < DIGEST_BYTES; ++i)
  {
    result += HEX[digest[i] >> 4];
    result += HEX[digest[i] & 0xF];
  }
  return result;
}

} // namespace Quillon::Tessarine::Ozf
