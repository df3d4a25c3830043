// The error object handed to completions and delegate callbacks.
#pragma once

#include <cstdint>
#include <string>

#pragma GCC visibility push(default)  // the public interface is what the library exports

namespace quorvel {

struct Error {
  std::string domain;
  std::int64_t code = 0;
  std::string localizedDescription;

  // "Error Domain=<domain> Code=<code> "<description>"", the text a log line shows.
  std::string description() const;

  friend bool operator==(const Error&, const Error&) = default;
};

}  // namespace quorvel

#pragma GCC visibility pop
