// A certificate authority and a server certificate made for one test run.
#pragma once

#include <string>
#include <vector>

namespace quorvel::test {

struct TestCertificates {
  std::string caFile;    // PEM of the CA, to trust
  std::string certFile;  // PEM of the server certificate
  std::string keyFile;   // PEM of the server's private key
};

// Writes the three files into `directory`; the server certificate names `hosts` (DNS names
// or IP addresses). Throws std::runtime_error when OpenSSL fails.
TestCertificates makeTestCertificates(const std::string& directory,
                                      const std::vector<std::string>& hosts);

}  // namespace quorvel::test
