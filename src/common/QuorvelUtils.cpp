#include "common/QuorvelUtils.h"

#include <openssl/evp.h>

#include <cmath>
#include <cstdio>
#include <stdexcept>
#include <vector>

#include "log/Log.h"
#include "util/Base64.h"
#include "util/CompactJson.h"
#include "util/Trim.h"
#include "util/Utf8.h"

namespace quorvel {

const char* const kHoplineSchema = "quorvel.link";

namespace {

std::string digestHex(const EVP_MD* md, const void* data, std::size_t size) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(data, size, digest, &length, md, nullptr) != 1) {
    return {};
  }
  std::string out;
  out.reserve(length * 2);
  for (unsigned int i = 0; i < length; ++i) {
    char hex[3];
    std::snprintf(hex, sizeof hex, "%02x", digest[i]);
    out += hex;
  }
  return out;
}

bool isRepresentable(const Json& value) {
  switch (value.type()) {
    case Json::value_t::binary:
    case Json::value_t::discarded:
      return false;
    case Json::value_t::number_float:
      return std::isfinite(value.get<double>());
    case Json::value_t::object:
      for (const auto& [k, v] : value.items()) {
        if (!isRepresentable(v))
          return false;
      }
      return true;
    case Json::value_t::array:
      for (const auto& v : value) {
        if (!isRepresentable(v))
          return false;
      }
      return true;
    default:
      return true;
  }
}

// Serialises like the platform's JSON writer: throws for values it cannot write.
std::string serialize(const Json& value) {
  if (!value.is_object() && !value.is_array()) {
    throw std::invalid_argument("Invalid top-level type in JSON write");
  }
  if (!isRepresentable(value)) {
    throw std::invalid_argument("Invalid type in JSON write");
  }
  // Host text is made valid where it enters; a bad byte from anywhere else (a device name,
  // say) still must not cost the report, so it is replaced rather than refused.
  std::string text;
  appendCompactJson(value, text);
  return text;
}

}  // namespace

void QuorvelUtils::recursivelyRemoveNulls(Json& dictionary) {
  if (!dictionary.is_object())
    return;
  std::vector<std::string> nullKeys;
  std::vector<std::string> dictKeys;
  std::vector<std::string> arrayKeys;
  for (const auto& [key, value] : dictionary.items()) {
    if (value.is_null())
      nullKeys.push_back(key);
    else if (value.is_object())
      dictKeys.push_back(key);
    else if (value.is_array())
      arrayKeys.push_back(key);
  }
  for (const auto& key : nullKeys)
    dictionary.erase(key);
  for (const auto& key : arrayKeys)
    recursivelyRemoveNullsFromArray(dictionary[key]);
  for (const auto& key : dictKeys)
    recursivelyRemoveNulls(dictionary[key]);
}

void QuorvelUtils::recursivelyRemoveNullsFromArray(Json& array) {
  if (!array.is_array())
    return;
  Json kept = Json::array();
  for (auto& element : array) {
    if (!element.is_null())
      kept.push_back(std::move(element));
  }
  array = std::move(kept);
  std::vector<std::size_t> dicts;
  std::vector<std::size_t> arrays;
  for (std::size_t i = 0; i < array.size(); ++i) {
    if (array[i].is_object())
      dicts.push_back(i);
    else if (array[i].is_array())
      arrays.push_back(i);
  }
  for (const auto i : arrays)
    recursivelyRemoveNullsFromArray(array[i]);
  for (const auto i : dicts)
    recursivelyRemoveNulls(array[i]);
}

std::string QuorvelUtils::toHexString(std::uint8_t* bytes, std::uint32_t length) {
  std::string out;
  out.reserve(std::size_t{length} * 2);
  for (std::uint32_t i = 0; i < length; ++i) {
    char hex[3];
    std::snprintf(hex, sizeof hex, "%02x", bytes[i]);
    out += hex;
    bytes[i] = 0;
  }
  return out;
}

