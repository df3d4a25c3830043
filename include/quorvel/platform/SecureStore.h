// Small named byte values kept per device, surviving removal of the application's data
// (the keychain's generic passwords). Items are matched by service and account.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <quorvel/Json.h>

#pragma GCC visibility push(default)  // the public interface is what the library exports

namespace quorvel::platform {

enum class SecureStatus { success, duplicateItem, itemNotFound, failure };

class SecureStore {
 public:
  SecureStore() = default;
  SecureStore(const SecureStore&) = delete;
  SecureStore& operator=(const SecureStore&) = delete;
  virtual ~SecureStore() = default;

  // Adds an item; duplicateItem when one exists already. Any thread.
  virtual SecureStatus add(std::string_view service, std::string_view account,
                           const Bytes& data) = 0;
  // Copies an item's data; itemNotFound when there is none.
  virtual SecureStatus copy(std::string_view service, std::string_view account,
                            Bytes& out) const = 0;
  // Replaces an existing item's data; itemNotFound when there is none.
  virtual SecureStatus update(std::string_view service, std::string_view account,
                              const Bytes& data) = 0;
  virtual SecureStatus remove(std::string_view service, std::string_view account) = 0;
};

}  // namespace quorvel::platform

#pragma GCC visibility pop
