// Version constants compiled into the library.
#pragma once

#pragma GCC visibility push(default)  // the public interface is what the library exports

namespace quorvel {

extern const double QuorvelTrackerVersionNumber;
extern const unsigned char QuorvelTrackerVersionString[];

inline constexpr const char* kQuorvelSDKVersion = "4.8.0";
inline constexpr const char* kQuorvelSDKBuildNumber = "597";
inline constexpr const char* kQuorvelAPIVersion = "4.8";

}  // namespace quorvel

#pragma GCC visibility pop
