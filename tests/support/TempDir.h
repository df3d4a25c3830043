// A fresh directory under the system's temporary directory, removed with its content.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

namespace quorvel::test {

class TempDir {
 public:
  TempDir() {
    std::string tmpl = (std::filesystem::temp_directory_path() / "quorvel-test-XXXXXX").string();
    path_ = mkdtemp(tmpl.data()) != nullptr ? tmpl : std::string();
  }
  ~TempDir() {
    std::error_code ec;
    if (!path_.empty())
      std::filesystem::remove_all(path_, ec);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

}  // namespace quorvel::test