std::uint32_t QuorvelUtils::getUTF8Length(const std::string& text) {
  return static_cast<std::uint32_t>(text.size());
}

std::string QuorvelUtils::base64forData(const Bytes& data) {
  return base64Encode(data);
}

Json QuorvelUtils::getStoreReceipt(const Platform& platform, const Log& log) {
  static constexpr const char* kMethod = "+[QuorvelUtils getStoreReceipt]";
  try {
    const auto path = platform.bundle->appStoreReceiptPath();
    log.trace(kMethod, "getStoreReceipt -> receiptUrl: %@", path);
    if (!path || !platform.fileSystem->fileExists(*path)) {
      return Json{{"data", "-1"}, {"message", "appStoreReceiptURL does not exists."}};
    }
    const auto content = platform.fileSystem->readFile(*path);
    if (!content) {
      throw std::runtime_error("could not read the receipt file " + *path);
    }
    return Json{{"data", Json{{"receipt-data", base64Encode(*content)}}}};
  } catch (const std::exception& e) {
    return Json{{"data", "-1"}, {"message", e.what()}};
  }
}

std::optional<std::string> QuorvelUtils::getJsonStringFromDictionary(const Json& dictionary,
                                                                     const Log& log) {
  try {
    return serialize(dictionary);
  } catch (const std::exception& e) {
    log.log(kLogError, "+[QuorvelUtils getJsonStringFromDictionary:]", "JSON parser failed ex = %@",
            e.what());
    return std::nullopt;
  }
}

std::optional<Bytes> QuorvelUtils::getJsonDataFromDictionary(const Json& dictionary,
                                                             const Log& log) {
  std::string text;
  if (!appendJsonData(dictionary, text, log))
    return std::nullopt;
  return Bytes(text.begin(), text.end());
}

bool QuorvelUtils::appendJsonData(const Json& dictionary, std::string& out, const Log& log) {
  static constexpr const char* kMethod = "+[QuorvelUtils getJsonDataFromDictionary:]";
  if (!isValidJSONObject(dictionary)) {
    log.log(kLogDebug, kMethod, "Cannot serialize: %@",
            FormatArg::described(dictionary.dump(-1, ' ', false, Json::error_handler_t::replace)));
    return false;
  }
  const std::size_t start = out.size();
  try {
    // Checked above: the text is written in one pass, without a second look at every value.
    appendCompactJson(dictionary, out);
    return true;
  } catch (const std::exception& e) {
    out.resize(start);
    log.trace(kMethod, "JSON Serialization failed: %@", e.what());
    return false;
  }
}

bool QuorvelUtils::isValidJSONObject(const Json& value) {
  return (value.is_object() || value.is_array()) && isRepresentable(value);
}

void QuorvelUtils::logRequestContent(std::int64_t kind, const std::string& url,
                                     const std::string& body, const Log& log) {
  const char* banner = "";
  switch (kind) {
    case kRequestLaunch:
      banner = "<~+~   SEND Track-App-Launch:   ";
      break;
    case kRequestEvent:
      banner = "<~+~   SEND Track-Event:   ";
      break;
    case kRequestRegisterUninstall:
      banner = "<~+~   SEND Register-Uninstall:   ";
      break;
    case kRequestReceiptValidation:
      banner = "<~+~   SEND Receipt-Validation:   ";
      break;
    case kRequestStats:
      banner = "<~+~   SEND Stats:   ";
      break;
    default:
      break;
  }
  static constexpr const char* kSeparator = "\n<~+~+~+~+~+~+~+~+~+~+~+~+~+~+~+~+~+~+~~+~>\n";
  if (!log.debugWanted())
    return;
  const std::string text = format("\n%@%@%@%@\n%@", kSeparator, banner, url, kSeparator, body);
  log.log(kLogDebug, "+[QuorvelUtils logRequestContent:url:body:]", "%@\n%@", text, kSeparator);
}

