// The suite uses the host test kit's virtual time under its own names.
#pragma once

#include <quorvel/testing/VirtualTime.h>

namespace quorvel::test {
using testkit::VirtualClock;
using testkit::VirtualDispatcher;
}  // namespace quorvel::test
