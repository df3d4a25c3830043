// A certificate authority and a server certificate made for one test run: the emulator's.
#pragma once

#include <string>
#include <vector>

#include "Certificates.h"

namespace quorvel::test {

using TestCertificates = devserver::CertificateFiles;

inline TestCertificates makeTestCertificates(const std::string& directory,
                                             const std::vector<std::string>& hosts) {
  return devserver::makeCertificates(directory, hosts);
}

}  // namespace quorvel::test
