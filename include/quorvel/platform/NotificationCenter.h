// In-process notifications: observers by name, posts with user info.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include <quorvel/Json.h>

#pragma GCC visibility push(default)  // the public interface is what the library exports

namespace quorvel::platform {

// Names of the application lifecycle notifications that a host posts.
inline constexpr const char* kApplicationDidFinishLaunchingNotification =
    "UIApplicationDidFinishLaunchingNotification";
inline constexpr const char* kApplicationDidEnterBackgroundNotification =
    "UIApplicationDidEnterBackgroundNotification";
inline constexpr const char* kApplicationWillResignActiveNotification =
    "UIApplicationWillResignActiveNotification";
inline constexpr const char* kApplicationWillTerminateNotification =
    "UIApplicationWillTerminateNotification";
// Launch-option keys of the did-finish-launching notification's user info: the URL that
// opened the app and the application that asked for it.
inline constexpr const char* kLaunchOptionsURLKey = "UIApplicationLaunchOptionsURLKey";
inline constexpr const char* kLaunchOptionsSourceApplicationKey =
    "UIApplicationLaunchOptionsSourceApplicationKey";

struct Notification {
  std::string name;
  Json userInfo;  // null when the post carries none
};

using NotificationHandler = std::function<void(const Notification&)>;

class NotificationCenter {
 public:
  NotificationCenter() = default;
  NotificationCenter(const NotificationCenter&) = delete;
  NotificationCenter& operator=(const NotificationCenter&) = delete;
  virtual ~NotificationCenter() = default;

  // `observer` identifies the subscriber for removal; it is never dereferenced.
  virtual void addObserver(const void* observer, std::string name, NotificationHandler handler) = 0;
  // Removes the observer's subscriptions to `name`; removing one that was never added is harmless.
  virtual void removeObserver(const void* observer, std::string_view name) = 0;
  // Calls the observers of `name` on the posting thread, in subscription order.
  virtual void post(const Notification& notification) = 0;
};

// One handler subscribed to one name for as long as this object lives. Destroying or
// resetting it unsubscribes and, when another thread is running the handler at that moment,
// waits for that call to return: whatever the handler captured may be destroyed right after.
// A handler may reset its own subscription; later posts never reach it.
class NotificationSubscription {
 public:
  NotificationSubscription() = default;
  NotificationSubscription(std::shared_ptr<NotificationCenter> center, std::string name,
                           NotificationHandler handler);
  NotificationSubscription(NotificationSubscription&& other) noexcept = default;
  NotificationSubscription& operator=(NotificationSubscription&& other) noexcept;
  NotificationSubscription(const NotificationSubscription&) = delete;
  NotificationSubscription& operator=(const NotificationSubscription&) = delete;
  ~NotificationSubscription();

  void reset() noexcept;
  bool active() const noexcept { return gate_ != nullptr; }

 private:
  struct Gate;
  std::shared_ptr<NotificationCenter> center_;
  std::string name_;
  std::shared_ptr<Gate> gate_;
};

}  // namespace quorvel::platform

#pragma GCC visibility pop
