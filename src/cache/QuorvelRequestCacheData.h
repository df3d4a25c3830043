// QuorvelRequestCacheData: one tracking request, the unit of sending and caching.
#pragma once

#include <optional>
#include <string>

#include <quorvel/Json.h>

namespace quorvel {

class QuorvelRequestCacheData {
 public:
  QuorvelRequestCacheData() = default;
  // The misspelt label is the established name of this constructor's third argument.
  QuorvelRequestCacheData(std::string url, Bytes post, std::string verion);

  const std::optional<std::string>& sdkVersion() const noexcept { return sdkVersion_; }
  const std::optional<Bytes>& postData() const noexcept { return postData_; }
  const std::optional<std::string>& postDataAsString() const noexcept { return postDataAsString_; }
  const std::optional<std::string>& requestURL() const noexcept { return requestURL_; }
  const std::optional<std::string>& cacheKey() const noexcept { return cacheKey_; }
  // A copy sent before may have reached the service (its transfer failed after it was made,
  // or its process ended with it on the wire): the next copy is a repeat.
  bool mayHaveReached() const noexcept { return mayHaveReached_; }
  // Built now with a launch counter (a launch, or its attribution twin): kept in memory only,
  // so that the outbox knows such a counter leaves.
  bool carriesLaunchCounter() const noexcept { return carriesLaunchCounter_; }

  void setSdkVersion(std::optional<std::string> v) { sdkVersion_ = std::move(v); }
  // Does not refresh postDataAsString.
  void setPostData(std::optional<Bytes> v) { postData_ = std::move(v); }
  void setPostDataAsString(std::optional<std::string> v) { postDataAsString_ = std::move(v); }
  void setRequestURL(std::optional<std::string> v) { requestURL_ = std::move(v); }
  void setCacheKey(std::optional<std::string> v) { cacheKey_ = std::move(v); }
  void setMayHaveReached(bool v) noexcept { mayHaveReached_ = v; }
  void setCarriesLaunchCounter(bool v) noexcept { carriesLaunchCounter_ = v; }

  friend bool operator==(const QuorvelRequestCacheData&, const QuorvelRequestCacheData&) = default;

  // Decodes strict Base64; anything else (blanks included) leaves postData unset.
  void stringToPostData(const std::string& text);

 private:
  std::optional<std::string> sdkVersion_;
  std::optional<Bytes> postData_;
  std::optional<std::string> postDataAsString_;
  std::optional<std::string> requestURL_;
  std::optional<std::string> cacheKey_;
  bool mayHaveReached_ = false;
  bool carriesLaunchCounter_ = false;
};

// Strict Base64: only the alphabet, "=" padding at the end, a length multiple of four.
std::optional<Bytes> base64DecodeStrict(const std::string& text);

}  // namespace quorvel
