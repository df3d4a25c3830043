// The device's network interface addresses.
#pragma once

#include <optional>
#include <string>
#include <vector>

#pragma GCC visibility push(default)  // the public interface is what the library exports

namespace quorvel::platform {

struct InterfaceAddress {
  enum class Family { ipv4, ipv6, other };
  std::string name;  // "en0", "eth0", "lo"
  Family family = Family::other;
  std::string address;  // numeric text; empty for other families
  bool isUp = false;
  bool isLoopback = false;
};

class NetworkInterfaces {
 public:
  NetworkInterfaces() = default;
  NetworkInterfaces(const NetworkInterfaces&) = delete;
  NetworkInterfaces& operator=(const NetworkInterfaces&) = delete;
  virtual ~NetworkInterfaces() = default;

  // nullopt when the list cannot be read.
  virtual std::optional<std::vector<InterfaceAddress>> addresses() const = 0;
};

}  // namespace quorvel::platform

#pragma GCC visibility pop
