// A plugin that reports through the library and is unloaded while the library still works on
// what it reported.
#include <string>

#include <quorvel/Platform.h>
#include <quorvel/QuorvelTracker.h>

extern "C" __attribute__((visibility("default"))) void plugin_track(const char* dataDirectory) {
  quorvel::PosixPlatformOptions options;
  options.bundleIdentifier = "com.example.plugin";
  options.dataDirectory = dataDirectory;
  options.keychainDirectory = std::string(dataDirectory) + "/keychain";
  quorvel::installPlatform(quorvel::makePosixPlatform(options));
  auto& tracker = quorvel::QuorvelTracker::sharedTracker();
  tracker.setQuorvelDevKey(std::string("PLUGIN-KEY"));
  tracker.setAppleAppID(std::string("123456789"));
  tracker.setHost(std::string("localhost:1"));  // nothing listens: the events are kept
  for (int i = 0; i < 20; ++i)
    tracker.trackEvent("plugin_event", std::to_string(i));
}
