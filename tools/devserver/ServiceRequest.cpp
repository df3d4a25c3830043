#include "ServiceRequest.h"

#include <strings.h>

#include <algorithm>

namespace quorvel::devserver {

namespace {

int hexValue(char c) {
  if (c >= '0' && c <= '9')
    return c - '0';
  if (c >= 'a' && c <= 'f')
    return c - 'a' + 10;
  if (c >= 'A' && c <= 'F')
    return c - 'A' + 10;
  return -1;
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

std::vector<std::pair<std::string, std::string>> parseQuery(const std::string& query) {
  std::vector<std::pair<std::string, std::string>> pairs;
  std::size_t start = 0;
  while (start <= query.size()) {
    const std::size_t end = std::min(query.find('&', start), query.size());
    const std::string item = query.substr(start, end - start);
    if (!item.empty()) {
      const std::size_t eq = item.find('=');
      if (eq == std::string::npos)
        pairs.emplace_back(percentDecode(item), "");
      else
        pairs.emplace_back(percentDecode(item.substr(0, eq)), percentDecode(item.substr(eq + 1)));
    }
    start = end + 1;
  }
  return pairs;
}

std::optional<std::string> ServiceRequest::header(const std::string& name) const {
  for (const auto& [key, value] : headers) {
    if (strcasecmp(key.c_str(), name.c_str()) == 0)
      return value;
  }
  return std::nullopt;
}

std::optional<std::string> ServiceRequest::param(const std::string& name) const {
  for (auto& [key, value] : parseQuery(query)) {
    if (key == name)
      return value;
  }
  return std::nullopt;
}

nlohmann::ordered_json parseRequestJson(const std::string& text) {
  using Json = nlohmann::ordered_json;
  constexpr int kMaxDepth = 128;
  struct TooDeep {};
  // The parser itself is iterative; the callback only sees the depth and stops it early.
  const Json::parser_callback_t bound = [](int depth, Json::parse_event_t, Json&) {
    if (depth > kMaxDepth)
      throw TooDeep{};
    return true;
  };
  try {
    return Json::parse(text, bound, /*allow_exceptions=*/false);
  } catch (const TooDeep&) {
    return Json(Json::value_t::discarded);
  }
}

}  // namespace quorvel::devserver
