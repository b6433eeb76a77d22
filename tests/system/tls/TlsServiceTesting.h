// A service and the command, both with certificates.

#pragma once

#include "tests/support/BrokenPipes.h"
#include "tests/support/Certificates.h"
#include "tests/support/LiveService.h"

#include <gmock/gmock.h>

#include <openssl/ssl.h>

namespace tqtest
{

// The service is "tqtestmaster", with a certificate of that name, and the command
// shows one of its own.
class TlsServiceTest : public testing::Test
{
protected:
  using Words = LiveService::Words;

  TlsServiceTest()
  {
    m_authority.writeTo(m_files / "ca.pem");
    m_authority.issue(m_files.path(), "user", wishFor("user"));
    m_authority.issue(m_files.path(), "service", wishFor(LiveService::NAME));
  }

  void configure(std::string const& mode)
  {
    m_service.configure(mode.empty() ? "" : tlsLines(mode, m_files.path(), "service"));
  }

  void reload(std::string const& line)
  {
    ASSERT_EQ(kill(m_service.process().pid(), SIGHUP), 0);
    ASSERT_TRUE(m_service.process().awaitError(line)) << m_service.log();
  }

  // As somebody whose certificate has that name; without TLS for none.
  Outcome run(std::string const& user, Words const& words,
              std::string const& authorities = "ca.pem") const
  {
    Words all{"--tls", "off"};
    if (!user.empty())
      all = {"--tls",
             "only",
             "--tls-ca",
             m_files / authorities,
             "--tls-key",
             m_files / (user + ".key"),
             "--tls-certificate",
             m_files / (user + ".pem")};
    all.insert(all.end(), words.begin(), words.end());
    return m_service.tqdiscoctl(all);
  }
  Outcome check(std::string const& host = LiveService::NAME, std::string const& user = "user",
                std::string const& authorities = "ca.pem") const
  {
    return run(user, {"tls", "check", host}, authorities);
  }

  // As soon as the service has told of itself.
  Outcome statusToldTo(std::string const& user) const
  {
    Outcome status{};
    EXPECT_TRUE(eventually(
        [&]
        {
          status = run(user, {"status"});
          return status.output.find(std::string("\n") + LiveService::NAME) != std::string::npos;
        }))
        << status.errors;
    return status;
  }

  // Whether the service answers who shows that certificate, or none, where its object
  // is. Whom this calls is not looked at.
  bool isAnswered(std::string const& certificate) const
  {
    // The service may have ended the connection before the question is written.
    BrokenPipes const fail;
    std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> const context(
        SSL_CTX_new(TLS_client_method()), SSL_CTX_free);
    std::string const path = m_files / certificate;
    if (!certificate.empty() &&
        (SSL_CTX_use_certificate_file(context.get(), (path + ".pem").c_str(), SSL_FILETYPE_PEM) !=
             1 ||
         SSL_CTX_use_PrivateKey_file(context.get(), (path + ".key").c_str(), SSL_FILETYPE_PEM) !=
             1))
      ADD_FAILURE() << path;
    std::unique_ptr<BIO, decltype(&BIO_free_all)> const connection(
        BIO_new_ssl_connect(context.get()), BIO_free_all);
    std::string place = "127.0.0.1:" + std::to_string(m_service.port());
    BIO_set_conn_hostname(connection.get(), place.data());
    std::string const question("GIOP\1\0\0\3\0\0\0\x18\0\0\0\1\0\0\0\x10"
                               "DiscoveryService",
                               36);
    char answer[64];
    return BIO_write(connection.get(), question.data(), static_cast<int>(question.size())) ==
               static_cast<int>(question.size()) &&
           BIO_read(connection.get(), answer, sizeof answer) > 0;
  }

  TempDir m_files;
  CertificateAuthority m_authority;
  LiveService m_service;
};

} // namespace tqtest
