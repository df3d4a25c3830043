// A C handle for a tracker on a platform the host made in C++: how a C++ layer (a test kit,
// an engine's own platform) hands a tracker to code that speaks the C API.
#pragma once

#include <memory>

#include <quorvel/Platform.h>
#include <quorvel/quorvel.h>

#pragma GCC visibility push(default)  // the public interface is what the library exports

namespace quorvel {

// Released with quorvel_tracker_destroy. Null when the tracker could not be made.
quorvel_tracker* makeCTrackerHandle(std::shared_ptr<const Platform> platform) noexcept;

}  // namespace quorvel

#pragma GCC visibility pop
