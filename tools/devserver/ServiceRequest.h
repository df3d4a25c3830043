// A request as the emulator sees it and the answer it gives, free of any HTTP library, so
// that the request handling can be exercised without sockets.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace quorvel::devserver {

struct ServiceRequest {
  std::string method;
  std::string host;   // the Host header, port included
  std::string path;   // decoded path
  std::string query;  // raw query, without "?"
  std::multimap<std::string, std::string> headers;
  std::string body;

  // Header value by case-insensitive name.
  std::optional<std::string> header(const std::string& name) const;
  // Query parameter, percent-decoded; "+" stays "+" (the library never sends forms).
  std::optional<std::string> param(const std::string& name) const;
};

struct ServiceResponse {
  int status = 200;
  std::string contentType = "application/json";
  std::string body;
  // What the emulator made of the request, for its record and log.
  std::string note;
  std::optional<int> retryAfterSeconds;  // sent as Retry-After
};

// Splits "a=1&b=x%20y" into decoded pairs, in order.
std::vector<std::pair<std::string, std::string>> parseQuery(const std::string& query);
std::string percentDecode(const std::string& text);

// Request text parsed as JSON, or a discarded value when it is not JSON or nests deeper
// than 128 levels: a client must not be able to make the emulator recurse without bound
// when it records, prints or answers.
nlohmann::ordered_json parseRequestJson(const std::string& text);

}  // namespace quorvel::devserver
