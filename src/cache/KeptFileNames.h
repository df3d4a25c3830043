// How the kept-request folder names its files: a write under way, a file claimed by the
// process sending it, and the plain entry a later start may take.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <cerrno>
#include <string>
#include <string_view>

namespace quorvel::kept_files {

// The temp file of a write ("<entry>.qv.tmp-XXXXXX"); one that is left over was cut short by
// a crash. It is neither counted nor replayed.
inline bool isTempFile(const std::string& name) {
  return name.find(".qv.tmp-") != std::string::npos;
}
inline bool isCacheEntry(const std::string& name) {
  return !isTempFile(name);
}

// A file on its way is claimed first: renamed to "<entry>.sending-<pid>", so that a process
// that can send it but not rename it (a read-only folder) never sends it, and one that sent it
// and could not delete it after the answer leaves no plain entry for the next start to send
// again. A claim goes back to the plain name when its send fails in transport; one whose
// process ended (killed on the way) is taken again by the next.
constexpr std::string_view kClaimMark = ".sending-";

inline std::string plainName(const std::string& name) {
  const auto mark = name.find(kClaimMark);
  return mark == std::string::npos ? name : name.substr(0, mark);
}

// The claiming process, 0 when the name is no claim.
inline pid_t claimerOf(const std::string& name) {
  const auto mark = name.find(kClaimMark);
  if (mark == std::string::npos)
    return 0;
  const std::string digits = name.substr(mark + kClaimMark.size());
  if (digits.empty() || digits.size() > 9 ||
      digits.find_first_not_of("0123456789") != std::string::npos)
    return 0;
  return static_cast<pid_t>(std::stol(digits));
}

inline bool processRuns(pid_t pid) {
  return ::kill(pid, 0) == 0 || errno == EPERM;
}

}  // namespace quorvel::kept_files
