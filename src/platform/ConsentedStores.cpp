#include "platform/ConsentedStores.h"

#include <utility>

namespace quorvel::platform {

ConsentedPreferences::ConsentedPreferences(std::shared_ptr<PreferencesStore> store,
                                           std::shared_ptr<const ConsentGate> gate)
    : store_(std::move(store)), gate_(std::move(gate)) {}

std::optional<Json> ConsentedPreferences::objectForKey(std::string_view key) const {
  return store_->objectForKey(key);
}

// Each write holds the gate from its check to its end: a stop waits for it, and none starts
// after the stop returned.
void ConsentedPreferences::setObject(std::string_view key, Json value) {
  const auto held = gate_->hold();
  if (!gate_->stopped())
    store_->setObject(key, std::move(value));
}

void ConsentedPreferences::removeObjectForKey(std::string_view key) {
  const auto held = gate_->hold();
  if (!gate_->stopped())
    store_->removeObjectForKey(key);
}

bool ConsentedPreferences::removeAllObjects() {
  const auto held = gate_->hold();
  return !gate_->stopped() && store_->removeAllObjects();
}

bool ConsentedPreferences::synchronize() {
  return store_->synchronize();
}

ConsentedSecureStore::ConsentedSecureStore(std::shared_ptr<SecureStore> store,
                                           std::shared_ptr<const ConsentGate> gate)
    : store_(std::move(store)), gate_(std::move(gate)) {}

SecureStatus ConsentedSecureStore::add(std::string_view service, std::string_view account,
                                       const Bytes& data) {
  const auto held = gate_->hold();
  return gate_->stopped() ? SecureStatus::failure : store_->add(service, account, data);
}

SecureStatus ConsentedSecureStore::copy(std::string_view service, std::string_view account,
                                        Bytes& out) const {
  return store_->copy(service, account, out);
}

SecureStatus ConsentedSecureStore::update(std::string_view service, std::string_view account,
                                          const Bytes& data) {
  const auto held = gate_->hold();
  return gate_->stopped() ? SecureStatus::failure : store_->update(service, account, data);
}

SecureStatus ConsentedSecureStore::remove(std::string_view service, std::string_view account) {
  return store_->remove(service, account);
}

}  // namespace quorvel::platform
