// The "hopline." host: short links made and resolved for signed requests.
#include <regex>
#include <string_view>

#include "Emulator.h"
#include "PayloadCipher.h"

namespace quorvel::devserver {

std::optional<std::string> Emulator::signerOf(const ServiceRequest& request) const {
  const auto timestamp = request.header("qv-timestamp");
  const auto signature = request.header("authorization");
  if (!timestamp || !signature || timestamp->empty() ||
      timestamp->find_first_not_of("0123456789") != std::string::npos)
    return std::nullopt;
  for (const auto& [appId, devKey] : config_.apps) {
    if (sha1Hex(devKey + *timestamp) == *signature)
      return appId;
  }
  return std::nullopt;
}

std::string Emulator::newLinkId() {
  static constexpr std::string_view kAlphabet = "abcdefghijkmnopqrstuvwxyz23456789";
  const std::lock_guard lock(randomMutex_);
  std::string id;
  for (int i = 0; i < 8; ++i)
    id.push_back(kAlphabet[random_() % kAlphabet.size()]);
  return id;
}

ServiceResponse Emulator::shortLinks(const ServiceRequest& request, StoredRequest& record) {
  static const std::regex pattern("/shortlink-sdk/v1/([^/]+)");
  std::smatch match;
  if (!std::regex_match(request.path, match, pattern))
    return errorResponse(404, "not a short-link path");
  const std::string templateId = match[1];
  const auto appId = signerOf(request);
  if (!appId)
    return errorResponse(401, "short link: missing or wrong signature");

  if (request.method == "GET") {
    const auto id = request.param("id");
    const auto link = id ? store_.shortLink(templateId, *id) : std::nullopt;
    if (!link)
      return errorResponse(404, "no short link " + templateId + "/" + id.value_or("(no id)"));
    ServiceResponse r;
    r.body = link->data.dump();
    r.note = "short link " + templateId + "/" + *id + " resolved";
    return r;
  }
  if (request.method == "POST") {
    const Json body = parseRequestJson(request.body);
    if (!body.is_object() || !body.contains("data") || !body["data"].is_object())
      return errorResponse(400, "short link: body needs a \"data\" object");
    record.decrypted = body;
    ShortLink link{templateId, newLinkId(), *appId,
                   body.contains("ttl") && body["ttl"].is_string() ? body["ttl"].get<std::string>()
                                                                   : std::string(),
                   body["data"]};
    store_.addShortLink(link);
    ServiceResponse r;
    r.contentType = "text/plain";
    r.body = "https://" + std::string(kShortLinkPrefix) + "." + serviceDomain() + "/" + templateId +
             "/" + link.id;
    r.note = "short link " + templateId + "/" + link.id + " made for app " + *appId;
    return r;
  }
  return errorResponse(405, "short links take GET or POST");
}

}  // namespace quorvel::devserver
