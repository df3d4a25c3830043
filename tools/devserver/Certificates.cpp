#include "Certificates.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>

namespace quorvel::devserver {
namespace {

struct KeyDeleter {
  void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
};
struct CertDeleter {
  void operator()(X509* c) const { X509_free(c); }
};
struct FileCloser {
  void operator()(FILE* f) const { std::fclose(f); }
};
using Key = std::unique_ptr<EVP_PKEY, KeyDeleter>;
using Cert = std::unique_ptr<X509, CertDeleter>;
using File = std::unique_ptr<FILE, FileCloser>;

void check(bool ok, const std::string& what) {
  if (!ok)
    throw std::runtime_error("certificates: " + what);
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

Cert makeCert(EVP_PKEY* key, const std::string& commonName, X509* issuer, long serial, long days) {
  Cert cert(X509_new());
  X509_set_version(cert.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), serial);
  X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600);
  X509_gmtime_adj(X509_getm_notAfter(cert.get()), days * 24 * 3600);
  X509_set_pubkey(cert.get(), key);
  X509_NAME* name = X509_get_subject_name(cert.get());
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>(commonName.c_str()), -1, -1, 0);
  X509_set_issuer_name(cert.get(), issuer != nullptr ? X509_get_subject_name(issuer) : name);
  return cert;
}

// A new file every time, made with its final mode: a link or a file that someone else left
// at this name is replaced, never written through.
File openForWriting(const std::string& path, mode_t mode) {
  ::unlink(path.c_str());
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
  check(fd >= 0, "create " + path);
  ::fchmod(fd, mode);  // whatever the umask
  File f(::fdopen(fd, "w"));
  if (f == nullptr)
    ::close(fd);
  check(f != nullptr, "open for writing");
  return f;
}

// The CA key is reused only when this emulator made it: a regular file of this user that no
// one else can read or write. A key planted by someone else would let them pose as the
// services that developers trust this CA for.
File openOwnKey(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0)
    return File(nullptr);
  struct stat info {};
  if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) || info.st_uid != ::geteuid() ||
      (info.st_mode & 077U) != 0) {
    ::close(fd);
    return File(nullptr);
  }
  File f(::fdopen(fd, "r"));
  if (f == nullptr)
    ::close(fd);
  return f;
}

// The certificate folder is this user's alone.
void makePrivateDirectory(const std::string& directory) {
  std::filesystem::create_directories(directory);
  struct stat info {};
  if (::lstat(directory.c_str(), &info) == 0 && info.st_uid == ::geteuid())
    ::chmod(directory.c_str(), 0700);
}

void writeCert(const std::string& path, X509* cert) {
  const File f = openForWriting(path, 0644);
  check(PEM_write_X509(f.get(), cert) == 1, "write certificate");
}

void writeKey(const std::string& path, EVP_PKEY* key) {
  const File f = openForWriting(path, 0600);
  check(PEM_write_PrivateKey(f.get(), key, nullptr, nullptr, 0, nullptr, nullptr) == 1,
        "write key");
}

bool isAddress(const std::string& host) {
  return host.find_first_not_of("0123456789.") == std::string::npos ||
         host.find(':') != std::string::npos;
}

struct Authority {
  Key key;
  Cert cert;
};

Authority makeAuthority() {
  Authority ca{makeKey(), nullptr};
  ca.cert = makeCert(ca.key.get(), "Quorvel Development CA", nullptr, 1, 3650);
  addExtension(ca.cert.get(), ca.cert.get(), NID_basic_constraints, "critical,CA:TRUE");
  addExtension(ca.cert.get(), ca.cert.get(), NID_key_usage, "critical,keyCertSign,cRLSign");
  addExtension(ca.cert.get(), ca.cert.get(), NID_subject_key_identifier, "hash");
  check(X509_sign(ca.cert.get(), ca.key.get(), EVP_sha256()) > 0, "sign CA");
  return ca;
}

std::optional<Authority> loadAuthority(const std::string& certPath, const std::string& keyPath) {
  const File certFile(std::fopen(certPath.c_str(), "r"));
  const File keyFile = openOwnKey(keyPath);
  if (!certFile || !keyFile)
    return std::nullopt;
  Authority ca{Key(PEM_read_PrivateKey(keyFile.get(), nullptr, nullptr, nullptr)),
               Cert(PEM_read_X509(certFile.get(), nullptr, nullptr, nullptr))};
  if (!ca.key || !ca.cert || X509_check_private_key(ca.cert.get(), ca.key.get()) != 1)
    return std::nullopt;
  // A CA that is about to expire is replaced rather than kept.
  if (X509_cmp_time(X509_get0_notAfter(ca.cert.get()), nullptr) <= 0)
    return std::nullopt;
  return ca;
}

CertificateFiles writeServerCertificate(const std::string& directory, const Authority& ca,
                                        const std::vector<std::string>& hosts) {
  const Key serverKey = makeKey();
  const Cert server = makeCert(serverKey.get(), hosts.empty() ? "localhost" : hosts[0],
                               ca.cert.get(), static_cast<long>(std::time(nullptr)), 825);
  std::string names;
  for (const auto& h : hosts) {
    if (!names.empty())
      names += ",";
    names += (isAddress(h) ? "IP:" : "DNS:") + h;
  }
  if (!names.empty())
    addExtension(server.get(), ca.cert.get(), NID_subject_alt_name, names);
  addExtension(server.get(), ca.cert.get(), NID_basic_constraints, "critical,CA:FALSE");
  addExtension(server.get(), ca.cert.get(), NID_ext_key_usage, "serverAuth");
  addExtension(server.get(), ca.cert.get(), NID_authority_key_identifier, "keyid:always");
  check(X509_sign(server.get(), ca.key.get(), EVP_sha256()) > 0, "sign server certificate");

  CertificateFiles files{directory + "/ca.pem", directory + "/server.pem",
                         directory + "/server-key.pem"};
  writeCert(files.certFile, server.get());
  writeKey(files.keyFile, serverKey.get());
  return files;
}

}  // namespace

CertificateFiles makeCertificates(const std::string& directory,
                                  const std::vector<std::string>& hosts) {
  makePrivateDirectory(directory);
  const Authority ca = makeAuthority();
  writeCert(directory + "/ca.pem", ca.cert.get());
  writeKey(directory + "/ca-key.pem", ca.key.get());
  return writeServerCertificate(directory, ca, hosts);
}

CertificateFiles ensureCertificates(const std::string& directory,
                                    const std::vector<std::string>& hosts) {
  makePrivateDirectory(directory);
  auto ca = loadAuthority(directory + "/ca.pem", directory + "/ca-key.pem");
  if (!ca)
    return makeCertificates(directory, hosts);
  return writeServerCertificate(directory, *ca, hosts);
}

}  // namespace quorvel::devserver
