// The tracking hosts ("t.", "events.", "attr.", "validate."): encrypted payloads. And the
// hosts that take plain JSON: statistics, uninstall registration, remote-debug uploads.
#include <regex>

#include "Emulator.h"
#include "PayloadCipher.h"

namespace quorvel::devserver {

namespace {

bool isTrackingPath(const std::string& path) {
  static const std::regex pattern("/api/v[0-9.]+/ios[a-z]+");
  return std::regex_match(path, pattern);
}

std::string describePayload(const Json& payload) {
  if (!payload.is_object())
    return "payload";
  const auto event = payload.find("event");
  if (event == payload.end() || !event->is_string())
    return "payload without event";
  std::string note = "event " + event->get<std::string>();
  if (const auto value = payload.find("eventvalue");
      value != payload.end() && value->is_string() && !value->get<std::string>().empty())
    note += " " + value->get<std::string>();
  return note;
}

// What names one report of one install: a launch by its launch counter, an event by its event
// counter. Empty when the payload carries neither (nothing to compare).
std::string reportKey(const std::string& service, const Json& payload) {
  if (!payload.is_object())
    return {};
  const auto text = [&](const char* key) {
    const auto it = payload.find(key);
    return it != payload.end() && it->is_string() ? it->get<std::string>() : std::string();
  };
  const std::string uid = text("uid");
  const bool launch = text("event") == "Launched";
  const std::string counter = launch ? text("counter") : text("iaecounter");
  if (uid.empty() || counter.empty())
    return {};
  return service + "|" + uid + "|" + (launch ? "launch " : "event ") + counter;
}

ServiceResponse jsonOk(const Json& body, std::string note) {
  ServiceResponse r;
  r.body = body.dump();
  r.note = std::move(note);
  return r;
}

}  // namespace

ServiceResponse Emulator::tracking(const ServiceRequest& request, StoredRequest& record) {
  if (request.method != "POST")
    return errorResponse(405, "tracking takes POST");
  if (!isTrackingPath(request.path))
    return errorResponse(404, "not a tracking path");
  const auto appId = request.param("app_id");
  const auto devKey = devKeyOf(appId);
  if (!devKey)
    return errorResponse(403, "unknown app id " + appId.value_or("(none)"));
  const auto clear = decryptPayload(*devKey, request.body);
  if (!clear)
    return errorResponse(400, "body does not decrypt with the developer key of app " + *appId);
  Json parsed = parseRequestJson(*clear);
  if (parsed.is_discarded()) {
    record.decrypted = Json(*clear);
    return errorResponse(400, "decrypted body is not JSON");
  }
  const Json& payload = record.decrypted.emplace(std::move(parsed));
  // A library sends a report again when its answer never reached it (a kill, a cut
  // connection): answered as the first was, kept apart as a repeat.
  const std::string key = reportKey(record.service, payload);
  if (!key.empty()) {
    record.repeat = store_.markReportSeen(*appId, key);
    if (!record.repeat)
      record.firstReport = std::pair(*appId, key);
  }
  const Json answer = {{"monitor", monitor()},
                       {"hl_domain", std::string(kShortLinkPrefix) + "." + serviceDomain()},
                       {"hl_ver", "1"},
                       {"hl_scheme", "qv" + *appId + "://"}};
  return jsonOk(answer, (record.repeat ? "repeat of " + key + ": " : std::string()) +
                            describePayload(payload));
}

ServiceResponse Emulator::stats(const ServiceRequest& request, StoredRequest& record) {
  return plainJsonPost(request, record, "background statistics");
}

ServiceResponse Emulator::plainJsonPost(const ServiceRequest& request, StoredRequest& record,
                                        const std::string& what) {
  (void)record;
  if (request.method != "POST")
    return errorResponse(405, what + " takes POST");
  const auto appId = request.param("app_id");
  const auto devKey = devKeyOf(appId);
  if (!devKey)
    return errorResponse(403, "unknown app id " + appId.value_or("(none)"));
  const Json body = parseRequestJson(request.body);
  if (!body.is_object())
    return errorResponse(400, what + ": body is not a JSON object");
  // Statistics and registrations name the developer key; it has to be the app's.
  if (const auto key = body.find("devkey");
      key != body.end() && (!key->is_string() || key->get<std::string>() != *devKey))
    return errorResponse(403, what + ": developer key does not match app " + *appId);
  return jsonOk(Json::object(), what);
}

}  // namespace quorvel::devserver
