// Names that more than one part of the tracker writes: the launch event's name and the error
// domain of the errors handed to the host.
#pragma once

namespace quorvel {

inline constexpr const char* kLaunchEventName = "Launched";
inline constexpr const char* kErrorDomain = "com.quorvel.ErrorDomain";

}  // namespace quorvel
