#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <sstream>
#include <string_view>

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include "platform/AtomicFile.h"
#include "platform/posix/PosixServices.h"

namespace quorvel::platform {
namespace {

std::map<std::string, std::string> readOsRelease() {
  std::map<std::string, std::string> values;
  for (const char* path : {"/etc/os-release", "/usr/lib/os-release"}) {
    const auto text = readTextFile(path);
    if (!text)
      continue;
    std::istringstream in(*text);
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

std::string firstLine(const std::string& path) {
  std::istringstream in(readTextFile(path).value_or(std::string()));
  std::string line;
  if (!std::getline(in, line))
    return {};
  while (!line.empty() && (line.back() == ' ' || line.back() == '\r' || line.back() == '\t'))
    line.pop_back();
  return line;
}

// "com.example.game" is made by "com.example": every app of one vendor shares the vendor's id.
// An id of two components or fewer is its vendor whole: "com.alpha" and "com.beta" are two
// vendors, not two apps of "com".
std::string vendorOf(const std::string& bundleIdentifier) {
  if (std::count(bundleIdentifier.begin(), bundleIdentifier.end(), '.') < 2)
    return bundleIdentifier;
  return bundleIdentifier.substr(0, bundleIdentifier.rfind('.'));
}

// The machine id's 16 bytes when it is the usual 32 hex digits; its text otherwise.
std::string machineKey(const std::string& machineId) {
  if (machineId.size() != 32 ||
      machineId.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
    return machineId;
  std::string key;
  for (std::size_t i = 0; i < 32; i += 2)
    key.push_back(static_cast<char>(std::stoi(machineId.substr(i, 2), nullptr, 16)));
  return key;
}

std::string unameRelease() {
  utsname u{};
  return uname(&u) == 0 ? std::string(u.release) : std::string();
}

// One id per vendor on this machine, as the phone platforms give it: an HMAC keyed with the
// machine id over the vendor, so that two vendors' apps never share an id and the machine id
// cannot be read back from it. Formatted as a version 4 UUID.
std::optional<std::string> vendorIdentifier(const std::string& machineId,
                                            const std::string& bundleIdentifier) {
  if (machineId.empty())
    return std::nullopt;
  const std::string key = machineKey(machineId);
  const std::string vendor = vendorOf(bundleIdentifier);
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int length = 0;
  if (HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
           reinterpret_cast<const unsigned char*>(vendor.data()), vendor.size(), digest.data(),
           &length) == nullptr ||
      length < 16) {
    return std::nullopt;
  }
  static constexpr std::string_view kHex = "0123456789ABCDEF";
  std::string uuid;
  for (int i = 0; i < 16; ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10)
      uuid.push_back('-');
    unsigned char b = digest[static_cast<std::size_t>(i)];
    if (i == 6)
      b = static_cast<unsigned char>((b & 0x0FU) | 0x40U);
    if (i == 8)
      b = static_cast<unsigned char>((b & 0x3FU) | 0x80U);
    uuid.push_back(kHex[b >> 4U]);
    uuid.push_back(kHex[b & 0xFU]);
  }
  return uuid;
}

}  // namespace

namespace {

std::string systemNameOf(const std::map<std::string, std::string>& osRelease) {
  const auto it = osRelease.find("NAME");
  return it != osRelease.end() && !it->second.empty() ? it->second : "Linux";
}

std::string systemVersionOf(const std::map<std::string, std::string>& osRelease,
                            const std::string& kernelRelease) {
  const auto it = osRelease.find("VERSION_ID");
  return it != osRelease.end() && !it->second.empty() ? it->second : kernelRelease;
}

}  // namespace

PosixDevice::PosixDevice(std::optional<std::string> name, std::optional<std::string> systemVersion,
                         bool multitasking, std::string bundleIdentifier,
                         PosixDeviceSources sources)
    : multitasking_(multitasking) {
  const auto osRelease = readOsRelease();
  const std::string kernelRelease = unameRelease();
  // The machine's model, not its host name: a host name is often its owner's name.
  const std::string productName = firstLine(sources.productNameFile);
  name_ = name ? std::move(*name) : productName.empty() ? "Linux PC" : productName;
  systemName_ = systemNameOf(osRelease);
  systemVersion_ =
      systemVersion ? std::move(*systemVersion) : systemVersionOf(osRelease, kernelRelease);
  versionString_ = "Version " + systemVersion_ + " (Build " + kernelRelease + ")";
  vendorId_ = vendorIdentifier(firstLine(sources.machineIdFile), bundleIdentifier);
}

}  // namespace quorvel::platform
