// Runs an httplib server's accept loop on a thread of its own, and ends it safely: the
// server only takes a stop once its loop runs, so a stop that comes right after the start
// waits for the loop first instead of being lost.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include <httplib.h>

namespace quorvel::devserver {

class ListenerThread {
 public:
  ListenerThread() = default;
  ~ListenerThread() { stop(); }
  ListenerThread(const ListenerThread&) = delete;
  ListenerThread& operator=(const ListenerThread&) = delete;

  // `server` is bound already; it is owned from here on.
  void start(std::unique_ptr<httplib::Server> server) {
    server_ = std::move(server);
    ended_ = std::make_shared<std::atomic<bool>>(false);
    thread_ = std::thread([server = server_.get(), ended = ended_] {
      server->listen_after_bind();
      *ended = true;
    });
  }

  void stop() {
    if (!thread_.joinable())
      return;
    while (!*ended_ && !server_->is_running())
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (!*ended_)
      server_->stop();
    thread_.join();
    server_.reset();
  }

  bool running() const { return thread_.joinable(); }

 private:
  std::unique_ptr<httplib::Server> server_;
  std::shared_ptr<std::atomic<bool>> ended_;
  std::thread thread_;
};

}  // namespace quorvel::devserver
