// Search Ads attribution, reached by class name like an optional framework.
//
// A host that can ask its store for Search Ads attribution registers, under the class name
// "ADClient", an object derived from SearchAdsClientClass. Without one, the library reports
// "ADClient not loaded".
#pragma once

#include <functional>
#include <memory>
#include <optional>

#include <quorvel/Error.h>
#include <quorvel/Json.h>
#include <quorvel/platform/ClassRegistry.h>

#pragma GCC visibility push(default)  // the public interface is what the library exports

namespace quorvel::platform {

using AttributionDetailsHandler =
    std::function<void(const std::optional<Json>& details, const std::optional<Error>& error)>;

class SearchAdsClient {
 public:
  virtual ~SearchAdsClient() = default;
  // Asks for the install's attribution details; the handler runs once, on any thread. An
  // error with code 0 means "not available yet".
  virtual void requestAttributionDetailsWithBlock(AttributionDetailsHandler handler) = 0;
};

class SearchAdsClientClass : public RegisteredClass {
 public:
  // The shared client; nullptr when the framework cannot answer requests.
  virtual std::shared_ptr<SearchAdsClient> sharedClient() = 0;
};

}  // namespace quorvel::platform

#pragma GCC visibility pop
