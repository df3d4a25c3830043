#include "platform/posix/FileSecureStore.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include <quorvel/Format.h>

#include "platform/AtomicFile.h"
#include "platform/posix/PosixServices.h"

namespace quorvel::platform {
namespace {

std::string hex(std::string_view text) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  out.reserve(text.size() * 2);
  for (const char c : text) {
    const auto b = static_cast<unsigned char>(c);
    out.push_back(kHex[b >> 4U]);
    out.push_back(kHex[b & 0xFU]);
  }
  return out;
}

constexpr const char* kSecureWriteMethod = "-[QuorvelSecureStore write]";

}  // namespace

FileSecureStore::FileSecureStore(std::string directory, std::shared_ptr<SystemLog> log)
    : directory_(std::move(directory)),
      log_(log ? std::move(log) : std::make_shared<StderrSystemLog>()) {}

std::string FileSecureStore::itemPath(std::string_view service, std::string_view account) const {
  // Names are bounded so that a long service or account never exceeds NAME_MAX.
  const std::string name = hex(service).substr(0, 120) + "." + hex(account).substr(0, 120);
  return directory_ + "/" + name;
}

bool FileSecureStore::ensureDirectory() {
  if (!makeDirectories(directory_, 0700))
    return false;
  ::chmod(directory_.c_str(), 0700);
  return true;
}

SecureStatus FileSecureStore::add(std::string_view service, std::string_view account,
                                  const Bytes& data) {
  if (!ensureDirectory())
    return SecureStatus::failure;
  std::string error;
  AtomicWriteOptions options;
  options.replaceExisting = false;
  switch (writeFileAtomically(itemPath(service, account), data, options, &error)) {
    case AtomicWriteResult::written:
      return SecureStatus::success;
    case AtomicWriteResult::alreadyExists:
      return SecureStatus::duplicateItem;
    case AtomicWriteResult::failed:
      break;
  }
  log_->write(
      format("[ERROR] Quorvel: %s secure store write failed: %@", kSecureWriteMethod, error));
  return SecureStatus::failure;
}

SecureStatus FileSecureStore::copy(std::string_view service, std::string_view account,
                                   Bytes& out) const {
  auto content = readWholeFile(itemPath(service, account));
  if (!content)
    return errno == ENOENT ? SecureStatus::itemNotFound : SecureStatus::failure;
  out = std::move(*content);
  return SecureStatus::success;
}

SecureStatus FileSecureStore::update(std::string_view service, std::string_view account,
                                     const Bytes& data) {
  const std::string path = itemPath(service, account);
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0)
    return SecureStatus::itemNotFound;
  std::string error;
  if (writeFileAtomically(path, data, {}, &error) != AtomicWriteResult::written) {
    log_->write(
        format("[ERROR] Quorvel: %s secure store write failed: %@", kSecureWriteMethod, error));
    return SecureStatus::failure;
  }
  return SecureStatus::success;
}

SecureStatus FileSecureStore::remove(std::string_view service, std::string_view account) {
  const std::string path = itemPath(service, account);
  // A write cut short by a kill left its temp file beside the item, holding what it wrote:
  // it goes with the item.
  const std::string temp = std::filesystem::path(path).filename().string() + ".tmp-";
  std::error_code ec;
  for (std::filesystem::directory_iterator it(directory_, ec), end; !ec && it != end;
       it.increment(ec)) {
    if (it->path().filename().string().rfind(temp, 0) == 0) {
      std::error_code removeError;
      std::filesystem::remove(it->path(), removeError);
    }
  }
  if (::unlink(path.c_str()) == 0)
    return SecureStatus::success;
  return errno == ENOENT ? SecureStatus::itemNotFound : SecureStatus::failure;
}

}  // namespace quorvel::platform
