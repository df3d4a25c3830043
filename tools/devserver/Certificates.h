// The emulator's own certificate authority and a server certificate for its service hosts.
#pragma once

#include <string>
#include <vector>

namespace quorvel::devserver {

struct CertificateFiles {
  std::string caFile;    // PEM of the CA: what a client trusts
  std::string certFile;  // PEM of the server certificate
  std::string keyFile;   // PEM of the server's private key
};

// Writes a new CA and a server certificate naming `hosts` (DNS names or IP addresses) into
// `directory`. Throws std::runtime_error when OpenSSL fails.
CertificateFiles makeCertificates(const std::string& directory,
                                  const std::vector<std::string>& hosts);

// As makeCertificates, but keeps the CA found in `directory` ("ca.pem" and "ca-key.pem"),
// so that clients set up to trust it keep doing so; the server certificate is made anew
// each time, so that it always names the hosts asked for.
CertificateFiles ensureCertificates(const std::string& directory,
                                    const std::vector<std::string>& hosts);

}  // namespace quorvel::devserver
