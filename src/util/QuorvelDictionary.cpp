#include "util/QuorvelDictionary.h"

namespace quorvel {

void QuorvelDictionary::setParameter(const std::optional<Json>& value, const std::string& key) {
  dict_[key] = (value && !value->is_null()) ? *value : Json("");
}

}  // namespace quorvel
