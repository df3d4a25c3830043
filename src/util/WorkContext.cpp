#include "util/WorkContext.h"

namespace quorvel {
namespace {
thread_local WorkContext tCurrent;
}  // namespace

WorkContext currentWorkContext() {
  return tCurrent;
}

WorkContextScope::WorkContextScope(WorkContext context) : previous_(std::move(tCurrent)) {
  tCurrent = std::move(context);
}

WorkContextScope::~WorkContextScope() {
  tCurrent = std::move(previous_);
}

}  // namespace quorvel
