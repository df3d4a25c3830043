// Whether the request a host's transport is being handed now was given up since (a stop, a
// forgetting): a transport that queues requests asks before it sends one, so that nothing
// leaves once the stop has returned. Set by the send lanes around each call into the host.
#pragma once

#include <atomic>
#include <memory>

namespace quorvel::platform {

using SendCancelFlag = std::shared_ptr<const std::atomic<bool>>;

// The flag of the request handed to the host's transport on this thread now; empty outside
// such a call.
SendCancelFlag currentSendCancelFlag() noexcept;

// For the span of one call into the host's transport.
class SendCancelScope {
 public:
  explicit SendCancelScope(SendCancelFlag flag) noexcept;
  ~SendCancelScope();
  SendCancelScope(const SendCancelScope&) = delete;
  SendCancelScope& operator=(const SendCancelScope&) = delete;

 private:
  SendCancelFlag previous_;
};

}  // namespace quorvel::platform
