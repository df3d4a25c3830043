// The POSIX implementations of the platform services.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <quorvel/Platform.h>

namespace quorvel::platform {

class PosixClock final : public Clock {
 public:
  TimePoint now() const noexcept override;
  long secondsFromGMT(TimePoint at) const noexcept override;
};

class PosixDispatcher final : public Dispatcher {
 public:
  // `mainQueue` replaces the default main queue thread when given.
  explicit PosixDispatcher(std::shared_ptr<DispatchQueue> mainQueue = nullptr);
  std::shared_ptr<DispatchQueue> makeSerialQueue(std::string label) override;
  std::shared_ptr<DispatchQueue> makeDiskQueue(std::string label) override;
  std::shared_ptr<DispatchQueue> mainQueue() override { return main_; }
  std::shared_ptr<DispatchQueue> globalQueue() override { return pool_; }

 private:
  std::shared_ptr<DispatchQueue> pool_;
  std::shared_ptr<DispatchQueue> main_;
};

class InProcessNotificationCenter final : public NotificationCenter {
 public:
  void addObserver(const void* observer, std::string name, NotificationHandler handler) override;
  void removeObserver(const void* observer, std::string_view name) override;
  void post(const Notification& notification) override;

 private:
  struct Entry {
    const void* observer;
    std::string name;
    std::shared_ptr<NotificationHandler> handler;
  };
  std::mutex mutex_;
  std::vector<Entry> entries_;
};

// Where the machine's identity is read: tests point these at files of their own.
struct PosixDeviceSources {
  std::string machineIdFile = "/etc/machine-id";
  std::string productNameFile = "/sys/class/dmi/id/product_name";
};

// Every answer is worked out in the constructor: none changes while the process runs, every
// request carries them, and what is never written needs no lock (nor care after a fork).
class PosixDevice final : public Device {
 public:
  PosixDevice(std::optional<std::string> name, std::optional<std::string> systemVersion,
              bool multitasking, std::string bundleIdentifier = {},
              PosixDeviceSources sources = {});
  std::string name() const override { return name_; }
  std::string model() const override { return "PC"; }
  std::string localizedModel() const override { return "PC"; }
  std::string systemName() const override { return systemName_; }
  std::string systemVersion() const override { return systemVersion_; }
  // A distribution's version number says nothing about these: the platform has them all.
  SystemCapabilities capabilities() const override { return {}; }
  std::string operatingSystemVersionString() const override { return versionString_; }
  std::optional<std::string> identifierForVendor() const override { return vendorId_; }
  bool isMultitaskingSupported() const override { return multitasking_; }

 private:
  std::string name_;
  std::string systemName_;
  std::string systemVersion_;
  std::string versionString_;
  std::optional<std::string> vendorId_;
  bool multitasking_;
};

class StaticBundle final : public Bundle {
 public:
  StaticBundle(std::optional<std::string> identifier, Json info,
               std::optional<std::string> receiptPath);
  std::optional<std::string> bundleIdentifier() const override { return identifier_; }
  Json infoDictionary() const override { return info_; }
  // Fixed when made: read in place, without the copy that infoDictionary() hands out.
  const Json& info() const { return info_; }
  std::optional<std::string> appStoreReceiptPath() const override { return receiptPath_; }

 private:
  std::optional<std::string> identifier_;
  Json info_;
  std::optional<std::string> receiptPath_;
};

// Locale from LC_ALL / LC_MESSAGES / LANG and LANGUAGE; "en_US" when none is set.
class PosixLocale final : public Locale {
 public:
  PosixLocale();
  std::string localeIdentifier() const override { return identifier_; }
  std::optional<std::string> languageCode() const override;
  std::optional<std::string> countryCode() const override;
  std::vector<std::string> preferredLanguages() const override { return languages_; }

