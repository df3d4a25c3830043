// Test fakes of the platform services. Each is deterministic and in memory.
#pragma once

#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <quorvel/Platform.h>

namespace quorvel::test {

class MemoryPreferencesStore final : public platform::PreferencesStore {
 public:
  std::optional<Json> objectForKey(std::string_view key) const override;
  void setObject(std::string_view key, Json value) override;
  void removeObjectForKey(std::string_view key) override;
  bool synchronize() override;

  int synchronizeCount() const;
  // The values as of the last synchronize: what a crash would leave.
  std::map<std::string, Json> durable() const;

 private:
  mutable std::mutex mutex_;
  std::map<std::string, Json, std::less<>> values_;
  std::map<std::string, Json> durable_;
  int synchronizeCount_ = 0;
};

class MemorySecureStore final : public platform::SecureStore {
 public:
  platform::SecureStatus add(std::string_view service, std::string_view account,
                             const Bytes& data) override;
  platform::SecureStatus copy(std::string_view service, std::string_view account,
                              Bytes& out) const override;
  platform::SecureStatus update(std::string_view service, std::string_view account,
                                const Bytes& data) override;
  platform::SecureStatus remove(std::string_view service, std::string_view account) override;
  std::size_t size() const;

 private:
  mutable std::mutex mutex_;
  std::map<std::pair<std::string, std::string>, Bytes> items_;
};

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

// Files and directories in memory, with settable dates.
class MemoryFileSystem final : public platform::FileSystem {
 public:
  std::string libraryDirectory() const override { return "/app/Library"; }
  std::string cachesDirectory() const override { return "/app/Library/Caches"; }
  std::string temporaryDirectory() const override { return "/app/tmp"; }
  std::optional<platform::TimePoint> creationDate(const std::string& path) const override;
  std::optional<platform::TimePoint> modificationDate(const std::string& path) const override;
  bool fileExists(const std::string& path) const override;
  bool createDirectory(const std::string& path) override;
  std::optional<std::vector<std::string>> contentsOfDirectory(
      const std::string& path) const override;
  std::optional<Bytes> readFile(const std::string& path) const override;
  bool writeFileAtomically(const std::string& path, const Bytes& content,
                           std::string* errorReason) override;
  bool removeFile(const std::string& path, std::string* errorReason) override;
  using FileSystem::removeFile;
  using FileSystem::writeFileAtomically;

  void setDates(const std::string& path, std::optional<platform::TimePoint> created,
                std::optional<platform::TimePoint> modified);
  bool failWrites = false;

 private:
  struct Node {
    bool directory = false;
    Bytes content;
    std::optional<platform::TimePoint> created;
    std::optional<platform::TimePoint> modified;
  };
  mutable std::mutex mutex_;
  std::map<std::string, Node> nodes_;
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

// Keeps every line; optionally echoes nothing.
class CapturingSystemLog final : public platform::SystemLog {
 public:
  void write(std::string_view line) noexcept override;
  std::vector<std::string> lines() const;
  // Lines containing `text`.
  std::size_t count(std::string_view text) const;
  void clear();

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
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
