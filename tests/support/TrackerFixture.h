// The fixture of the tracker's tests: the fakes installed as the process's platform, remote
// debugging off, and a tracker on the fakes (its debug log on) with a key, an app id and a host.
// A fixture that prepares the fakes first builds its tracker itself (makeTracker).
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <quorvel/QuorvelTracker.h>

#include "log/QuorvelProxyManager.h"
#include "support/Decrypt.h"
#include "support/TestPlatform.h"
#include "tracker/TrackerCore.h"

namespace quorvel::test {

class TrackerFixture : public ::testing::Test {
 protected:
  static constexpr const char* kDevKey = "DEVKEY-TEST";

  // `configured`: with the key, app id "123" and host "svc.example".
  explicit TrackerFixture(bool buildTracker = true, bool configured = true)
      : buildTracker_(buildTracker), configured_(configured) {}

  void SetUp() override {
    QuorvelProxyManager::sharedManager().stopRemoteDebugging();
    if (buildTracker_)
      makeTracker();
  }

  TrackerCore& makeTracker() {
    facade = std::make_unique<QuorvelTracker>(fakes.shared());
    tracker = &coreOf(*facade);
    tracker->logger().switches().setDebug(true);
    if (configured_) {
      tracker->setQuorvelDevKey(std::string(kDevKey));
      tracker->setAppleAppID(std::string("123"));
      tracker->setHost(std::string("svc.example"));
    }
    return *tracker;
  }

  platform::URLRequest request(std::size_t i) const { return fakes.requests().at(i); }
  std::vector<platform::URLRequest> sent() const { return fakes.requests(); }
  // The JSON that request `i` carried, decrypted with the fixture's key.
  Json payload(std::size_t i) { return decryptPayload(kDevKey, request(i).body); }

  TestPlatform fakes;
  // What a host holds, and the tracker behind it that the tests look into.
  std::unique_ptr<QuorvelTracker> facade;
  TrackerCore* tracker = nullptr;

 private:
  bool buildTracker_;
  bool configured_;
};

}  // namespace quorvel::test
