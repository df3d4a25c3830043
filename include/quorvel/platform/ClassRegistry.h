// Run-time lookup of optional components by class name.
//
// The library asks for a few classes by name (host framework markers, the advertising
// identifier, the Search Ads client). Hosts and wrappers register what they provide; an
// entry is any object derived from RegisteredClass, cast by the asker to the interface it
// expects.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#pragma GCC visibility push(default)  // the public interface is what the library exports

namespace quorvel::platform {

class RegisteredClass {
 public:
  virtual ~RegisteredClass() = default;
};

// An entry whose presence is all that matters (a framework marker).
class ClassMarker final : public RegisteredClass {};

class ClassRegistry {
 public:
  ClassRegistry() = default;
  ClassRegistry(const ClassRegistry&) = delete;
  ClassRegistry& operator=(const ClassRegistry&) = delete;
  virtual ~ClassRegistry() = default;

  virtual void registerClass(std::string name, std::shared_ptr<RegisteredClass> entry) = 0;
  virtual void unregisterClass(std::string_view name) = 0;
  // nullptr when no class of that name exists. Any thread.
  virtual std::shared_ptr<RegisteredClass> classNamed(std::string_view name) const = 0;
};

}  // namespace quorvel::platform

#pragma GCC visibility pop
