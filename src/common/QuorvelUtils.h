// QuorvelUtils: stateless helpers used by every subsystem.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <quorvel/Json.h>
#include <quorvel/Platform.h>

#include "platform/Url.h"
#include "util/DateFormatter.h"

namespace quorvel {

class Log;

// The short-link domain of the service: links containing it are the library's own.
extern const char* const kHoplineSchema;

// Kinds of logRequestContent().
enum RequestContentKind : std::int64_t {
  kRequestLaunch = 0,
  kRequestEvent = 1,
  kRequestRegisterUninstall = 2,
  kRequestReceiptValidation = 3,
  kRequestStats = 4,
};

class QuorvelUtils {
 public:
  QuorvelUtils() = delete;

  // Removes null values from a dictionary (and from nested containers), in place.
  static void recursivelyRemoveNulls(Json& dictionary);
  static void recursivelyRemoveNullsFromArray(Json& array);

  // Lower-case hex of `length` bytes; zeroes each byte of `bytes` as it goes.
  static std::string toHexString(std::uint8_t* bytes, std::uint32_t length);
  static std::uint32_t getUTF8Length(const std::string& text);
  static std::string base64forData(const Bytes& data);

  // The store receipt: {"data": {"receipt-data": base64}} or {"data": "-1", "message": ...}.
  static Json getStoreReceipt(const Platform& platform, const Log& log);

  // Compact JSON text of a dictionary, or nullopt (logged) when it cannot be serialised.
  static std::optional<std::string> getJsonStringFromDictionary(const Json& dictionary,
                                                                const Log& log);
  static std::optional<Bytes> getJsonDataFromDictionary(const Json& dictionary, const Log& log);
  // The same text appended to `out`, a buffer the caller may reuse; false (logged, `out` as it
  // was) when the value cannot be written.
  static bool appendJsonData(const Json& dictionary, std::string& out, const Log& log);

  // One debug-level log entry showing an outgoing request, with a banner by `kind`.
  static void logRequestContent(std::int64_t kind, const std::string& url, const std::string& body,
                                const Log& log);

  // The query parameters of a URL (decoded), plus "path", "scheme" and "host" when present.
  static Json URLQueryParameters(const Url& url);

  static std::string sha1(const std::string& text);
  static std::string sha256(const std::string& text);
  static std::string md5(const std::string& text);

  // Which host framework the application is built with, by class lookup.
  static std::string develomentPlatformName(const platform::ClassRegistry& registry);

  // No cloud identity exists off the phone platform.
  static bool isICloudServiceEnabled() { return false; }

  // "yyyy-MM-dd_HHmmssZ" and "yyyy-MM-dd HH:mm:ss", locale en_US, the device's time zone.
  static QVDateFormatter getDateFormatter(std::shared_ptr<const platform::Clock> clock);
  static QVDateFormatter getDateFormatterForRemoteDebug(
      std::shared_ptr<const platform::Clock> clock);

  // No device test is made: callers receive a constant false.
  static bool isJailBreakon() { return false; }
  static bool isValidDeeplink(const std::optional<std::string>& link);
  // "/shortlink-sdk/v1/<id>?id=<code>" for one of the library's own short links.
  static std::optional<std::string> getHoplinePath(const Json& link);

  // True when `value` can be serialised as a JSON document (an object or array whose
  // numbers are finite, holding no bytes, with valid UTF-8 text).
  static bool isValidJSONObject(const Json& value);
};

// Compact JSON text of a dictionary; "" when it cannot be serialised.
std::string stringify(const Json& dictionary, const Log& log);

}  // namespace quorvel
