// Test fakes of the platform services that stand for a phone: device, bundle, locale, kernel
// queries, interfaces, application and random numbers; the stores and files are the kit's.
#pragma once

#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <quorvel/Platform.h>
#include <quorvel/testing/MemoryServices.h>

namespace quorvel::test {

using testkit::CapturingSystemLog;
using testkit::MemoryFileSystem;
using testkit::MemoryOutboxStore;
using testkit::MemoryPreferencesStore;
using testkit::MemorySecureStore;

struct FakeDevice final : platform::Device {
  std::string nameValue = "Test Device";
  std::string modelValue = "iPhone";
  std::string localizedModelValue = "iPhone";
  std::string systemNameValue = "iOS";
  std::string systemVersionValue = "12.1";
  std::string osVersionString = "Version 12.1 (Build 16B92)";
  std::optional<std::string> vendorId = "00000000-0000-0000-0000-000000000001";
  bool multitasking = true;

  std::string name() const override { return nameValue; }
  std::string model() const override { return modelValue; }
  std::string localizedModel() const override { return localizedModelValue; }
  std::string systemName() const override { return systemNameValue; }
  std::string systemVersion() const override { return systemVersionValue; }
  std::string operatingSystemVersionString() const override { return osVersionString; }
  std::optional<std::string> identifierForVendor() const override { return vendorId; }
  bool isMultitaskingSupported() const override { return multitasking; }
  std::optional<platform::SystemCapabilities> capabilitiesValue;  // else by the version
  platform::SystemCapabilities capabilities() const override {
    return capabilitiesValue.value_or(platform::phoneCapabilitiesOf(systemVersionValue));
  }
};

struct FakeBundle final : platform::Bundle {
  std::optional<std::string> identifier = "com.example.test";
  Json info = Json{{"CFBundleIdentifier", "com.example.test"},
                   {"CFBundleVersion", "7"},
                   {"CFBundleShortVersionString", "1.7"}};
  std::optional<std::string> receiptPath;

  std::optional<std::string> bundleIdentifier() const override { return identifier; }
  Json infoDictionary() const override { return info; }
  std::optional<std::string> appStoreReceiptPath() const override { return receiptPath; }
};

struct FakeLocale final : platform::Locale {
  std::string identifier = "en_US";
  std::vector<std::string> languages{"en-US"};
  std::string localeIdentifier() const override { return identifier; }
  std::optional<std::string> languageCode() const override { return identifier.substr(0, 2); }
  std::optional<std::string> countryCode() const override {
    return identifier.size() > 3 ? std::optional<std::string>(identifier.substr(3)) : std::nullopt;
  }
  std::vector<std::string> preferredLanguages() const override { return languages; }
};

struct FakeApplication final : platform::Application {
  std::mutex mutex;
  std::vector<platform::BackgroundTaskIdentifier> begun;
  std::vector<platform::BackgroundTaskIdentifier> ended;
  std::map<platform::BackgroundTaskIdentifier, std::function<void()>> expirations;
  platform::BackgroundTaskIdentifier beginBackgroundTask(
      std::function<void()> expiration) override {
    std::lock_guard l(mutex);
    const auto id = static_cast<platform::BackgroundTaskIdentifier>(begun.size() + 1);
    begun.push_back(id);
    expirations[id] = std::move(expiration);
    return id;
  }
  void endBackgroundTask(platform::BackgroundTaskIdentifier id) override {
    std::lock_guard l(mutex);
    ended.push_back(id);
    expirations.erase(id);  // as a platform does: an ended task's handler is released
  }
  std::map<std::string, std::string> pasteboards;
  std::optional<std::string> namedPasteboardText(const std::string& name) override {
    std::lock_guard l(mutex);
    const auto it = pasteboards.find(name);
    return it == pasteboards.end() ? std::nullopt : std::optional<std::string>(it->second);
  }
};

struct FakeSysctl final : platform::Sysctl {
  std::map<std::string, Bytes, std::less<>> byNameAnswers;
  std::map<std::vector<int>, Bytes> byMibAnswers;
  std::optional<Bytes> byName(std::string_view name) const override;
  std::optional<Bytes> byMib(const std::vector<int>& mib) const override;
};

struct FakeNetworkInterfaces final : platform::NetworkInterfaces {
  std::optional<std::vector<platform::InterfaceAddress>> list =
      std::vector<platform::InterfaceAddress>{};
  std::optional<std::vector<platform::InterfaceAddress>> addresses() const override { return list; }
};

// Bytes and numbers from a script: a counter pattern when nothing is queued.
class ScriptedRandom final : public platform::Random {
 public:
  int fill(Bytes& out) noexcept override;
  std::uint32_t uniform(std::uint32_t upperBound) noexcept override;

  int failWithError = 0;  // non-zero: fill() fails with it
  std::deque<std::uint32_t> uniformValues;

 private:
  std::mutex mutex_;
  std::uint8_t next_ = 1;
};

}  // namespace quorvel::test
