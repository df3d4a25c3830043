// Secure items as files: one 0600 file per (service, account) in a 0700 directory that lives
// outside the application's data, so that items survive the removal of that data.
#pragma once

#include <memory>
#include <string>

#include <quorvel/platform/SecureStore.h>
#include <quorvel/platform/SystemLog.h>

namespace quorvel::platform {

class FileSecureStore final : public SecureStore {
 public:
  // Failures are written to `log` (standard error when none is given).
  explicit FileSecureStore(std::string directory, std::shared_ptr<SystemLog> log = nullptr);

  SecureStatus add(std::string_view service, std::string_view account, const Bytes& data) override;
  SecureStatus copy(std::string_view service, std::string_view account, Bytes& out) const override;
  SecureStatus update(std::string_view service, std::string_view account,
                      const Bytes& data) override;
  SecureStatus remove(std::string_view service, std::string_view account) override;

  const std::string& directory() const noexcept { return directory_; }
  // The file that holds an item: hex of the service, ".", hex of the account.
  std::string itemPath(std::string_view service, std::string_view account) const;

 private:
  bool ensureDirectory();

  std::string directory_;
  std::shared_ptr<SystemLog> log_;
};

}  // namespace quorvel::platform
