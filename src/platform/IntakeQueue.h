// The serial queue that the host's tracking calls hand their work to: the outbox's writer.
// Named by its label, not by a call of the dispatcher's interface, so that a host's own
// dispatcher built against an older header keeps working; one that starts threads when work
// comes (the POSIX one) keeps this queue's thread, parked, while it is idle, so that a host's
// call after a pause pays a wake, not the start of a thread.
#pragma once

namespace quorvel::platform {

inline constexpr const char* kIntakeQueueLabel = "com.quorvel.outbox";

}  // namespace quorvel::platform
