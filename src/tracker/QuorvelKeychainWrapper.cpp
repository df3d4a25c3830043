#include "tracker/QuorvelKeychainWrapper.h"

namespace quorvel {
namespace {
using platform::SecureStatus;
constexpr const char* kAccessibleAlwaysThisDeviceOnly = "dku";
}  // namespace

QuorvelKeychainWrapper::QuorvelKeychainWrapper(std::shared_ptr<platform::SecureStore> store,
                                               std::optional<std::string> identifier,
                                               std::optional<std::string> /*appId*/)
    : store_(std::move(store)) {
  // The branch that would make "<identifier>.<appId>" tests appId_, still unset here.
  if (appId_) {
    identifier_ = *identifier + "." + *appId_;
  } else {
    identifier_ = std::move(identifier);
  }
}

KeychainQuery QuorvelKeychainWrapper::prepareForKeychain(const std::string& key) const {
  KeychainQuery query;
  if (identifier_) {
    query.generic = key;
    query.account = key;
    query.service = identifier_;
    query.accessible = kAccessibleAlwaysThisDeviceOnly;
  }
  return query;
}

bool QuorvelKeychainWrapper::setObject(const std::string& key, const Bytes& data) {
  const auto q = prepareForKeychain(key);
  if (!q.service || !q.account)
    return false;
  return store_->add(*q.service, *q.account, data) == SecureStatus::success;
}

std::optional<Bytes> QuorvelKeychainWrapper::getObject(const std::string& key) {
  const auto q = prepareForKeychain(key);
  Bytes out;
  if (q.service && q.account &&
      store_->copy(*q.service, *q.account, out) == SecureStatus::success) {
    return out;
  }
  // Items made under "<identifier>.<appId>" by older versions are looked up under the bare
  // name and copied over. Never reached while appId_ stays unset.
  if (appId_ && identifier_) {
    const auto p = identifier_->find(*appId_);
    if (p != std::string::npos && p > 0 && p <= identifier_->size()) {
      const std::string legacyService = identifier_->substr(0, p - 1);
      if (store_->copy(legacyService, key, out) == SecureStatus::success) {
        setObject(key, out);
        return out;
      }
    }
  }
  return std::nullopt;
}

bool QuorvelKeychainWrapper::update(const std::string& key, const Bytes& data) {
  const auto q = prepareForKeychain(key);
  if (!q.service || !q.account)
    return false;
  return store_->update(*q.service, *q.account, data) == SecureStatus::success;
}

bool QuorvelKeychainWrapper::remove(const std::string& key) {
  const auto q = prepareForKeychain(key);
  if (!q.service || !q.account)
    return false;
  return store_->remove(*q.service, *q.account) == SecureStatus::success;
}

}  // namespace quorvel
