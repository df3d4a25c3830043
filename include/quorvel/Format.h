// printf-style formatting with the "%@" conversion (the description of a value).
//
// Every log line and every format-built text of the library goes through format(). The
// supported conversions are %@ %s %d %i %u %ld %lu %lld %llu %zu %x %X %c %f %e %g and %%,
// with flags, width and precision. A mismatched argument never causes undefined
// behaviour: it is converted as well as it can be.
#pragma once

#include <chrono>
#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>

#include <quorvel/Error.h>
#include <quorvel/Json.h>

#pragma GCC visibility push(default)  // the public interface is what the library exports

namespace quorvel {

// One argument of format(). Holds a view or a small value; it must not outlive the call.
class FormatArg {
 public:
  struct Nil {};
  using Value = std::variant<Nil, std::int64_t, std::uint64_t, double, bool, std::string_view,
                             const Json*, std::string>;

  FormatArg() : value_(Nil{}) {}
  FormatArg(std::nullptr_t) : value_(Nil{}) {}
  FormatArg(bool b) : value_(b) {}
  template <std::signed_integral T>
  requires(!std::same_as<T, bool> && !std::same_as<T, char>) FormatArg(T v)
      : value_(static_cast<std::int64_t>(v)) {}
  template <std::unsigned_integral T>
  requires(!std::same_as<T, bool>) FormatArg(T v) : value_(static_cast<std::uint64_t>(v)) {}
  FormatArg(char c) : value_(static_cast<std::int64_t>(c)) {}
  FormatArg(double v) : value_(v) {}
  FormatArg(float v) : value_(static_cast<double>(v)) {}
  FormatArg(const char* s) : value_(s ? Value(std::string_view(s)) : Value(Nil{})) {}
  FormatArg(std::string_view s) : value_(s) {}
  FormatArg(const std::string& s) : value_(std::string_view(s)) {}
  FormatArg(const Json& j) : value_(&j) {}
  FormatArg(const Error& e) : value_(e.description()) {}
  template <typename T>
  FormatArg(const std::optional<T>& o) : FormatArg(o ? FormatArg(*o) : FormatArg()) {}
  // A date prints as "yyyy-MM-dd HH:mm:ss +0000" (UTC), as a date's description does.
  FormatArg(std::chrono::system_clock::time_point t);

  // A value that is neither of the above prints through its description text.
  static FormatArg described(std::string text) {
    FormatArg a;
    a.value_ = std::move(text);
    return a;
  }

  const Value& value() const noexcept { return value_; }

 private:
  Value value_;
};

// Formats `format` with `args`. Missing arguments print as "(null)" or 0.
std::string formatArgs(std::string_view format, std::initializer_list<FormatArg> args);

template <typename... A>
std::string format(std::string_view fmt, const A&... args) {
  return formatArgs(fmt, {FormatArg(args)...});
}

// The description of a value, as "%@" prints it: a string as itself, a number in decimal,
// containers as compact JSON, nil as "(null)".
std::string describe(const FormatArg& arg);

}  // namespace quorvel

#pragma GCC visibility pop
