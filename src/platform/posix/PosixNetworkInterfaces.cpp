#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

#include <array>

#include "platform/posix/PosixServices.h"

namespace quorvel::platform {

namespace {

std::optional<std::vector<InterfaceAddress>> readAddresses() {
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0)
    return std::nullopt;
  std::vector<InterfaceAddress> out;
  for (const ifaddrs* a = list; a != nullptr; a = a->ifa_next) {
    InterfaceAddress entry;
    entry.name = a->ifa_name != nullptr ? a->ifa_name : "";
    entry.isUp = (a->ifa_flags & IFF_UP) != 0U;
    entry.isLoopback = (a->ifa_flags & IFF_LOOPBACK) != 0U;
    std::array<char, INET6_ADDRSTRLEN> text{};
    if (a->ifa_addr != nullptr && a->ifa_addr->sa_family == AF_INET) {
      entry.family = InterfaceAddress::Family::ipv4;
      const auto* in = reinterpret_cast<const sockaddr_in*>(a->ifa_addr);
      if (inet_ntop(AF_INET, &in->sin_addr, text.data(), text.size()) != nullptr)
        entry.address = text.data();
    } else if (a->ifa_addr != nullptr && a->ifa_addr->sa_family == AF_INET6) {
      entry.family = InterfaceAddress::Family::ipv6;
      const auto* in6 = reinterpret_cast<const sockaddr_in6*>(a->ifa_addr);
      if (inet_ntop(AF_INET6, &in6->sin6_addr, text.data(), text.size()) != nullptr)
        entry.address = text.data();
    }
    out.push_back(std::move(entry));
  }
  freeifaddrs(list);
  return out;
}

}  // namespace

std::optional<std::vector<InterfaceAddress>> PosixNetworkInterfaces::addresses() const {
  const auto now = std::chrono::steady_clock::now();
  const std::lock_guard lock(mutex_);
  if (!read_ || now - readAt_ >= std::chrono::seconds(1)) {
    last_ = readAddresses();
    readAt_ = now;
    read_ = true;
  }
  return last_;
}

}  // namespace quorvel::platform
