// The advertising identifier, reached by class name like an optional framework.
//
// A host that can read its platform's advertising identifier registers, under the class
// name "ASIdentifierManager", an object derived from AdvertisingIdentifierManagerClass.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include <quorvel/platform/ClassRegistry.h>

#pragma GCC visibility push(default)  // the public interface is what the library exports

namespace quorvel::platform {

class AdvertisingIdentifierManager {
 public:
  virtual ~AdvertisingIdentifierManager() = default;
  // The identifier as an upper-case UUID text; nullopt when there is none.
  virtual std::optional<std::string> advertisingIdentifier() = 0;
  virtual bool isAdvertisingTrackingEnabled() = 0;
};

class AdvertisingIdentifierManagerClass : public RegisteredClass {
 public:
  virtual std::shared_ptr<AdvertisingIdentifierManager> sharedManager() = 0;
};

}  // namespace quorvel::platform

#pragma GCC visibility pop
