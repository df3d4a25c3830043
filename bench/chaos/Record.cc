#include "Record.h"

#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string_view>

#include <quorvel/Json.h>

namespace quorvel::chaos {

namespace {

std::string columnText(sqlite3_stmt* s, int column) {
  const auto* p = reinterpret_cast<const char*>(sqlite3_column_text(s, column));
  return p != nullptr ? std::string(p) : std::string();
}

Received toReceived(sqlite3_stmt* s) {
  Received r;
  r.time = sqlite3_column_double(s, 1);
  r.service = columnText(s, 2);
  r.status = sqlite3_column_int(s, 3);
  r.repeat = sqlite3_column_int(s, 4) != 0;
  const quorvel::Json payload = quorvel::Json::parse(columnText(s, 5), nullptr, false);
  if (!payload.is_object())
    return r;
  r.install = payload.value("uid", "");
  if (r.service == "events" && payload.value("event", "") == "chaos") {
    const std::string value = payload.value("eventvalue", "");
    r.seq = std::atoll(value.substr(0, value.find('/')).c_str());
    r.callMs = std::atoll(value.substr(value.find('/') + 1).c_str());
  } else if (r.service == "t") {
    r.counter = std::atoll(payload.value("counter", "0").c_str());
  }
  return r;
}

}  // namespace

void RequestLog::update() {
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(database_.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
    sqlite3_busy_timeout(db, 2000);
    sqlite3_stmt* s = nullptr;
    if (sqlite3_prepare_v2(db,
                           "SELECT id, time, service, status, repeat, decrypted FROM requests "
                           "WHERE id > ? ORDER BY id",
                           -1, &s, nullptr) == SQLITE_OK &&
        sqlite3_bind_int64(s, 1, lastId_) == SQLITE_OK) {
      while (sqlite3_step(s) == SQLITE_ROW) {
        lastId_ = sqlite3_column_int64(s, 0);
        Received r = toReceived(s);
        if (r.seq >= 0 && r.answered() && firstAnswer_.emplace(r.seq, r.time).second)
          ++arrivedEvents_;
        all_.push_back(std::move(r));
      }
    }
    sqlite3_finalize(s);
  }
  sqlite3_close(db);
}

namespace {
// A mapped file's text: up to its first zero byte (the part never written), read in chunks.
std::string textBeforeFirstZero(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  std::string text;
  char chunk[1 << 16];
  while (in.read(chunk, sizeof chunk) || in.gcount() > 0) {
    const std::string_view read(chunk, static_cast<std::size_t>(in.gcount()));
    const auto zero = read.find('\0');
    text.append(read.substr(0, zero));
    if (zero != std::string_view::npos)
      break;
  }
  return text;
}
}  // namespace

std::map<long long, long long> readAccepted(const std::string& folder) {
  std::map<long long, long long> accepted;
  std::error_code error;
  for (const auto& file : std::filesystem::directory_iterator(folder, error)) {
    // Each host's whole lines: a kill during a line's copy leaves it without its end.
    const std::string text = textBeforeFirstZero(file.path());
    for (std::size_t at = 0, end = 0; (end = text.find('\n', at)) != std::string::npos;
         at = end + 1) {
      long long seq = 0;
      long long ms = 0;
      if (std::sscanf(text.substr(at, end - at).c_str(), "%lld %lld", &seq, &ms) == 2)
        accepted[seq] = ms;
    }
  }
  return accepted;
}

void trimMappedFiles(const std::filesystem::path& root) {
  const auto trimAtFirstZero = [](const std::filesystem::path& file) {
    if (!std::ifstream(file))
      return;  // unread, not emptied
    std::error_code ignored;
    std::filesystem::resize_file(file, textBeforeFirstZero(file).size(), ignored);
  };
  std::error_code error;
  for (const auto& file : std::filesystem::directory_iterator(root / "accepted", error))
    trimAtFirstZero(file.path());
  for (const auto& file : std::filesystem::recursive_directory_iterator(root, error)) {
    const std::string name = file.path().filename().string();
    if (name.starts_with("host-") && name.ends_with(".log"))
      trimAtFirstZero(file.path());
  }
}

}  // namespace quorvel::chaos
