// Authorities and the certificates that they issue, made while the test runs.

#pragma once

#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>

#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>

namespace tqtest
{

struct Wish
{
  std::string names = "DNS:localhost,IP:127.0.0.1"; // alternative names, empty for none
  std::string hostName{}; // any bytes; stands in for the alternative names
  std::string commonName = "host";
  long begin = -3600; // seconds from now
  long end = 86400;
  std::string usage = "serverAuth,clientAuth"; // empty: any
};

// Of the host of that name, and no other.
inline Wish wishFor(std::string const& name)
{
  Wish wish;
  wish.commonName = name;
  wish.names = "DNS:" + name;
  return wish;
}

class CertificateAuthority
{
public:
  static constexpr long TEN_YEARS = 10L * 365 * 86400; // seconds

  // Its own certificate ends so many seconds from now.
  explicit CertificateAuthority(std::string const& name = "Test authority", long end = TEN_YEARS)
      : m_name(name),
        m_key(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"), EVP_PKEY_free),
        m_certificate(nullptr, X509_free)
  {
    renew(end);
  }

  // Makes another certificate for the same name and key.
  void renew(long end)
  {
    Wish wish;
    wish.commonName = m_name;
    wish.names.clear();
    wish.usage.clear();
    wish.begin = -TEN_YEARS;
    wish.end = end;
    m_certificate = make(wish, m_key.get(), true);
  }

  // In the directory: "<name>.pem" and "<name>.key".
  void issue(std::string const& directory, std::string const& name, Wish const& wish = Wish())
  {
    Key const key(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"), EVP_PKEY_free);
    auto const certificate = make(wish, key.get(), false);
    write(directory + "/" + name + ".pem",
          [&](std::FILE* file) { return PEM_write_X509(file, certificate.get()); });
    write(directory + "/" + name + ".key", [&](std::FILE* file)
          { return PEM_write_PrivateKey(file, key.get(), nullptr, nullptr, 0, nullptr, nullptr); });
  }

  void writeTo(std::string const& path) const
  {
    write(path, [&](std::FILE* file) { return PEM_write_X509(file, m_certificate.get()); });
  }

private:
  using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
  using Made = std::unique_ptr<X509, decltype(&X509_free)>;

  // A reader never sees a part.
  template <class Write>
  static void write(std::string const& path, Write const& content)
  {
    std::string const fresh = path + ".new";
    std::FILE* const file = std::fopen(fresh.c_str(), "w");
    if (file == nullptr || content(file) != 1 || std::fclose(file) != 0 ||
        chmod(fresh.c_str(), 0600) != 0 || std::rename(fresh.c_str(), path.c_str()) != 0)
      throw std::runtime_error("cannot write " + path);
  }

  void extend(X509* certificate, int which, std::string const& value) const
  {
    if (value.empty())
      return;
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, m_certificate ? m_certificate.get() : certificate, certificate,
                   nullptr, nullptr, 0);
    std::unique_ptr<X509_EXTENSION, decltype(&X509_EXTENSION_free)> const extension(
        X509V3_EXT_conf_nid(nullptr, &context, which, value.c_str()), X509_EXTENSION_free);
    if (!extension || X509_add_ext(certificate, extension.get(), -1) != 1)
      throw std::runtime_error("no such extension: " + value);
  }

  static void nameAs(X509* certificate, std::string const& bytes)
  {
    std::unique_ptr<GENERAL_NAMES, decltype(&GENERAL_NAMES_free)> const names(
        sk_GENERAL_NAME_new_null(), GENERAL_NAMES_free);
    ASN1_IA5STRING* const text = ASN1_IA5STRING_new();
    ASN1_STRING_set(text, bytes.data(), static_cast<int>(bytes.size()));
    GENERAL_NAME* const name = GENERAL_NAME_new();
    GENERAL_NAME_set0_value(name, GEN_DNS, text);
    sk_GENERAL_NAME_push(names.get(), name);
    if (X509_add1_ext_i2d(certificate, NID_subject_alt_name, names.get(), 0, 0) != 1)
      throw std::runtime_error("no such name");
  }

  Made make(Wish const& wish, EVP_PKEY* key, bool isAuthority)
  {
    Made made(X509_new(), X509_free);
    X509* const certificate = made.get();
    X509_set_version(certificate, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), ++m_serial);
    X509_gmtime_adj(X509_getm_notBefore(certificate), wish.begin);
    X509_gmtime_adj(X509_getm_notAfter(certificate), wish.end);
    X509_set_pubkey(certificate, key);
    X509_NAME* const subject = X509_get_subject_name(certificate);
    X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_UTF8,
                               reinterpret_cast<unsigned char const*>(wish.commonName.c_str()), -1,
                               -1, 0);
    X509_set_issuer_name(certificate,
                         isAuthority ? subject : X509_get_subject_name(m_certificate.get()));
    extend(certificate, NID_basic_constraints, isAuthority ? "critical,CA:TRUE" : "CA:FALSE");
    if (wish.hostName.empty())
      extend(certificate, NID_subject_alt_name, wish.names);
    else
      nameAs(certificate, wish.hostName);
    extend(certificate, NID_ext_key_usage, wish.usage);
    if (X509_sign(certificate, m_key.get(), EVP_sha256()) == 0)
      throw std::runtime_error("cannot sign the certificate of " + wish.commonName);
    return made;
  }

  std::string const m_name;
  long m_serial = 0;
  Key m_key;
  Made m_certificate;
};

// The lines of a configuration for what an authority issued into the directory,
// whose own certificate is "ca.pem" there.
inline std::string tlsLines(std::string const& mode, std::string const& directory,
                            std::string const& name)
{
  return "TLS = " + mode + "\nTLS_CERTIFICATE = " + directory + "/" + name +
         ".pem\nTLS_KEY = " + directory + "/" + name + ".key\nTLS_CA = " + directory + "/ca.pem\n";
}

} // namespace tqtest
