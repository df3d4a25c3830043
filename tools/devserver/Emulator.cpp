#include "Emulator.h"
#include "PayloadCipher.h"

#include <chrono>
#include <exception>

namespace quorvel::devserver {

namespace {

double systemNow() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

std::string hostWithoutPort(const std::string& host) {
  // "[::1]:8443" keeps its brackets; "t.localhost:8443" loses ":8443".
  const auto colon = host.rfind(':');
  if (colon == std::string::npos || host.find(']', colon) != std::string::npos)
    return host;
  return host.substr(0, colon);
}

bool isTrackingService(const std::string& s) {
  return s == "t" || s == "events" || s == "attr" || s == "validate";
}

}  // namespace

const std::vector<std::string>& servicePrefixes() {
  static const std::vector<std::string> prefixes = {
      "t",   "events",      "attr",          "validate", "stats",
      "sdk", "hopline",     "sdk-services",  "register", "monitorsdk",
      "app", "impressions", kShortLinkPrefix};
  return prefixes;
}

ServiceResponse errorResponse(int status, const std::string& message) {
  ServiceResponse r;
  r.status = status;
  r.body = Json{{"error", message}}.dump();
  r.note = message;
  return r;
}

Emulator::Emulator(EmulatorConfig config, RequestStore& store, const Faults& faults, LogSink log,
                   Now now)
    : config_(std::move(config)),
      store_(store),
      faults_(faults),
      log_(std::move(log)),
      now_(now ? std::move(now) : Now(systemNow)),
      port_(config_.port),
      monitor_(config_.monitor),
      random_(std::random_device{}()) {}

std::string Emulator::serviceDomain() const {
  const int port = port_;
  return port == 443 ? config_.domain : config_.domain + ":" + std::to_string(port);
}

std::vector<std::string> certificateHosts(const std::string& domain) {
  std::vector<std::string> hosts;
  for (const auto& prefix : servicePrefixes())
    hosts.emplace_back(prefix).append(".").append(domain);
  hosts.push_back(domain);
  if (domain != "localhost")
    hosts.emplace_back("localhost");
  hosts.emplace_back("127.0.0.1");
  return hosts;
}

std::string Emulator::serviceOf(const std::string& host) const {
  const std::string name = hostWithoutPort(host);
  const std::string suffix = "." + config_.domain;
  if (name.size() <= suffix.size() ||
      name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0)
    return {};
  std::string prefix = name.substr(0, name.size() - suffix.size());
  for (const auto& known : servicePrefixes()) {
    if (known == prefix)
      return prefix;
  }
  return {};
}

std::optional<std::string> Emulator::devKeyOf(const std::optional<std::string>& appId) const {
  if (!appId)
    return std::nullopt;
  const auto it = config_.apps.find(*appId);
  if (it == config_.apps.end())
    return std::nullopt;
  return it->second;
}

ServiceResponse Emulator::handle(const ServiceRequest& request) {
  StoredRequest record;
  record.time = now_();
  record.method = request.method;
  record.host = request.host;
  record.service = serviceOf(request.host);
  record.path = request.path;
  record.query = request.query;
  for (const auto& [name, value] : request.headers)
    record.headers[name] = value;
  record.body = request.body;

  ServiceResponse response;
  try {
    const std::string service = record.service.empty() ? "-" : record.service;
    if (const auto status = faults_.statusFor(service)) {
      response = errorResponse(*status, "fault: answering " + std::to_string(*status));
      response.retryAfterSeconds = faults_.retryAfterFor(service);
      recordPayload(request, record);
    } else {
      response = route(record.service, request, record);
    }
  } catch (const std::exception& e) {
    response = errorResponse(500, std::string("internal error: ") + e.what());
  }
  record.status = response.status;
  record.note = response.note;
  try {
    store_.add(std::move(record));  // the decrypted payload is a tree: not worth a copy
  } catch (const std::exception& e) {
    log_(std::string("could not record the request: ") + e.what());
  }
  std::string line = request.method + " " + (request.host.empty() ? "(no host)" : request.host) +
                     request.path + (request.query.empty() ? "" : "?" + request.query) + " -> " +
                     std::to_string(response.status);
  if (!response.note.empty())
    line += " (" + response.note + ")";
  log_(line);
  return response;
}

void Emulator::recordPayload(const ServiceRequest& request, StoredRequest& record) const {
  const auto devKey = devKeyOf(request.param("app_id"));
  if (!devKey)
    return;
  if (const auto clear = decryptPayload(*devKey, request.body)) {
    Json payload = parseRequestJson(*clear);
    if (!payload.is_discarded())
      record.decrypted = std::move(payload);
  }
}

ServiceResponse Emulator::route(const std::string& service, const ServiceRequest& request,
                                StoredRequest& record) {
  if (isTrackingService(service))
    return tracking(request, record);
  if (service == "stats")
    return stats(request, record);
  if (service == "sdk")
    return conversionData(request);
  if (service == "hopline")
    return shortLinks(request, record);
  if (service == "sdk-services")
    return receiptValidation(request, record);
  if (service == "register")
    return plainJsonPost(request, record, "uninstall registration");
  if (service == "monitorsdk")
    return plainJsonPost(request, record, "remote-debug upload");
  if (service == "app" || service == "impressions" || service == kShortLinkPrefix)
    return linkClick(service, request);
  if (request.method == "GET" && request.path == "/") {
    ServiceResponse r;
    r.contentType = "text/plain";
    r.body = "quorvel-devserver: give the library the service domain " + serviceDomain() + "\n";
    return r;
  }
  return errorResponse(404, "no service at this host");
}

}  // namespace quorvel::devserver
