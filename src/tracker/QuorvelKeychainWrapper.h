// QuorvelKeychainWrapper: named byte items in the secure store, under one service name.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include <quorvel/Json.h>
#include <quorvel/platform/SecureStore.h>

namespace quorvel {

// The attributes of a generic-password query for one item key.
struct KeychainQuery {
  std::string itemClass = "genp";
  std::optional<std::string> service;     // kSecAttrService
  std::optional<std::string> account;     // kSecAttrAccount (the key's bytes)
  std::optional<std::string> generic;     // kSecAttrGeneric (the key's bytes)
  std::optional<std::string> accessible;  // kSecAttrAccessible
};

class QuorvelKeychainWrapper {
 public:
  // The service name is the bare identifier: the app id argument is never used, because the
  // check that would use it reads the not yet set field. Items of existing installations
  // depend on that name, so it stays.
  QuorvelKeychainWrapper(std::shared_ptr<platform::SecureStore> store,
                         std::optional<std::string> identifier, std::optional<std::string> appId);

  const std::optional<std::string>& identifier() const noexcept { return identifier_; }
  const std::optional<std::string>& appId() const noexcept { return appId_; }

  KeychainQuery prepareForKeychain(const std::string& key) const;
  // True when the item was added (false when it exists or the store failed).
  bool setObject(const std::string& key, const Bytes& data);
  std::optional<Bytes> getObject(const std::string& key);
  bool update(const std::string& key, const Bytes& data);
  bool remove(const std::string& key);

 private:
  std::shared_ptr<platform::SecureStore> store_;
  std::optional<std::string> identifier_;
  std::optional<std::string> appId_;
};

}  // namespace quorvel
