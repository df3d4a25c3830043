// A real install, reinstall and update on the POSIX platform: files in a temporary
// directory, the secure store in another one that outlives the app's data.
#include <quorvel/QuorvelTracker.h>

#include <filesystem>
#include <future>

#include <gtest/gtest.h>

#include "common/QuorvelUtils.h"
#include "log/QuorvelProxyManager.h"
#include "support/TempDir.h"
#include "tracker/TrackerCore.h"
#include "util/PreferenceKeys.h"

namespace quorvel {
namespace {

class Install {
 public:
  // An empty keychain directory takes the platform's default one.
  Install(const test::TempDir& root, const std::string& version,
          const std::string& bundle = "com.quorvel.reinstall",
          const std::string& keychain = "keychain") {
    PosixPlatformOptions options;
    options.bundleIdentifier = bundle;
    options.bundleVersion = version;
    options.dataDirectory = root / (bundle + "-data");
    options.keychainDirectory = keychain.empty() ? std::string() : std::string(root / keychain);
    platform_ = std::make_shared<const Platform>(makePosixPlatform(options));
    tracker_ = std::make_unique<TrackerCore>(platform_, QuorvelProxyManager::sharedManager());
  }
  TrackerCore& tracker() { return *tracker_; }
  const Platform& platform() const { return *platform_; }
  // Waits until everything queued so far on the serial queue has run.
  void drainSerialQueue() {
    std::promise<void> done;
    tracker_->backgroundQueue()->async([&] { done.set_value(); });
    ASSERT_EQ(done.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
  }
  // What a launch payload reads of the identity and version.
  void launch() {
    tracker_->getQuorvelUID();
    const auto version = platform_->bundle->objectForInfoDictionaryKey("CFBundleVersion");
    const auto formatter = QuorvelUtils::getDateFormatter(platform_->clock);
    tracker_->getVersionUpdateDate(
        version ? std::optional<std::string>(version->get<std::string>()) : std::nullopt,
        formatter.stringFromDate(platform_->clock->now()));
    drainSerialQueue();
    platform_->preferences->synchronize();
  }
  std::optional<std::string> pref(const char* key) const {
    return platform_->preferences->stringForKey(key);
  }

 private:
  std::shared_ptr<const Platform> platform_;
  std::unique_ptr<TrackerCore> tracker_;
};

TEST(Reinstall, OriginalIdentifierAndCounterSurviveRemovalOfTheAppData) {
  QuorvelProxyManager::sharedManager().stopRemoteDebugging();
  test::TempDir root;
  std::string first;
  {
    Install install(root, "1");
    install.launch();
    first = install.tracker().getQuorvelUID();
    EXPECT_FALSE(install.pref(keys::kOriginalUserId));
    EXPECT_FALSE(install.pref(keys::kReInstallCounter));
  }
  {
    // Same data: the same identifier, nothing counted.
    Install again(root, "1");
    again.launch();
    EXPECT_EQ(again.tracker().getQuorvelUID(), first);
    EXPECT_FALSE(again.pref(keys::kReInstallCounter));
  }

  std::filesystem::remove_all(root / "com.quorvel.reinstall-data");
  std::string second;
  {
    Install reinstall(root, "1");
    reinstall.launch();
    second = reinstall.tracker().getQuorvelUID();
    EXPECT_NE(second, first);
    EXPECT_EQ(reinstall.pref(keys::kOriginalUserId), first);
    EXPECT_EQ(reinstall.platform().preferences->integerForKey(keys::kReInstallCounter), 1);
    EXPECT_EQ(reinstall.tracker().getOriginalQuorvelId(), first);
  }
  {
    Install update(root, "2");
    update.launch();
    EXPECT_EQ(update.tracker().getQuorvelUID(), second);
    EXPECT_EQ(update.pref(keys::kOriginalUserId), first);
    EXPECT_EQ(update.platform().preferences->integerForKey(keys::kReInstallCounter), 2);
  }
  // The preferences on disk say the same after a restart.
  Install restarted(root, "2");
  EXPECT_EQ(restarted.platform().preferences->integerForKey(keys::kReInstallCounter), 2);
  EXPECT_EQ(restarted.pref(keys::kUserId), second);
}

TEST(Reinstall, AnotherAppOfTheSameUserIsAFirstInstall) {
  QuorvelProxyManager::sharedManager().stopRemoteDebugging();
  test::TempDir root;
  ::setenv("XDG_STATE_HOME", (root / "state").c_str(), 1);
  std::string first;
  {
    Install one(root, "1", "com.quorvel.one", "");
    one.launch();
    first = one.tracker().getQuorvelUID();
  }
  Install other(root, "1", "com.quorvel.other", "");
  other.launch();
  ::unsetenv("XDG_STATE_HOME");
  EXPECT_NE(other.tracker().getQuorvelUID(), first);
  EXPECT_FALSE(other.pref(keys::kOriginalUserId));
  EXPECT_FALSE(other.pref(keys::kReInstallCounter));
}

// One install has one identifier, whoever asks first: threads of one tracker at once, and a
// second tracker (as a second process) that read the preferences before the first stored it.
TEST(Reinstall, OneInstallHasOneIdentifierWhoeverAsksFirst) {
  QuorvelProxyManager::sharedManager().stopRemoteDebugging();
  test::TempDir root;
  Install first(root, "1");
  Install second(root, "1");
  EXPECT_FALSE(second.pref(keys::kUserId));  // its copy of the preferences is read now
  std::vector<std::future<std::string>> asked;
  for (int i = 0; i < 8; ++i)
    asked.push_back(
        std::async(std::launch::async, [&] { return first.tracker().getQuorvelUID(); }));
  const std::string uid = first.tracker().getQuorvelUID();
  for (auto& answer : asked)
    EXPECT_EQ(answer.get(), uid);
  EXPECT_EQ(second.tracker().getQuorvelUID(), uid);
  first.drainSerialQueue();
  second.drainSerialQueue();
  EXPECT_EQ(Install(root, "1").pref(keys::kUserId), uid);  // the next start's
}

}  // namespace
}  // namespace quorvel
