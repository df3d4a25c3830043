// Uninstall measurement: the push token, registered once per token.
#include <quorvel/Version.h>
#include "tracker/TrackerCore.h"

#include "common/QuorvelUtils.h"
#include "device/QVSystemInfo.h"
#include "log/Log.h"
#include "net/QuorvelHTTPClient.h"
#include "net/ReportLedger.h"
#include "tracker/TrackerLifetime.h"
#include "util/PreferenceKeys.h"

namespace quorvel {

std::string TrackerCore::deviceTokenText(const Bytes& deviceToken) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string text = "<";
  for (std::size_t i = 0; i < deviceToken.size(); ++i) {
    if (i > 0 && i % 4 == 0)
      text.push_back(' ');
    text.push_back(kHex[deviceToken[i] >> 4U]);
    text.push_back(kHex[deviceToken[i] & 0xFU]);
  }
  text.push_back('>');
  return text;
}

void TrackerCore::registerUninstall(const Bytes& deviceToken) {
  const std::string text = deviceTokenText(deviceToken);
  auto& prefs = *platform_->preferences;
  if (prefs.stringForKey(keys::kDeviceToken) == text)
    return;
  // Stored before sending: a failed registration is not repeated for the same token.
  prefs.setString(keys::kDeviceToken, text);
  prefs.synchronize();
  std::string bare;
  for (const char c : text) {
    if (c != ' ' && c != '<' && c != '>')
      bare.push_back(c);
  }
  auto self = self_;
  mBackgroundQueue_->asyncAfter(std::chrono::milliseconds(3500),
                                carryReport(ledger_->open(), [self, bare] {
                                  if (const auto tracker = self->pin())
                                    tracker->backgroundRegisterUninstall(bare);
                                }));
}

void TrackerCore::backgroundRegisterUninstall(const std::string& deviceToken) {
  static constexpr const char* kMethod = "-[QuorvelTracker backgroundRegisterUninstall:]";
  try {
    const Platform& p = *platform_;
    const std::string url = format("https://register.%@/api/v%@/iosevent?buildnumber=%@&app_id=%@",
                                   host(), kQuorvelAPIVersion, kQuorvelSDKVersion, appleAppID());
    log_->log(kLogDebug, kMethod, "calling register Uninstall: %@ (with token: %@)", url,
              deviceToken);
    auto& prefs = *p.preferences;
    const auto installDate = getInstallDate(QuorvelUtils::getDateFormatter(p.clock));
    const auto original = prefs.stringForKey(keys::kOriginalUserId);
    const auto reinstalls = prefs.integerForKey(keys::kReInstallCounter);
    const auto required = [](const std::optional<std::string>& v, const char* key) {
      if (!v)
        throw std::invalid_argument(
            std::string("*** setObjectForKey: object cannot be nil (key: ") + key + ")");
      return *v;
    };
    const auto infoString = [&](const char* key) -> std::optional<std::string> {
      const auto v = p.bundle->objectForInfoDictionaryKey(key);
      if (!v || !v->is_string())
        return std::nullopt;
      return v->get<std::string>();
    };
    Json body = Json::object();
    body["devkey"] = required(quorvelDevKey(), "devkey");
    body["uid"] = getQuorvelUID();
    body["devicetoken"] = deviceToken;
    body["launch_counter"] = format("%d", getCounter(false));
    body["topic"] = required(p.bundle->bundleIdentifier(), "topic");
    body["install_date"] = installDate.value_or(std::string());
    body["advertiserId"] = advertiserId();
    body["OriginalQuorvelId"] = original.value_or(std::string());
    body["reInstallCounter"] = reinstalls;
    body["sdk_version"] = kQuorvelSDKVersion;
    body["useDevelopment"] = useUninstallSandbox();
    body["bundleversion"] = required(infoString("CFBundleVersion"), "bundleversion");
    const Json name = getValueFromBundle("CFBundleDisplayName");
    body["bundlename"] = name.is_string() ? name : Json("");
    body["shortbundleversion"] =
        required(infoString("CFBundleShortVersionString"), "shortbundleversion");
    body["vendorId"] = required(p.device->identifierForVendor(), "vendorId");
    body["wifi"] = isWifiAvailable() ? "true" : "false";
    body["deviceData"] = QVSystemInfo::getSystemInfo(p);
    if (const auto customer = customerUserID())
      body["appUID"] = *customer;
    if (deviceTrackingDisabled())
      body["deviceTrackingDisabled"] = "true";
    const auto text = QuorvelUtils::getJsonStringFromDictionary(body, *log_);
    if (!text)
      throw std::invalid_argument("the registration body cannot be written as JSON");
    QuorvelUtils::logRequestContent(kRequestRegisterUninstall, url, *text, *log_);
    httpClient_->sendRequestWithConfiguration(url, *text);
  } catch (const std::exception& e) {
    log_->log(kLogDebug, kMethod, "Register uninstall exception: %@", e.what());
  }
}

void TrackerCore::didFinishDownloadingToPath(platform::URLSessionTask& task,
                                             const std::string& /*path*/) {
  static constexpr const char* kDelegate =
      "-[QuorvelTracker URLSession:downloadTask:didFinishDownloadingToURL:]";
  if (remoteDebugging_.isRemoteDebugging() && !task.originalRequest().url.empty()) {
    log_->log(kLogDebug, kDelegate, "Response 200 ok on URL: %@", task.originalRequest().url);
  } else {
    log_->log(kLogDebug, kDelegate, "Response 200 ok.");
  }
}

}  // namespace quorvel
