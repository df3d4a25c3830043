// The payload that every launch and event request carries.
#include <quorvel/Version.h>
#include <quorvel/platform/AdSupport.h>
#include "tracker/TrackerCore.h"

#include "net/ReportLedger.h"

#include <array>
#include <charconv>
#include <cstdlib>

#include "common/QuorvelUtils.h"
#include "device/QVSystemInfo.h"
#include "log/Log.h"
#include "net/QuorvelHTTPClient.h"
#include "platform/Url.h"
#include "tracker/TrackerLifetime.h"
#include "util/PreferenceKeys.h"
#include "util/QuorvelDictionary.h"

namespace quorvel {
namespace {

constexpr const char* kPayloadMethod = "-[QuorvelTracker getEventParameters:]";

// The advertising-identifier manager's class name, put together at run time so that no
// literal of it is linked in; once per process.
const std::string& advertisingManagerClassName() {
  static const std::string name =
      format("%@%c%@%c%c%c%c%c%@%c%c%c%c%c%c%c%c%c%c", "A", 83, "I", 100, 101, 110, 116, 105, "f",
             105, 101, 114, 77, 97, 110, 97, 103, 101, 114);
  return name;
}

// "%f" of a number of seconds without the printf machinery: six decimals, the same digits.
std::string secondsText(double seconds) {
  std::array<char, 64> text{};
  const auto written =
      std::to_chars(text.data(), text.data() + text.size(), seconds, std::chars_format::fixed, 6);
  if (written.ec != std::errc())
    return format("%f", seconds);
  return std::string(text.data(), written.ptr);
}

std::optional<std::string> stringValue(const std::optional<Json>& v) {
  if (!v || !v->is_string())
    return std::nullopt;
  return v->get<std::string>();
}

}  // namespace

void TrackerCore::setDeeplink(std::optional<std::string> url) {
  write(deeplink_, std::move(url));
}
void TrackerCore::setSourceApplication(std::optional<std::string> application) {
  write(sourceApplication_, std::move(application));
}
std::optional<Json> TrackerCore::pushPayload() const {
  return read(pushPayload_);
}
void TrackerCore::setPushPayload(std::optional<Json> payload) {
  write(pushPayload_, std::move(payload));
}

QuorvelDictionary TrackerCore::getEventParameters(bool isLaunch) {
  const Platform& p = *platform_;
  auto& prefs = *p.preferences;

  // 1. The install time, stamped once and kept out of the payload.
  if (!prefs.objectForKey(keys::kInstallTimestamp)) {
    prefs.setString(keys::kInstallTimestamp,
                    format("%f", platform::secondsSince1970(p.clock->now())));
  }

  // 2. Keys 1 to 15.
  QuorvelDictionary d;
  d.setParameter(Json(getQuorvelUID()), "uid");
  d.setParameter(Json(kQuorvelAPIVersion), "serverApiVersion");
  if (shouldCollectDeviceName())
    d.setParameter(Json(p.device->name()), "name");
  d.setParameter(Json(p.device->systemName()), "systemname");
  d.setParameter(Json(p.device->systemVersion()), "systemversion");
  d.setParameter(Json(p.device->model()), "model");
  d.setParameter(Json(p.device->localizedModel()), "localizedmodel");
  const auto machine = QVSystemInfo::machineModel(*p.sysctl);
  d.setParameter(machine ? Json(*machine) : Json(), "platform");
  d.setParameter(Json(platfromDevName()), "platformextension");
  d.setParameter(Json(std::to_string(getCounter(isLaunch))), "counter");
  d.setParameter(Json(std::to_string(getRealLaunchCounter())), "sessioncounter");
  d.setParameter(Json(std::to_string(getInAppCounter(!isLaunch))), "iaecounter");
  const auto devKey = quorvelDevKey();
  d.setParameter(devKey ? Json(*devKey) : Json(), "dev_key");
  d.setParameter(QVSystemInfo::getSystemInfo(p), "deviceData");
  d.setParameter(Json("1"), "qv_events_api");

  // 3. Launches only: time since the last launch, the pending deep link and push payload.
  if (isLaunch) {
    d.setParameter(Json(secondsText(getTimePassedSinceLastLaunch())), "timepassedsincelastlaunch");
    deepLinkStep(d);
    pushPayloadStep(d);
  }

  // 4-6.
  if (deviceTrackingDisabled())
    d.setParameter(Json("true"), "deviceTrackingDisabled");
  log_->trace(kPayloadMethod, "disableAppleAdSupportTracking: %@",
              disableAppleAdSupportTracking() ? "true" : "false");
  advertisingIdentifierStep(d);

  // 7. Keys 22 to 24.
  const auto bundleIdentifier = p.bundle->bundleIdentifier();
  d.setParameter(bundleIdentifier ? Json(*bundleIdentifier) : Json(), "bundleIdentifier");
  if (const auto vendor = p.device->identifierForVendor())
    d.setParameter(Json(*vendor), "vendorId");
  if (const auto currency = currencyCode()) {
    if (currency->size() != 3) {
      log_->log(
          kLogWarning, kPayloadMethod,
          "Quorvel WARNING: currency code should be 3 characters!!! '%@' is not a legal value.",
          *currency);
    }
    d.setParameter(Json(*currency), "currency");
  }

  // 8. Keys 25 to 27.
  const auto bundleVersion = p.bundle->objectForInfoDictionaryKey("CFBundleVersion");
  d.setParameter(bundleVersion, "bundleversion");
  d.setParameter(getValueFromBundle("CFBundleDisplayName"), "bundlename");
  d.setParameter(getValueFromBundle("CFBundleShortVersionString"), "shortbundleversion");

  // 9. Dates.
  const auto formatter = QuorvelUtils::getDateFormatter(p.clock);
  const auto date1 = getInstallDate(formatter);
  const auto tmpModified = temporaryDirectoryDate();
  const std::optional<std::string> date2 =
      tmpModified ? std::optional<std::string>(formatter.stringFromDate(*tmpModified))
                  : std::nullopt;
  log_->log(kLogDebug, kPayloadMethod, "Looking for previous version date.");
  const auto date3 = getVersionUpdateDate(stringValue(bundleVersion), date2);
  log_->log(kLogDebug, kPayloadMethod, "date1= %@", date1);
  log_->log(kLogDebug, kPayloadMethod, "date2= %@", date2);
  log_->log(kLogDebug, kPayloadMethod, "date3= %@", date3);
  const std::string firstLaunch = getFirstLanuchDate(formatter);
  d.setParameter(date1 ? Json(*date1) : Json(), "date1");
  d.setParameter(date2 ? Json(*date2) : Json(), "date2");
  d.setParameter(date3 ? Json(*date3) : Json(), "date3");
  d.setParameter(Json(firstLaunch), "firstLaunchDate");

  // 10. Pasteboard attribution, only where the system still has it.
  if (p.device->capabilities().attributionPasteboard && p.application) {
    if (const auto text = p.application->namedPasteboardText("fb_app_attribution")) {
      d.setParameter(Json(*text), "fb");
    }
  }

  // 11. Keys 33 to 37.
  const auto languages = p.locale->preferredLanguages();
  d.setParameter(languages.empty() ? Json() : Json(languages.front()), "currentLanguage");
  const auto language = p.locale->languageCode();
  d.setParameter(language ? Json(*language) : Json(), "lang_code");
  const auto country = p.locale->countryCode();
  d.setParameter(country ? Json(*country) : Json(), "currentCountrycode");
  // The moment of the host's call, not of the build: under a burst a build waits its turn.
  const auto report = ReportLedger::current();
  const auto callTime = report ? report->callTime() : std::nullopt;
  d.setParameter(Json(secondsText(platform::secondsSince1970(callTime.value_or(p.clock->now())))),
                 "timestamp");
  if (const auto customer = customerUserID())
    d.setParameter(Json(*customer), "appUID");

  // 12. Custom data, under the tracker's lock.
  {
    std::lock_guard lock(monitor_);
    if (customData_) {
      const auto text = customData_->is_object() && QuorvelUtils::isValidJSONObject(*customData_)
                            ? QuorvelUtils::getJsonStringFromDictionary(*customData_, *log_)
                            : std::nullopt;
      if (text) {
        d.setParameter(Json(*text), "customData");
      } else {
        log_->log(kLogWarning, kPayloadMethod, "customData is not valid json data");
      }
    }
  }

  // 13. Keys 39 to 42.
  d.setParameter(Json(isWifiAvailable()), "wifi");
  if (const auto attribution = prefs.objectForKey(keys::kConversionData))
    d.setParameter(*attribution, "installAttribution");
  if (const auto reinstalls = prefs.integerForKey(keys::kReInstallCounter); reinstalls >= 1) {
    d.setParameter(Json(format("%ld", reinstalls)), "reinstallCounter");
  }
  if (const auto original = prefs.stringForKey(keys::kOriginalUserId))
    d.setParameter(Json(*original), "originalQuorvelId");

  // 14. E-mails, under the tracker's lock.
  emailStep(d);

  // 15. Keys 44 and 45.
  d.setParameter(Json(QuorvelUtils::isJailBreakon()), "JBDevice");
  if (const auto searchAds = prefs.objectForKey(keys::kSearchAdsAttribution)) {
    d.setParameter(*searchAds, "qv_iad_data");
  } else {
    log_->log(kLogDebug, kPayloadMethod, "iAD: iSearchAdsDict is nil");
  }

  // 16-17.
  addHopline(d);
  if (isLaunch) {
    permitAggregateiAdData_ = true;
    log_->log(kLogDebug, kPayloadMethod, "iAD:  permitAggregateiAdData = YES");
  }
  return d;
}

void TrackerCore::deepLinkStep(QuorvelDictionary& d) {
  const auto link = deeplink();
  if (!link)
    return;
  d.setParameter(Json(*link), "qv_deeplink");
  if (const auto source = sourceApplication())
    d.setParameter(Json(*source), "deeplink_sourceapplication");

  Json params;
  if (link->find("qv_deeplink") == std::string::npos) {
    log_->log(kLogDebug, kPayloadMethod, "Opened from Link = %@", *link);
    params = Json{{"link", *link}};
  } else {
    log_->log(kLogDebug, kPayloadMethod, "Quorvel deepLinkParameters = %@", *link);
    const auto url = Url::parse(*link);
    params = url ? QuorvelUtils::URLQueryParameters(*url) : Json::object();
  }
  const auto path = QuorvelUtils::getHoplinePath(params.contains("link") ? params["link"] : Json());
  if (!path) {
    log_->log(kLogDebug, kPayloadMethod, "Hopline not found.");
    deliverAppOpenAttribution(params, consent_->generation());
    setDeeplink(std::nullopt);
    setSourceApplication(std::nullopt);
    return;
  }
  log_->log(kLogDebug, kPayloadMethod, "Hopline found. Executing request..");
  const std::string url = format("https://hopline.%@%@", host(), *path);
  // The fields stay set until the resolution completes; the answer never enters this payload.
  auto self = self_;
  httpClient_->getHopline(
      url, quorvelDevKey().value_or(std::string()),
      [self, params, consent = consent_->generation()](const std::optional<Json>& response,
                                                       const std::optional<Error>& error) {
        static constexpr const char* kBlock = "-[QuorvelTracker getEventParameters:]_block_invoke";
        const auto tracker = self->pin();
        if (!tracker)
          return;
        if (response) {
          Json merged = params;
          for (const auto& [k, v] : response->items())
            merged[k] = v;
          tracker->deliverAppOpenAttribution(merged, consent);
        } else if (error) {
          tracker->log_->log(kLogDebug, kBlock, "Error occured. %@", *error);
        } else {
          tracker->log_->trace(kBlock,
                               "`responceDict` && `err` are nil. Response did not pass validation");
        }
        tracker->setDeeplink(std::nullopt);
        tracker->setSourceApplication(std::nullopt);
      });
}

// `consent`: the generation the link's handling began under (the payload's build). A stop or
// a forgetting since, even while the answer or the hop was under way, keeps it from the host.
void TrackerCore::deliverAppOpenAttribution(const Json& attribution,
                                            platform::ConsentGate::Generation consent) {
  const auto current = delegate();
  if (!current || !current->onAppOpenAttribution || !consent_->holds(consent))
    return;
  // Held weakly across the hop: a delegate that goes away meanwhile is not called.
  std::weak_ptr<QuorvelTrackerDelegate> weak = current;
  platform_->dispatcher->mainQueue()->async([weak, attribution, gate = consent_, consent] {
    if (const auto d = weak.lock(); d && d->onAppOpenAttribution && gate->holds(consent))
      d->onAppOpenAttribution(attribution);
  });
}

void TrackerCore::pushPayloadStep(QuorvelDictionary& d) {
  // Taken before it is written, so that a payload that cannot be written is not retried
  // by every later launch.
  std::optional<Json> payload;
  {
    std::lock_guard lock(fieldsMutex_);
    payload.swap(pushPayload_);
  }
  if (!payload)
    return;
  const auto text = payload->is_object() && QuorvelUtils::isValidJSONObject(*payload)
                        ? QuorvelUtils::getJsonStringFromDictionary(*payload, *log_)
                        : std::nullopt;
  if (text) {
    // Deliberately the same key as the deep link: the push payload replaces it.
    d.setParameter(Json(*text), "qv_deeplink");
  } else {
    log_->log(kLogError, kPayloadMethod, "pushPayload is not valid json data");
  }
}

void TrackerCore::advertisingIdentifierStep(QuorvelDictionary& d) {
  bool enabled = false;
  std::string identifier;
  const auto entry = platform_->classRegistry->classNamed(advertisingManagerClassName());
  const auto managerClass =
      std::dynamic_pointer_cast<platform::AdvertisingIdentifierManagerClass>(entry);
  const auto manager = managerClass ? managerClass->sharedManager() : nullptr;
  if (manager && !disableAppleAdSupportTracking()) {
    identifier = format("%@", manager->advertisingIdentifier());
    enabled = manager->isAdvertisingTrackingEnabled();
    log_->log(kLogDebug, kPayloadMethod, "has advertiserId");
  } else {
    log_->log(kLogDebug, kPayloadMethod, "has not advertiserId");
  }
  setAdvertiserId(identifier);
  d.setParameter(Json(advertiserId()), "advertiserId");
  d.setParameter(Json(enabled), "advertiserIdEnabled");
}

void TrackerCore::emailStep(QuorvelDictionary& d) {
  std::lock_guard lock(monitor_);
  if (!userEmails_ || userEmails_->empty())
    return;
  std::string label = "plain_el_arr";
  Json list = Json::array();
  for (const auto& entry : *userEmails_) {
    if (!entry.is_string()) {
      log_->log(kLogWarning, kPayloadMethod,
                "Warning: email provided are not in the right format.");
      continue;
    }
    const std::string address = entry.get<std::string>();
    switch (emailCryptType_) {
      case 0:
        list.push_back(address);
        label = "plain_el_arr";
        break;
      case 2:
        list.push_back(QuorvelUtils::md5(address));
        label = "md5_el_arr";
        break;
      case 3:
        list.push_back(QuorvelUtils::sha256(address));
        label = "sha256_el_arr";
        break;
      default:
        list.push_back(QuorvelUtils::sha1(address));
        label = "sha1_el_arr";
        break;
    }
  }
  d.setParameter(Json(stringify(Json{{label, list}}, *log_)), "user_emails");
}

void TrackerCore::addHopline(QuorvelDictionary& d) {
  if (const auto id = appInviteHoplineID()) {
    d.setParameter(Json(*id), "hopline_id");
    if (const auto version = platform_->preferences->stringForKey(keys::kHoplineVersion)) {
      d.setParameter(Json(*version), "hopline_ver");
    }
  }
}

}  // namespace quorvel
