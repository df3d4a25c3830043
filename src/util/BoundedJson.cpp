#include "util/BoundedJson.h"

#include <utility>
#include <vector>

namespace quorvel {

std::size_t jsonTextDepth(std::string_view text, std::size_t limit) noexcept {
  std::size_t depth = 0;
  std::size_t deepest = 0;
  bool inString = false;
  bool escaped = false;
  for (const char c : text) {
    if (inString) {
      if (escaped)
        escaped = false;
      else if (c == '\\')
        escaped = true;
      else if (c == '"')
        inString = false;
      continue;
    }
    switch (c) {
      case '"':
        inString = true;
        break;
      case '[':
      case '{':
        if (++depth > deepest) {
          deepest = depth;
          if (deepest > limit)
            return deepest;
        }
        break;
      case ']':
      case '}':
        if (depth > 0)
          --depth;
        break;
      default:
        break;
    }
  }
  return deepest;
}

Json parseBoundedJson(std::string_view text, std::size_t limit) {
  if (jsonTextDepth(text, limit) > limit)
    return discardedJson();
  return Json::parse(text.begin(), text.end(), nullptr, /*allow_exceptions=*/false);
}

bool jsonDeeperThan(const Json& value, std::size_t limit) noexcept {
  // Explicit stack of (value, depth) pairs; a container counts one level.
  try {
    std::vector<std::pair<const Json*, std::size_t>> pending{{&value, 0}};
    while (!pending.empty()) {
      const auto [node, depth] = pending.back();
      pending.pop_back();
      if (!node->is_structured())
        continue;
      if (depth + 1 > limit)
        return true;
      for (const auto& child : *node)
        pending.emplace_back(&child, depth + 1);
    }
    return false;
  } catch (...) {
    return true;
  }
}

}  // namespace quorvel