 private:
  std::string identifier_;
  std::vector<std::string> languages_;
};

// The application's directories under one data directory: Library, Library/Caches, tmp.
class PosixFileSystem final : public FileSystem {
 public:
  explicit PosixFileSystem(std::string dataDirectory);
  std::string libraryDirectory() const override { return data_ + "/Library"; }
  std::string cachesDirectory() const override { return data_ + "/Library/Caches"; }
  std::string temporaryDirectory() const override { return data_ + "/tmp"; }
  // The birth time where the file system records one; otherwise the time written into
  // ".quorvel-created" when the directory was made by this library; otherwise the
  // modification time. Never "now".
  std::optional<TimePoint> creationDate(const std::string& path) const override;
  std::optional<TimePoint> modificationDate(const std::string& path) const override;
  bool fileExists(const std::string& path) const override;
  bool createDirectory(const std::string& path) override;
  std::optional<std::vector<std::string>> contentsOfDirectory(
      const std::string& path) const override;
  std::optional<Bytes> readFile(const std::string& path) const override;
  bool writeFileAtomically(const std::string& path, const Bytes& content,
                           std::string* errorReason) override;
  bool removeFile(const std::string& path, std::string* errorReason) override;
  // rename(), made durable before it returns.
  bool moveFile(const std::string& from, const std::string& to, std::string* errorReason) override;
  using FileSystem::removeFile;
  using FileSystem::writeFileAtomically;
  bool forgetCreationDates() override;
  // Syncs the directory once, after the last file rather than after each.
  bool removeFilesIn(const std::string& directory) override;

  static constexpr const char* kCreationMarker = ".quorvel-created";

 private:
  // A marker that dates `directory` from now, ahead of its birth time.
  bool markCreatedNow(const std::string& directory);
  std::string data_;
};

// Kernel facts from /proc, sysconf and uname under the names the library asks for.
// The machine's facts are read from the kernel once, when the platform is made: every request
// asks for them, reading /proc/cpuinfo per request costs more than building the request, and
// facts that are never written need no lock (nor a once-flag that a fork could leave taken).
class LinuxSysctl final : public Sysctl {
 public:
  LinuxSysctl();
  std::optional<Bytes> byName(std::string_view name) const override;
  std::optional<Bytes> byMib(const std::vector<int>& mib) const override;

 private:
  struct Facts {
    std::string machine;
    std::optional<std::uint64_t> memoryBytes;
    std::optional<std::int32_t> processors;
    std::optional<std::uint64_t> cpuHz;
    std::optional<std::string> brand;
  };
  static Facts read();
  const Facts facts_;
};

// Interfaces come and go (a network change), so the list is read again, but at most once a
// second: a burst of requests would otherwise ask the kernel for every one of them.
class PosixNetworkInterfaces final : public NetworkInterfaces {
 public:
  std::optional<std::vector<InterfaceAddress>> addresses() const override;

 private:
  mutable std::mutex mutex_;
  mutable std::optional<std::vector<InterfaceAddress>> last_;
  mutable std::chrono::steady_clock::time_point readAt_{};
  mutable bool read_ = false;
};

class InMemoryClassRegistry final : public ClassRegistry {
 public:
  void registerClass(std::string name, std::shared_ptr<RegisteredClass> entry) override;
  void unregisterClass(std::string_view name) override;
  std::shared_ptr<RegisteredClass> classNamed(std::string_view name) const override;

 private:
  mutable std::mutex mutex_;
  std::map<std::string, std::shared_ptr<RegisteredClass>, std::less<>> classes_;
};

// One line per call on standard error: "date time program[pid] line".
class StderrSystemLog final : public SystemLog {
 public:
  void write(std::string_view line) noexcept override;
};

class OpenSslRandom final : public Random {
 public:
  int fill(Bytes& out) noexcept override;
  std::uint32_t uniform(std::uint32_t upperBound) noexcept override;
};

class PosixApplication final : public Application {
 public:
  BackgroundTaskIdentifier beginBackgroundTask(std::function<void()> expiration) override;
  void endBackgroundTask(BackgroundTaskIdentifier identifier) override;
  // A desktop has no named pasteboards that apps share.
  std::optional<std::string> namedPasteboardText(const std::string&) override {
    return std::nullopt;
  }
};

// Fills every empty service of `platform` with its POSIX default.
void fillWithPosixDefaults(Platform& platform, const PosixPlatformOptions& options);
// "<base>/quorvel-<uid>" when it is this user's own folder, mode 0700 and no symbolic link
// (made so when missing); otherwise the first of "<base>/quorvel-<uid>-1" ... "-8" that is,
// the same at every start, said in `log`; a fresh folder only when none is.
std::string privateFallbackDirectory(const std::string& base, SystemLog& log);
PosixPlatformOptions defaultPosixOptions();

}  // namespace quorvel::platform
