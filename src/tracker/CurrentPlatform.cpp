// The process's platform: the one the host installed, or the POSIX defaults. Only the facade
// reads it (sharedTracker builds on it); installing one also points the exported logger
// functions at its system log and clock.
#include <mutex>

#include <quorvel/Platform.h>

#include "log/LogSink.h"
#include "log/QuorvelProxyManager.h"
#include "platform/posix/PosixServices.h"
#include "util/NoDestructor.h"

namespace quorvel {
namespace {

struct Registry {
  std::mutex mutex;
  std::shared_ptr<const Platform> current;
};

Registry& registry() {
  static NoDestructor<Registry> instance;
  return instance.get();
}

void connectLogging(const Platform& platform) {
  detail::setLogSink(platform.clock, platform.systemLog);
  QuorvelProxyManager::sharedManager().setClock(platform.clock);
}

}  // namespace

void installPlatform(const Platform& installed) {
  auto next = std::make_shared<Platform>(installed);
  auto& r = registry();
  std::shared_ptr<const Platform> previous;
  {
    std::lock_guard lock(r.mutex);
    previous = r.current;
  }
  // Services not given keep the ones in use; the rest come from the POSIX defaults.
  if (previous) {
    auto keep = [](auto& field, const auto& old) {
      if (!field)
        field = old;
    };
    keep(next->clock, previous->clock);
    keep(next->dispatcher, previous->dispatcher);
    keep(next->preferences, previous->preferences);
    keep(next->secureStore, previous->secureStore);
    keep(next->urlSessions, previous->urlSessions);
    keep(next->notificationCenter, previous->notificationCenter);
    keep(next->device, previous->device);
    keep(next->bundle, previous->bundle);
    keep(next->locale, previous->locale);
    keep(next->fileSystem, previous->fileSystem);
    keep(next->sysctl, previous->sysctl);
    keep(next->networkInterfaces, previous->networkInterfaces);
    keep(next->classRegistry, previous->classRegistry);
    keep(next->systemLog, previous->systemLog);
    keep(next->random, previous->random);
    keep(next->application, previous->application);
  }
  platform::fillWithPosixDefaults(*next, platform::defaultPosixOptions());
  connectLogging(*next);
  std::lock_guard lock(r.mutex);
  r.current = std::move(next);
}

std::shared_ptr<const Platform> currentPlatform() {
  auto& r = registry();
  {
    std::lock_guard lock(r.mutex);
    if (r.current)
      return r.current;
  }
  auto built = std::make_shared<Platform>(makePosixPlatform(platform::defaultPosixOptions()));
  std::lock_guard lock(r.mutex);
  if (!r.current) {
    connectLogging(*built);
    r.current = std::move(built);
  }
  return r.current;
}

}  // namespace quorvel
