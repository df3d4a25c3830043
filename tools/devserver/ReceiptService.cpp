// The "sdk-services." host: store receipt validation.
#include "Emulator.h"

namespace quorvel::devserver {

namespace {

bool isBase64(const std::string& text) {
  if (text.empty() || text.size() % 4 != 0)
    return false;
  std::size_t padding = 0;
  for (const char c : text) {
    if (c == '=') {
      ++padding;
      continue;
    }
    const bool alphabet = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
                          (c >= '0' && c <= '9') || c == '+' || c == '/';
    if (!alphabet || padding > 0)
      return false;
  }
  return padding <= 2;
}

// An answer the library reads as a refusal: an object without "transaction_id".
ServiceResponse refusal(const std::string& message) {
  ServiceResponse r;
  r.body = Json{{"status", "invalid"}, {"error", {{"message", message}}}}.dump();
  r.note = "receipt refused: " + message;
  return r;
}

}  // namespace

ServiceResponse Emulator::receiptValidation(const ServiceRequest& request, StoredRequest& record) {
  if (request.method != "POST")
    return errorResponse(405, "receipt validation takes POST");
  if (request.path != "/validate-ios-receipt-server")
    return errorResponse(404, "not a receipt-validation path");
  const auto appId = request.param("app_id");
  const auto devKey = devKeyOf(appId);
  if (!devKey)
    return errorResponse(403, "unknown app id " + appId.value_or("(none)"));
  if (request.param("dev_key") != devKey)
    return errorResponse(403, "developer key does not match app " + *appId);
  const Json body = parseRequestJson(request.body);
  if (!body.is_discarded())
    record.decrypted = body;
  if (!body.is_object())
    return refusal("body is not a JSON object");
  const auto receipt = body.find("receipt-data");
  if (receipt == body.end() || !receipt->is_string() || !isBase64(receipt->get<std::string>()))
    return refusal("\"receipt-data\" is missing or not base64");
  const auto transaction = request.param("tran_id");
  if (!transaction || transaction->empty())
    return refusal("no transaction id");
  ServiceResponse r;
  r.body = Json{
      {"status", 0},
      {"environment", request.param("sandbox") == "true" ? "Sandbox" : "Production"},
      {"transaction_id", *transaction},
      {"quantity",
       "1"}}.dump();
  r.note = "receipt valid, transaction " + *transaction;
  return r;
}

ServiceResponse Emulator::linkClick(const std::string& service, const ServiceRequest& request) {
  if (request.method != "GET")
    return errorResponse(405, "links are opened with GET");
  ServiceResponse r;
  if (service == "impressions") {
    r.body = "{}";
    r.note = "impression " + request.path + (request.query.empty() ? "" : "?" + request.query);
    return r;
  }
  std::string target = request.path;
  if (service == kShortLinkPrefix) {
    // "/TEMPLATE/ID": a short link opened in a browser shows what it carries.
    const auto slash = request.path.find('/', 1);
    const auto link =
        slash == std::string::npos
            ? std::nullopt
            : store_.shortLink(request.path.substr(1, slash - 1), request.path.substr(slash + 1));
    if (!link)
      return errorResponse(404, "no short link " + request.path);
    target = link->data.dump();
  } else if (!request.query.empty()) {
    target += "?" + request.query;
  }
  r.contentType = "text/html";
  r.body =
      "<!doctype html><title>quorvel-devserver</title><p>A real service would now open "
      "the store or the app for this link.</p>\n";
  r.note = "link opened " + target;
  return r;
}

}  // namespace quorvel::devserver
