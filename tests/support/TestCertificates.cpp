#include "support/TestCertificates.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <memory>
#include <stdexcept>

namespace quorvel::test {
namespace {

struct KeyDeleter {
  void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
};
struct CertDeleter {
  void operator()(X509* c) const { X509_free(c); }
};
using Key = std::unique_ptr<EVP_PKEY, KeyDeleter>;
using Cert = std::unique_ptr<X509, CertDeleter>;

void check(bool ok, const char* what) {
  if (!ok)
    throw std::runtime_error(std::string("test certificates: ") + what);
}

Key makeKey() {
  Key key(EVP_EC_gen("P-256"));
  check(key != nullptr, "key generation");
  return key;
}

void addExtension(X509* cert, X509* issuer, int nid, const std::string& value) {
  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
  X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value.c_str());
  check(ext != nullptr, "extension");
  X509_add_ext(cert, ext, -1);
  X509_EXTENSION_free(ext);
}

Cert makeCert(EVP_PKEY* key, const char* commonName, X509* issuer, EVP_PKEY* issuerKey,
              long serial) {
  Cert cert(X509_new());
  X509_set_version(cert.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), serial);
  X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600);
  X509_gmtime_adj(X509_getm_notAfter(cert.get()), 7L * 24 * 3600);
  X509_set_pubkey(cert.get(), key);
  X509_NAME* name = X509_get_subject_name(cert.get());
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>(commonName), -1, -1, 0);
  X509_set_issuer_name(cert.get(), issuer != nullptr ? X509_get_subject_name(issuer) : name);
  (void)issuerKey;
  return cert;
}

void writePem(const std::string& path, X509* cert, EVP_PKEY* key) {
  FILE* f = std::fopen(path.c_str(), "w");
  check(f != nullptr, "open");
  const bool ok = cert != nullptr
                      ? PEM_write_X509(f, cert) == 1
                      : PEM_write_PrivateKey(f, key, nullptr, nullptr, 0, nullptr, nullptr) == 1;
  std::fclose(f);
  check(ok, "write");
}

bool isAddress(const std::string& host) {
  return host.find_first_not_of("0123456789.") == std::string::npos ||
         host.find(':') != std::string::npos;
}

}  // namespace

TestCertificates makeTestCertificates(const std::string& directory,
                                      const std::vector<std::string>& hosts) {
  const Key caKey = makeKey();
  const Cert ca = makeCert(caKey.get(), "Quorvel Test CA", nullptr, caKey.get(), 1);
  addExtension(ca.get(), ca.get(), NID_basic_constraints, "critical,CA:TRUE");
  addExtension(ca.get(), ca.get(), NID_key_usage, "critical,keyCertSign,cRLSign");
  addExtension(ca.get(), ca.get(), NID_subject_key_identifier, "hash");
  check(X509_sign(ca.get(), caKey.get(), EVP_sha256()) > 0, "sign ca");

  const Key serverKey = makeKey();
  const Cert server = makeCert(serverKey.get(), hosts.empty() ? "localhost" : hosts[0].c_str(),
                               ca.get(), caKey.get(), 2);
  std::string names;
  for (const auto& h : hosts) {
    if (!names.empty())
      names += ",";
    names += (isAddress(h) ? "IP:" : "DNS:") + h;
  }
  addExtension(server.get(), ca.get(), NID_subject_alt_name, names);
  addExtension(server.get(), ca.get(), NID_basic_constraints, "critical,CA:FALSE");
  addExtension(server.get(), ca.get(), NID_ext_key_usage, "serverAuth");
  addExtension(server.get(), ca.get(), NID_authority_key_identifier, "keyid:always");
  check(X509_sign(server.get(), caKey.get(), EVP_sha256()) > 0, "sign server");

  TestCertificates files{directory + "/ca.pem", directory + "/server.pem",
                         directory + "/server-key.pem"};
  writePem(files.caFile, ca.get(), nullptr);
  writePem(files.certFile, server.get(), nullptr);
  writePem(files.keyFile, nullptr, serverKey.get());
  return files;
}

}  // namespace quorvel::test
