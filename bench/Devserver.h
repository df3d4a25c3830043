// quorvel-devserver as a child process of a benchmark: started on free loopback ports with
// its own data directory, read through its request database and admin port, stopped with
// SIGTERM.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <curl/curl.h>

#include <quorvel/Json.h>

extern char** environ;

namespace quorvel::bench {

// quorvel-devserver as a child process, stopped with SIGTERM at the end.
class Devserver {
 public:
  Devserver(const std::string& binary, const std::filesystem::path& dir, const std::string& app,
            const std::string& devKey)
      : dir_(dir) {
    const std::vector<std::string> args = {
        binary, "--port", "0", "--data-dir", dir.string(), "--app", app + "=" + devKey, "--quiet"};
    std::vector<char*> argv;
    for (const auto& a : args)
      argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    const std::string log = (dir.parent_path() / "devserver.log").string();
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, log.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    if (posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0)
      throw std::runtime_error("cannot start " + binary);
    posix_spawn_file_actions_destroy(&actions);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!std::filesystem::exists(dir / "server.json")) {
      if (std::chrono::steady_clock::now() > deadline)
        throw std::runtime_error("quorvel-devserver did not start");
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    std::ifstream in(dir / "server.json");
    state_ = quorvel::Json::parse(in);
  }
  ~Devserver() {
    ::kill(pid_, SIGTERM);
    int status = 0;
    ::waitpid(pid_, &status, 0);
  }
  std::string domain() const { return state_["service_domain"].get<std::string>(); }
  std::string caFile() const { return state_["ca_file"].get<std::string>(); }
  int port() const { return state_["port"].get<int>(); }
  int adminPort() const { return state_["admin_port"].get<int>(); }
  std::string database() const { return state_["database"].get<std::string>(); }

  // Tracking requests recorded with an answer of 200. Counted from where the last call left
  // off: a benchmark polls this while the server works, and counting the whole table (bodies
  // and all) every time took a quarter of the machine away from the run it measures.
  long long delivered() const {
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(database().c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
      sqlite3_busy_timeout(db, 2000);
      sqlite3_stmt* s = nullptr;
      if (sqlite3_prepare_v2(db,
                             "SELECT count(*) FILTER (WHERE service IN ('t','events') AND "
                             "status = 200), max(id) FROM requests WHERE id > ?",
                             -1, &s, nullptr) == SQLITE_OK &&
          sqlite3_bind_int64(s, 1, countedUpTo_) == SQLITE_OK && sqlite3_step(s) == SQLITE_ROW &&
          sqlite3_column_type(s, 1) != SQLITE_NULL) {
        delivered_ += sqlite3_column_int64(s, 0);
        countedUpTo_ = sqlite3_column_int64(s, 1);
      }
      sqlite3_finalize(s);
    }
    sqlite3_close(db);
    return delivered_;
  }

  quorvel::Json stats() const { return admin("/stats", false); }
  // A fault switched through the admin port, for example "/faults/offline?seconds=1".
  quorvel::Json fault(const std::string& pathAndQuery) const { return admin(pathAndQuery, true); }

 private:
  quorvel::Json admin(const std::string& pathAndQuery, bool post) const {
    std::string body;
    CURL* e = curl_easy_init();
    const std::string url = "http://127.0.0.1:" + std::to_string(adminPort()) + pathAndQuery;
    curl_easy_setopt(e, CURLOPT_URL, url.c_str());
    // State changes carry the run's token, which the emulator keeps in server.json.
    const std::string token = "X-Quorvel-Admin-Token: " + state_.value("admin_token", "");
    curl_slist* headers = curl_slist_append(nullptr, token.c_str());
    curl_easy_setopt(e, CURLOPT_HTTPHEADER, headers);
    if (post)
      curl_easy_setopt(e, CURLOPT_POSTFIELDS, "");
    curl_easy_setopt(
        e, CURLOPT_WRITEFUNCTION,
        +[](char* d, std::size_t s, std::size_t n, void* u) -> std::size_t {
          static_cast<std::string*>(u)->append(d, s * n);
          return s * n;
        });
    curl_easy_setopt(e, CURLOPT_WRITEDATA, &body);
    curl_easy_perform(e);
    curl_easy_cleanup(e);
    curl_slist_free_all(headers);
    return quorvel::Json::parse(body, nullptr, false);
  }

  std::filesystem::path dir_;
  pid_t pid_ = -1;
  quorvel::Json state_;
  mutable long long delivered_ = 0;
  mutable long long countedUpTo_ = 0;
};

// Runs `run` in a new scratch folder under /tmp named after `tool`; an exception is an error
// (2). The folder goes afterwards unless `keep(rc)` says otherwise, and then its place is said.
inline int inScratchFolder(
    const std::string& tool, const std::function<int(const std::filesystem::path&)>& run,
    const std::function<bool(int)>& keep = [](int) { return false; }) {
  std::string pattern = "/tmp/" + tool + "-XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr) {
    std::perror("mkdtemp");
    return 2;
  }
  const std::filesystem::path root = pattern;
  int rc = 0;
  try {
    rc = run(root);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "%s: %s\n", tool.c_str(), e.what());
    rc = 2;
  }
  if (keep(rc)) {
    std::fprintf(stderr, "%s: the run's files are kept in %s\n", tool.c_str(), root.c_str());
  } else {
    std::error_code ignored;
    std::filesystem::remove_all(root, ignored);
  }
  return rc;
}

}  // namespace quorvel::bench
