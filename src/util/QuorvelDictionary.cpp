#include "util/QuorvelDictionary.h"

#include <algorithm>

namespace quorvel {
namespace {

// A launch carries about 45 keys: room for them at once, not a vector grown by doubling.
constexpr std::size_t kUsualKeyCount = 64;

}  // namespace

QuorvelDictionary::QuorvelDictionary() {
  dict_.get_ref<Json::object_t&>().reserve(kUsualKeyCount);
}

void QuorvelDictionary::setParameter(std::optional<Json> value, std::string_view key) {
  Json stored = (value && !value->is_null()) ? std::move(*value) : Json("");
  auto& entries = dict_.get_ref<Json::object_t&>();
  const auto it = std::find_if(entries.begin(), entries.end(),
                               [key](const auto& entry) { return entry.first == key; });
  if (it != entries.end())
    it->second = std::move(stored);
  else
    entries.emplace_back(std::string(key), std::move(stored));
}

}  // namespace quorvel
