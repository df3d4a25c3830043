// The application's preferences: a persistent key-value map of typed values.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <quorvel/Json.h>
#include <quorvel/platform/Clock.h>

#pragma GCC visibility push(default)  // the public interface is what the library exports

namespace quorvel::platform {

// Values are Json: numbers, strings, dictionaries and arrays as themselves, bytes as a Json
// binary value, dates through setDate/dateForKey. All members are safe from any thread.
class PreferencesStore {
 public:
  PreferencesStore() = default;
  PreferencesStore(const PreferencesStore&) = delete;
  PreferencesStore& operator=(const PreferencesStore&) = delete;
  virtual ~PreferencesStore() = default;

  virtual std::optional<Json> objectForKey(std::string_view key) const = 0;
  // Storing a null Json removes the key, as storing nil does.
  virtual void setObject(std::string_view key, Json value) = 0;
  virtual void removeObjectForKey(std::string_view key) = 0;
  // Removes every key, and whatever an interrupted write left behind: the store is the
  // library's own, one per app. False when the store cannot (the library then removes the
  // keys it knows one by one).
  virtual bool removeAllObjects() { return false; }
  // Writes pending changes to durable storage now. False when that failed.
  virtual bool synchronize() = 0;

  // Typed reads with the platform's coercions: a number read as a string gives its decimal
  // text, a string read as a number gives its leading number, anything else gives the
  // empty value (nullopt, 0, false).
  std::optional<std::string> stringForKey(std::string_view key) const;
  std::int64_t integerForKey(std::string_view key) const;
  double doubleForKey(std::string_view key) const;
  bool boolForKey(std::string_view key) const;
  std::optional<TimePoint> dateForKey(std::string_view key) const;

  void setInteger(std::string_view key, std::int64_t value) { setObject(key, Json(value)); }
  void setDouble(std::string_view key, double value) { setObject(key, Json(value)); }
  void setBool(std::string_view key, bool value) { setObject(key, Json(value)); }
  void setString(std::string_view key, std::string value) {
    setObject(key, Json(std::move(value)));
  }
  void setDate(std::string_view key, TimePoint value) { setObject(key, dateValue(value)); }

  // The Json form of a date: {"$date": seconds since 1970}.
  static Json dateValue(TimePoint value);
  static std::optional<TimePoint> asDate(const Json& value);
};

}  // namespace quorvel::platform

#pragma GCC visibility pop
