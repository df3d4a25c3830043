#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <ctime>

#include "platform/AtomicFile.h"
#include "platform/posix/PosixServices.h"

extern char* program_invocation_short_name;

namespace quorvel::platform {

void StderrSystemLog::write(std::string_view line) noexcept {
  try {
    const auto now = std::chrono::system_clock::now();
    const std::time_t t = std::chrono::system_clock::to_time_t(now);
    const auto millis =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() %
        1000;
    std::tm local{};
    localtime_r(&t, &local);
    char prefix[128];
    const std::size_t n = std::strftime(prefix, sizeof prefix, "%Y-%m-%d %H:%M:%S", &local);
    char tail[96];
    std::snprintf(tail, sizeof tail, ".%03lld %s[%d] ", static_cast<long long>(millis),
                  program_invocation_short_name, static_cast<int>(getpid()));
    std::string text(prefix, n);
    text += tail;
    text.append(line);
    text.push_back('\n');
    // One write() per line keeps lines from different threads whole.
    writeAll(STDERR_FILENO, text.data(), text.size());
  } catch (...) {
  }
}

}  // namespace quorvel::platform
