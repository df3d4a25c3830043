// The "sdk." host: an install's conversion data.
#include <regex>

#include "Emulator.h"

namespace quorvel::devserver {

namespace {

// What an install that came through no campaign is told.
Json defaultAnswer() {
  return Json{{"status", "unpaid"}, {"source", "none"}};
}

Json answerTemplate(const Json& configured, const std::string& appId, const std::string& deviceId) {
  std::string perDevice = appId;
  perDevice.append("/").append(deviceId);
  for (const std::string& key : {perDevice, appId, std::string("*")}) {
    if (const auto it = configured.find(key); it != configured.end() && it->is_object())
      return *it;
  }
  return defaultAnswer();
}

}  // namespace

ServiceResponse Emulator::conversionData(const ServiceRequest& request) {
  if (request.method != "GET")
    return errorResponse(405, "conversion data takes GET");
  static const std::regex pattern("/install_data/v[0-9]+/id([0-9A-Za-z._-]+)");
  std::smatch match;
  if (!std::regex_match(request.path, match, pattern))
    return errorResponse(404, "not a conversion-data path");
  const std::string appId = match[1];
  const auto devKey = devKeyOf(appId);
  if (!devKey)
    return errorResponse(404, "unknown app id " + appId);
  if (request.param("devkey") != devKey)
    return errorResponse(403, "developer key does not match app " + appId);
  const auto deviceId = request.param("device_id");
  if (!deviceId || deviceId->empty())
    return errorResponse(400, "no device_id");

  Json answer = answerTemplate(config_.conversionData, appId, *deviceId);
  // A configured "http_status" plays a failing service for this app or device.
  if (const auto status = answer.find("http_status");
      status != answer.end() && status->is_number_integer() && status->get<int>() != 200)
    return errorResponse(status->get<int>(), "configured conversion-data status");
  answer.erase("http_status");
  const bool servedBefore = store_.markConversionDataServed(appId, *deviceId);
  answer["first_open"] = !servedBefore;
  answer["iscache"] = servedBefore;
  ServiceResponse r;
  r.body = answer.dump();
  r.note = std::string("conversion data") + (servedBefore ? " (cached)" : " (first)");
  return r;
}

}  // namespace quorvel::devserver
