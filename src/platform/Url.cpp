#include "platform/Url.h"

#include <curl/curl.h>

#include <memory>

namespace quorvel {
namespace {

struct UrlHandleDeleter {
  void operator()(CURLU* h) const noexcept { curl_url_cleanup(h); }
};
using UrlHandle = std::unique_ptr<CURLU, UrlHandleDeleter>;

std::optional<std::string> part(CURLU* h, CURLUPart which) {
  char* value = nullptr;
  if (curl_url_get(h, which, &value, 0) != CURLUE_OK || value == nullptr) {
    return std::nullopt;
  }
  std::string out(value);
  curl_free(value);
  return out;
}

int hexValue(char c) {
  if (c >= '0' && c <= '9')
    return c - '0';
  if (c >= 'a' && c <= 'f')
    return c - 'a' + 10;
  if (c >= 'A' && c <= 'F')
    return c - 'A' + 10;
  return -1;
}

// True when the text after "scheme:" has an authority that is followed by a path.
bool hasExplicitPath(const std::string& text) {
  const std::size_t colon = text.find(':');
  if (colon == std::string::npos)
    return false;
  std::size_t rest = colon + 1;
  if (text.compare(rest, 2, "//") == 0) {
    const std::size_t end = text.find_first_of("/?#", rest + 2);
    return end != std::string::npos && text[end] == '/';
  }
  return rest < text.size() && text[rest] != '?' && text[rest] != '#';
}

}  // namespace

std::string percentDecode(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size()) {
      const int hi = hexValue(text[i + 1]);
      const int lo = hexValue(text[i + 2]);
      if (hi >= 0 && lo >= 0) {
        out.push_back(static_cast<char>(hi * 16 + lo));
        i += 2;
        continue;
      }
    }
    out.push_back(text[i]);
  }
  return out;
}

std::optional<Url> Url::parse(const std::string& text) {
  if (text.empty() || text.size() > 1'000'000) {
    return std::nullopt;
  }
  UrlHandle h(curl_url());
  if (!h) {
    return std::nullopt;
  }
  const unsigned flags = CURLU_NON_SUPPORT_SCHEME | CURLU_URLENCODE | CURLU_ALLOW_SPACE;
  if (curl_url_set(h.get(), CURLUPART_URL, text.c_str(), flags) != CURLUE_OK) {
    return std::nullopt;
  }
  Url url;
  auto full = part(h.get(), CURLUPART_URL);
  if (!full) {
    return std::nullopt;
  }
  url.absolute_ = *full;
  url.scheme_ = part(h.get(), CURLUPART_SCHEME);
  url.host_ = part(h.get(), CURLUPART_HOST);
  if (auto port = part(h.get(), CURLUPART_PORT)) {
    try {
      url.port_ = std::stoi(*port);
    } catch (...) {
    }
  }
  if (auto path = part(h.get(), CURLUPART_PATH); path && hasExplicitPath(text)) {
    url.path_ = percentDecode(*path);
  }
  url.query_ = part(h.get(), CURLUPART_QUERY);
  return url;
}

std::vector<std::string> Url::pathComponents() const {
  std::vector<std::string> parts;
  if (!path_ || path_->empty()) {
    return parts;
  }
  if ((*path_)[0] == '/') {
    parts.emplace_back("/");
  }
  std::size_t i = 0;
  while (i < path_->size()) {
    const std::size_t slash = path_->find('/', i);
    const std::size_t end = slash == std::string::npos ? path_->size() : slash;
    if (end > i) {
      parts.push_back(path_->substr(i, end - i));
    }
    i = end + 1;
  }
  return parts;
}

}  // namespace quorvel
