// Certificates as this product sees them.

#pragma once

#include "ozf/tls/Certificate.h"
#include "tests/support/Certificates.h"
#include "tests/support/ConfiguredHost.h"

class IssuedCertificates : public ConfiguredHost
{
protected:
  Quillon::Tessarine::Ozf::Certificate issued(tqtest::Wish const& wish)
  {
    m_authority.issue(m_root.path(), "host", wish);
    std::unique_ptr<std::FILE, decltype(&std::fclose)> const file(
        std::fopen((m_root / "host.pem").c_str(), "r"), std::fclose);
    if (!file)
      throw std::runtime_error("no certificate was issued");
    return Quillon::Tessarine::Ozf::Certificate(
        PEM_read_X509(file.get(), nullptr, nullptr, nullptr));
  }

  // With those alternative names, as an extension has them.
  Quillon::Tessarine::Ozf::Certificate named(std::string const& names)
  {
    tqtest::Wish wish;
    wish.names = names;
    return issued(wish);
  }

  tqtest::CertificateAuthority m_authority;
};
