// A tracking request with its body's Base64 form, the text a kept file stores it in, and the
// strict decoding that refuses a body damaged on disk.
#include "cache/QuorvelRequestCacheData.h"

#include "util/Base64.h"

namespace quorvel {

QuorvelRequestCacheData::QuorvelRequestCacheData(std::string url, Bytes post, std::string verion)
    : sdkVersion_(std::move(verion)), postData_(std::move(post)), requestURL_(std::move(url)) {
  postDataAsString_ = base64Encode(*postData_);
}

void QuorvelRequestCacheData::stringToPostData(const std::string& text) {
  postData_ = base64DecodeStrict(text);
}

std::optional<Bytes> base64DecodeStrict(const std::string& text) {
  if (text.size() % 4 != 0)
    return std::nullopt;
  std::size_t padding = 0;
  while (padding < 2 && padding < text.size() && text[text.size() - 1 - padding] == '=')
    ++padding;
  for (std::size_t i = 0; i < text.size() - padding; ++i) {
    const char c = text[i];
    const bool alphabet = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
                          (c >= '0' && c <= '9') || c == '+' || c == '/';
    if (!alphabet)
      return std::nullopt;
  }
  return base64DecodeLenient(text);
}

}  // namespace quorvel
