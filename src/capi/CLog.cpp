// The tracker's log lines to the host's log function: its level and its text without the level
// tag, through a guarded box so that no line reaches the host once it has destroyed its handle.
#include <quorvel/Logger.h>
#include <quorvel/platform/SystemLog.h>

#include <string>
#include <utility>

#include "capi/CTracker.h"

namespace quorvel::capi {
namespace {

struct LevelAndText {
  int level = static_cast<int>(QVLogLevel::info);
  std::string text;
};

// A console line carries its level tag first ("[WARN]  Quorvel: ...") or, tracing, after the
// elapsed time ("(00:00:01:200) Quorvel: [WARN]  ...").
LevelAndText splitLine(std::string_view line) {
  constexpr std::size_t kTagWithin = 40;
  for (int level = static_cast<int>(QVLogLevel::error);
       level <= static_cast<int>(QVLogLevel::trace); ++level) {
    const std::string tag = levelToString(level);
    const std::size_t at = line.find(tag);
    if (at == std::string_view::npos || at > kTagWithin)
      continue;
    std::size_t end = at + tag.size();
    while (end < line.size() && line[end] == ' ')
      ++end;
    std::string text(line.substr(0, at));
    text.append(line.substr(end));
    return {level, std::move(text)};
  }
  return {static_cast<int>(QVLogLevel::info), std::string(line)};
}

class HostLog final : public platform::SystemLog {
 public:
  HostLog(std::shared_ptr<platform::SystemLog> platformLog, std::shared_ptr<LogBox> box)
      : platformLog_(std::move(platformLog)), box_(std::move(box)) {}

  void write(std::string_view line) override {
    LevelAndText split;
    try {
      split = splitLine(line);
    } catch (...) {
      return;  // out of memory: the line is lost, as the console's would be
    }
    bool taken = false;
    const bool open = box_->invoke([&](const LogTarget& target) {
      if (target.callback == nullptr)
        return;
      target.callback(target.userData, split.level, split.text.data(), split.text.size());
      taken = true;
    });
    // A destroyed tracker's last lines (its threads finishing) go nowhere when the host took
    // its lines: it would otherwise find them on its standard error. Without a callback they
    // go there as before.
    if (taken || (!open && box_->lastSet().callback != nullptr))
      return;
    if (platformLog_)
      platformLog_->write(line);
  }

 private:
  std::shared_ptr<platform::SystemLog> platformLog_;
  std::shared_ptr<LogBox> box_;
};

}  // namespace

std::shared_ptr<platform::SystemLog> hostLog(std::shared_ptr<platform::SystemLog> fallback,
                                             std::shared_ptr<LogBox> box) {
  return std::make_shared<HostLog>(std::move(fallback), std::move(box));
}

std::shared_ptr<const Platform> withHostLog(std::shared_ptr<const Platform> platform,
                                            std::shared_ptr<LogBox> box) {
  Platform own = *platform;
  own.systemLog = hostLog(platform->systemLog, std::move(box));
  return std::make_shared<const Platform>(std::move(own));
}

}  // namespace quorvel::capi
