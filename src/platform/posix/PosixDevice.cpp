#include <sys/utsname.h>
#include <unistd.h>

#include <fstream>

#include <openssl/evp.h>

#include "platform/posix/PosixServices.h"

namespace quorvel::platform {
namespace {

std::map<std::string, std::string> readOsRelease() {
  std::map<std::string, std::string> values;
  for (const char* path : {"/etc/os-release", "/usr/lib/os-release"}) {
    std::ifstream in(path);
    if (!in)
      continue;
    std::string line;
    while (std::getline(in, line)) {
      const auto eq = line.find('=');
      if (eq == std::string::npos || line.empty() || line[0] == '#')
        continue;
      std::string value = line.substr(eq + 1);
      if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'')) {
        value = value.substr(1, value.size() - 2);
      }
      values[line.substr(0, eq)] = value;
    }
    break;
  }
  return values;
}

std::string unameRelease() {
  utsname u{};
  return uname(&u) == 0 ? std::string(u.release) : std::string();
}

}  // namespace

PosixDevice::PosixDevice(std::optional<std::string> name, std::optional<std::string> systemVersion,
                         bool multitasking)
    : name_(std::move(name)),
      systemVersion_(std::move(systemVersion)),
      multitasking_(multitasking),
      osRelease_(readOsRelease()) {}

std::string PosixDevice::name() const {
  if (name_)
    return *name_;
  char host[256] = {};
  if (gethostname(host, sizeof host - 1) == 0 && host[0] != '\0')
    return host;
  return "localhost";
}

std::string PosixDevice::systemName() const {
  const auto it = osRelease_.find("NAME");
  if (it != osRelease_.end() && !it->second.empty())
    return it->second;
  return "Linux";
}

std::string PosixDevice::systemVersion() const {
  if (systemVersion_)
    return *systemVersion_;
  const auto it = osRelease_.find("VERSION_ID");
  if (it != osRelease_.end() && !it->second.empty())
    return it->second;
  return unameRelease();
}

std::string PosixDevice::operatingSystemVersionString() const {
  return "Version " + systemVersion() + " (Build " + unameRelease() + ")";
}

std::optional<std::string> PosixDevice::identifierForVendor() const {
  // Stable per machine: derived from the machine identifier, formatted as a UUID.
  std::ifstream in("/etc/machine-id");
  std::string machineId;
  if (!in || !std::getline(in, machineId) || machineId.empty())
    return std::nullopt;
  const std::string seed = "quorvel.vendor:" + machineId;
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(seed.data(), seed.size(), digest, &length, EVP_sha256(), nullptr) != 1) {
    return std::nullopt;
  }
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string uuid;
  for (int i = 0; i < 16; ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10)
      uuid.push_back('-');
    unsigned char b = digest[i];
    if (i == 6)
      b = static_cast<unsigned char>((b & 0x0FU) | 0x50U);
    if (i == 8)
      b = static_cast<unsigned char>((b & 0x3FU) | 0x80U);
    uuid.push_back(kHex[b >> 4U]);
    uuid.push_back(kHex[b & 0xFU]);
  }
  return uuid;
}

}  // namespace quorvel::platform
