// Plain TCP on loopback. The listener never answers: connections complete in the kernel and
// wait in its backlog, so a test can tell whether anything connected at all, and requests
// sent to it stay on the wire.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdint>
#include <string>

namespace quorvel::test {

// Connects to loopback `port`, writes `bytes` and reads a little of the answer (5 s at most);
// true when the connection was accepted.
inline bool connectToLoopback(int port, const std::string& bytes = {}) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  const timeval timeout{5, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const bool connected =
      ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  if (connected && !bytes.empty()) {
    (void)::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    ::shutdown(fd, SHUT_WR);
    char buffer[256];
    (void)::recv(fd, buffer, sizeof buffer, 0);
  }
  ::close(fd);
  return connected;
}

class LoopbackListener {
 public:
  // Port 0 takes a free port.
  explicit LoopbackListener(int port = 0) : fd_(::socket(AF_INET, SOCK_STREAM, 0)) {
    const int yes = 1;
    ::setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bound_ = ::bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
             ::listen(fd_, 16) == 0;
    socklen_t length = sizeof address;
    if (bound_ && ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) == 0)
      port_ = ntohs(address.sin_port);
    ::fcntl(fd_, F_SETFL, ::fcntl(fd_, F_GETFL) | O_NONBLOCK);
  }
  ~LoopbackListener() { ::close(fd_); }
  LoopbackListener(const LoopbackListener&) = delete;
  LoopbackListener& operator=(const LoopbackListener&) = delete;

  bool bound() const { return bound_; }
  int port() const { return port_; }
  // Whether a connection is waiting to be taken (it is taken and closed).
  bool connectionArrived() {
    const int client = ::accept(fd_, nullptr, nullptr);
    if (client < 0)
      return false;
    ::close(client);
    return true;
  }

 private:
  int fd_;
  bool bound_ = false;
  int port_ = 0;
};

}  // namespace quorvel::test