Json QuorvelUtils::URLQueryParameters(const Url& url) {
  Json params = Json::object();
  if (const auto& query = url.query()) {
    std::size_t start = 0;
    while (start <= query->size()) {
      const std::size_t amp = query->find('&', start);
      const std::size_t end = amp == std::string::npos ? query->size() : amp;
      const std::string piece = query->substr(start, end - start);
      const std::size_t eq = piece.find('=');
      if (eq != std::string::npos) {
        const std::size_t eq2 = piece.find('=', eq + 1);
        const std::string value =
            piece.substr(eq + 1, eq2 == std::string::npos ? std::string::npos : eq2 - eq - 1);
        params[percentDecode(piece.substr(0, eq))] = percentDecode(value);
      }
      if (amp == std::string::npos)
        break;
      start = amp + 1;
    }
  }
  if (url.path() && !url.path()->empty())
    params["path"] = *url.path();
  if (url.scheme())
    params["scheme"] = *url.scheme();
  if (url.host() && !url.host()->empty())
    params["host"] = *url.host();
  return params;
}

std::string QuorvelUtils::sha1(const std::string& text) {
  const std::size_t length = std::min(utf16Length(text), text.size());
  return digestHex(EVP_sha1(), text.data(), length);
}

std::string QuorvelUtils::sha256(const std::string& text) {
  unsigned char digest[32];
  unsigned int length = 0;
  if (EVP_Digest(text.data(), getUTF8Length(text), digest, &length, EVP_sha256(), nullptr) != 1) {
    return {};
  }
  return toHexString(digest, 32);
}

std::string QuorvelUtils::md5(const std::string& text) {
  const std::size_t zero = text.find('\0');
  const std::size_t length = zero == std::string::npos ? text.size() : zero;
  return digestHex(EVP_md5(), text.data(), length);
}

std::string QuorvelUtils::develomentPlatformName(const platform::ClassRegistry& registry) {
  static constexpr std::pair<const char*, const char*> kFrameworks[] = {
      {"UnityAppController", "iOS_Unity"},
      {"SEGAnalytics", "iOS_Segment"},
      {"RCTView", "iOS_ReactNative"},
      {"CDVViewController", "iOS_Cordova"},
  };
  for (const auto& [className, name] : kFrameworks) {
    if (registry.classNamed(className))
      return name;
  }
  return "iOS_Native";
}

QVDateFormatter QuorvelUtils::getDateFormatter(std::shared_ptr<const platform::Clock> clock) {
  return QVDateFormatter("yyyy-MM-dd_HHmmssZ", std::move(clock));
}

QVDateFormatter QuorvelUtils::getDateFormatterForRemoteDebug(
    std::shared_ptr<const platform::Clock> clock) {
  return QVDateFormatter("yyyy-MM-dd HH:mm:ss", std::move(clock));
}

bool QuorvelUtils::isValidDeeplink(const std::optional<std::string>& link) {
  return link && !trimBlanksAndTabs(*link).empty();
}

std::optional<std::string> QuorvelUtils::getHoplinePath(const Json& link) {
  if (!link.is_string())
    return std::nullopt;
  const auto& text = link.get_ref<const std::string&>();
  if (text.find(kHoplineSchema) == std::string::npos)
    return std::nullopt;
  const auto url = Url::parse(text);
  if (!url)
    return std::nullopt;
  const auto components = url->pathComponents();
  if (components.size() != 3)
    return std::nullopt;
  return format("/shortlink-sdk/v1/%@?id=%@", components[1], components[2]);
}

std::string stringify(const Json& dictionary, const Log& log) {
  try {
    return serialize(dictionary);
  } catch (const std::exception&) {
    // The writer raised: the message carries no error object.
    log.log(kLogError, "-[NSDictionary(QuorvelStringify) stringify]",
            "Error serializing JSON for stringify %@", nullptr);
    return {};
  }
}

}  // namespace quorvel
