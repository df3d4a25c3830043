// The preferences and the secure store as the library's own work sees them: a write made once
// a stop or a forgetting has returned is dropped, so that no path that looked at the switch
// earlier (a host call that passed it, a timer that fired after it) leaves anything of the
// install behind. Reads pass through. The switch itself, and the forgetting, write through the
// stores underneath.
#pragma once

#include <memory>

#include <quorvel/platform/PreferencesStore.h>
#include <quorvel/platform/SecureStore.h>

#include "platform/ConsentGate.h"

namespace quorvel::platform {

class ConsentedPreferences final : public PreferencesStore {
 public:
  ConsentedPreferences(std::shared_ptr<PreferencesStore> store,
                       std::shared_ptr<const ConsentGate> gate);

  std::optional<Json> objectForKey(std::string_view key) const override;
  void setObject(std::string_view key, Json value) override;
  void removeObjectForKey(std::string_view key) override;
  bool removeAllObjects() override;
  // What was written before the stop is the host's to keep: it goes through.
  bool synchronize() override;

 private:
  std::shared_ptr<PreferencesStore> store_;
  std::shared_ptr<const ConsentGate> gate_;
};

class ConsentedSecureStore final : public SecureStore {
 public:
  ConsentedSecureStore(std::shared_ptr<SecureStore> store, std::shared_ptr<const ConsentGate> gate);

  // `failure` while stopped: nothing was kept.
  SecureStatus add(std::string_view service, std::string_view account, const Bytes& data) override;
  SecureStatus copy(std::string_view service, std::string_view account, Bytes& out) const override;
  SecureStatus update(std::string_view service, std::string_view account,
                      const Bytes& data) override;
  // A removal keeps nothing of the install: it goes through.
  SecureStatus remove(std::string_view service, std::string_view account) override;

 private:
  std::shared_ptr<SecureStore> store_;
  std::shared_ptr<const ConsentGate> gate_;
};

}  // namespace quorvel::platform
