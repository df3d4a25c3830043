// The collection services in miniature: routes each request by its service host, answers
// as the real services would for a development setup, and records it.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "Faults.h"
#include "RequestStore.h"
#include "ServiceRequest.h"

namespace quorvel::devserver {

// Every service host the library uses, as the prefix before the service domain.
const std::vector<std::string>& servicePrefixes();

// Every host name a server certificate for `domain` has to cover.
std::vector<std::string> certificateHosts(const std::string& domain);

// The short-link host prefix: the library recognises its short links by this text.
inline constexpr const char* kShortLinkPrefix = "quorvel.link";

struct EmulatorConfig {
  std::string domain = "localhost";
  int port = 443;
  // Store application identifier → developer key.
  std::map<std::string, std::string> apps;
  // Conversion data answers: keys "APPID/DEVICEID", "APPID" or "*"; see the README.
  Json conversionData = Json::object();
  // The "monitor" value of tracking answers (1 turns the library's remote debugging on).
  int monitor = 0;
};

class Emulator {
 public:
  using LogSink = std::function<void(const std::string&)>;
  using Now = std::function<double()>;  // seconds since 1970

  Emulator(EmulatorConfig config, RequestStore& store, const Faults& faults, LogSink log,
           Now now = nullptr);

  // Answers and records one request. Never throws.
  ServiceResponse handle(const ServiceRequest& request);

  // "DOMAIN:PORT" (the port left out when it is 443): the host to give the library.
  std::string serviceDomain() const;
  // The service prefix of a Host header ("t" for "t.localhost:8443"), "" when none.
  std::string serviceOf(const std::string& host) const;

  void setPort(int port) { port_ = port; }
  void setMonitor(int value) { monitor_ = value; }
  int monitor() const { return monitor_; }

 private:
  ServiceResponse route(const std::string& service, const ServiceRequest& request,
                        StoredRequest& record);
  ServiceResponse tracking(const ServiceRequest& request, StoredRequest& record);
  ServiceResponse stats(const ServiceRequest& request, StoredRequest& record);
  ServiceResponse conversionData(const ServiceRequest& request);
  ServiceResponse shortLinks(const ServiceRequest& request, StoredRequest& record);
  ServiceResponse receiptValidation(const ServiceRequest& request, StoredRequest& record);
  ServiceResponse plainJsonPost(const ServiceRequest& request, StoredRequest& record,
                                const std::string& what);
  ServiceResponse linkClick(const std::string& service, const ServiceRequest& request);

  // Keeps the clear payload of a request that a fault answered, as its record would show it.
  void recordPayload(const ServiceRequest& request, StoredRequest& record) const;
  // The developer key of a known app; nothing for an unknown one.
  std::optional<std::string> devKeyOf(const std::optional<std::string>& appId) const;
  // The app whose developer key signed this short-link request.
  std::optional<std::string> signerOf(const ServiceRequest& request) const;
  std::string newLinkId();

  EmulatorConfig config_;
  RequestStore& store_;
  const Faults& faults_;
  LogSink log_;
  Now now_;
  std::atomic<int> port_;
  std::atomic<int> monitor_;
  std::mutex randomMutex_;
  std::mt19937_64 random_;
};

// An error answer: {"error": message}.
ServiceResponse errorResponse(int status, const std::string& message);

}  // namespace quorvel::devserver
