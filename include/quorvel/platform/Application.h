// Application services: background tasks that keep work alive while the app leaves the
// foreground.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#pragma GCC visibility push(default)  // the public interface is what the library exports

namespace quorvel::platform {

using BackgroundTaskIdentifier = std::uint64_t;
inline constexpr BackgroundTaskIdentifier kInvalidBackgroundTask = 0;

class Application {
 public:
  Application() = default;
  Application(const Application&) = delete;
  Application& operator=(const Application&) = delete;
  virtual ~Application() = default;

  // Begins a background task; `expiration` runs if the system cuts it short.
  virtual BackgroundTaskIdentifier beginBackgroundTask(std::function<void()> expiration) = 0;
  virtual void endBackgroundTask(BackgroundTaskIdentifier identifier) = 0;
  // The text of an existing named pasteboard; nullopt when it does not exist (it is never
  // created by asking).
  virtual std::optional<std::string> namedPasteboardText(const std::string& name) = 0;
};

}  // namespace quorvel::platform

#pragma GCC visibility pop
