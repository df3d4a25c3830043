// A parsed URL, read as a lenient parser reads typed input: blanks and bytes beyond ASCII are
// escaped, "." and ".." segments resolved, an empty path is "/".
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace quorvel {

class Url {
 public:
  // nullopt when `text` is not a URL with a scheme. Non-ASCII and blank characters are
  // accepted and percent-escaped, as a platform URL parser does for user input.
  static std::optional<Url> parse(const std::string& text);

  const std::string& absoluteString() const noexcept { return absolute_; }
  const std::optional<std::string>& scheme() const noexcept { return scheme_; }
  const std::optional<std::string>& host() const noexcept { return host_; }
  const std::optional<int>& port() const noexcept { return port_; }
  // The path with percent escapes decoded; nullopt when the URL has none.
  const std::optional<std::string>& path() const noexcept { return path_; }
  // The query as written (still escaped), without "?"; nullopt when there is none.
  const std::optional<std::string>& query() const noexcept { return query_; }
  // "/" followed by each non-empty segment of the path.
  std::vector<std::string> pathComponents() const;

  friend bool operator==(const Url& a, const Url& b) { return a.absolute_ == b.absolute_; }

 private:
  std::string absolute_;
  std::optional<std::string> scheme_;
  std::optional<std::string> host_;
  std::optional<int> port_;
  std::optional<std::string> path_;
  std::optional<std::string> query_;
};

// Decodes %XX escapes; an invalid escape is kept as written.
std::string percentDecode(const std::string& text);

}  // namespace quorvel
