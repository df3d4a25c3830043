#include <quorvel/Version.h>

namespace quorvel {

const double QuorvelTrackerVersionNumber = 1.0;
const unsigned char QuorvelTrackerVersionString[] =
    "@(#)PROGRAM:QuorvelTracker  PROJECT:QuorvelLib-1\n";

}  // namespace quorvel
