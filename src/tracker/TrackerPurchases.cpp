// Purchases: the purchase event, then the receipt verified by the service.
#include <quorvel/Version.h>
#include "tracker/TrackerCore.h"

#include "cache/QuorvelRequestCacheData.h"
#include "common/QuorvelUtils.h"
#include "log/Log.h"
#include "net/QuorvelHTTPClient.h"
#include "net/ReportLedger.h"
#include "tracker/TrackerLifetime.h"
#include "tracker/TrackerNames.h"
#include "util/BoundedJson.h"
#include "util/HostInput.h"
#include "util/PercentEscape.h"
#include "util/QuorvelDictionary.h"
#include "util/WorkContext.h"

namespace quorvel {
namespace {
constexpr const char* kValidateMethod =
    "-[QuorvelTracker "
    "validateAndTrackInAppPurchase:price:currency:transactionId:additionalParameters:success:"
    "failure:]";

Json stringOrEmpty(const std::optional<std::string>& v) {
  return Json(v.value_or(std::string()));
}
}  // namespace

std::shared_ptr<platform::URLSessionTask> TrackerCore::validateRequest() const {
  return read(validateRequest_);
}

void TrackerCore::validateAndTrackInAppPurchase(const std::optional<std::string>& productIdentifier,
                                                const std::optional<std::string>& price,
                                                const std::optional<std::string>& currency,
                                                const std::optional<std::string>& transactionId,
                                                const std::optional<Json>& /*additionalParameters*/,
                                                QuorvelPurchaseSuccess success,
                                                QuorvelPurchaseFailure failure) {
  const ReportLedger::Scope report(ledger_->currentOrOpen());
  const auto fail = [&failure](const std::optional<Error>& error, const Json& response) {
    if (failure)
      failure(error, response);
  };
  if (!platform_->device->capabilities().backgroundTasks)
    return;
  if (!productIdentifier || !transactionId) {
    log_->log(
        kLogDebug, kValidateMethod,
        "Quorvel Error: validateInAppPurchase Parameters cannot be nil. Track event is not sent.");
    fail(std::nullopt, Json("Quorvel Error: validateInAppPurchase Parameters cannot be nil"));
    return;
  }
  const Json receipt = QuorvelUtils::getStoreReceipt(*platform_, *log_);
  const auto data = receipt.find("data");
  if (data == receipt.end() || data->is_string()) {
    log_->log(kLogError, kValidateMethod,
              "Quorvel Error: Could not get application receipt data, please check the paramters. "
              "Track event is not sent.");
    fail(
        std::nullopt,
        Json("Quorvel Error: Could not get application receipt data, please check the paramters."));
    return;
  }
  validatePurchaseEvent(productIdentifier, price, currency, transactionId, receipt,
                        consent_->generation());

  const auto devKey = quorvelDevKey();
  const auto appID = appleAppID();
  if (!devKey || !appID) {
    // The validation needs both; the host hears about it instead of the process failing.
    fail(Error{kErrorDomain, 0,
               "Quorvel Error: validateInAppPurchase needs the developer key and the app id"},
         Json());
    return;
  }
  Json request = receipt;
  request["quorvelId"] = getQuorvelUID();
  request["appDevKey"] = *devKey;
  request["appId"] = *appID;
  request["sandbox"] = useReceiptValidationSandbox() ? "true" : "false";
  request["url"] = format("https://sdk-services.%@/validate-ios-receipt-server", host());
  request["transactionId"] = *transactionId;
  request["advertisingId"] = advertiserId();
  request["JBDevice"] = QuorvelUtils::isJailBreakon() ? "true" : "false";
  if (deviceTrackingDisabled())
    request["deviceTrackingDisabled"] = "true";
  if (log_->traceWanted())
    log_->trace(kValidateMethod, "parameters = %@", request);

  auto self = self_;
  auto task = httpClient_->sendValidateRequest(request, [self, log = log_,
                                                         success = std::move(success),
                                                         failure = std::move(failure)](
                                                            const std::optional<Error>& error,
                                                            const std::optional<Bytes>& bytes) {
    static constexpr const char* kBlock =
        "-[QuorvelTracker "
        "validateAndTrackInAppPurchase:price:currency:transactionId:additionalParameters:success:"
        "failure:]_block_invoke";
    if (error) {
      log->log(kLogError, kBlock, "Failed validating receipt = %@", error->description());
      if (failure)
        failure(error, bytes ? Json::binary(*bytes) : Json());
    } else {
      const std::string text = bytes ? std::string(bytes->begin(), bytes->end()) : std::string();
      const Json parsed = parseBoundedJson(text);
      if (parsed.is_discarded()) {
        if (failure) {
          failure(jsonParserError(), Json());
        }
      } else if (parsed.is_object() && parsed.contains("transaction_id")) {
        log->log(kLogInfo, kBlock, "Succeeded validating receipt");
        if (success)
          success(parsed);
      } else {
        log->log(kLogWarning, kBlock, "Failed validating receipt = %@", parsed);
        if (failure)
          failure(std::nullopt, parsed);
      }
    }
    if (const auto tracker = self->pin())
      tracker->write(tracker->validateRequest_, nullptr);
  });
  write(validateRequest_, task);
}

void TrackerCore::validatePurchaseEvent(const std::optional<std::string>& hostProductIdentifier,
                                        const std::optional<std::string>& hostPrice,
                                        const std::optional<std::string>& hostCurrency,
                                        const std::optional<std::string>& hostTransactionId,
                                        const Json& receiptData,
                                        platform::ConsentGate::Generation consent) {
  if (!outbox_->numberingIsSafe()) {
    // Its counters are given below: not before this process knows the last ones given, or a
    // second process on the directory would repeat the holder's `iaecounter`.
    outbox_->afterNumberingIsSafe(
        mBackgroundQueue_,
        inCurrentWorkContext([self = self_, hostProductIdentifier, hostPrice, hostCurrency,
                              hostTransactionId, receiptData, consent] {
          if (const auto tracker = self->pin())
            tracker->validatePurchaseEvent(hostProductIdentifier, hostPrice, hostCurrency,
                                           hostTransactionId, receiptData, consent);
        }));
    return;
  }
  // A stop or a forgetting since the call drops it: its counters and its record would be
  // written after the stop returned, and after a forgetting it would go under the new install.
  // Held to the hand-over, so that neither can fall between this check and the writes.
  const auto held = consent_->hold();
  if (!consent_->holds(consent)) {
    log_->log(kLogDebug, kValidateMethod,
              "Quorvel is stopped or was reset since the purchase: its event is not sent");
    return;
  }
  const auto productIdentifier = hostText(hostProductIdentifier);
  const auto price = hostText(hostPrice);
  const auto currency = hostText(hostCurrency);
  const auto transactionId = hostText(hostTransactionId);
  QuorvelDictionary parameters = getEventParameters(false);
  parameters.setParameter(stringOrEmpty(transactionId), "apple_tran_id");
  parameters.setParameter(stringOrEmpty(currency), "currency");
  parameters.setParameter(stringOrEmpty(productIdentifier), "product_identifier");
  parameters.setParameter(Json("qv_purchase"), "event");
  parameters.setParameter(Json(useReceiptValidationSandbox() ? "true" : "false"), "is_sandbox");
  parameters.setParameter(stringOrEmpty(price), "price");
  parameters.setParameter(receiptData, "receipt_data");
  const Bytes body = encryptData(parameters);
  const std::string url =
      format("https://validate.%@/api/v%@/ios%@?app_id=%@&buildnumber=%@", host(),
             kQuorvelAPIVersion, "event", appleAppID(), kQuorvelSDKVersion);
  QuorvelUtils::logRequestContent(
      kRequestEvent, url,
      QuorvelUtils::getJsonStringFromDictionary(parameters.dict(), *log_).value_or(std::string()),
      *log_);
  httpClient_->sendRequestEventToServer(QuorvelRequestCacheData(url, body, kQuorvelSDKVersion),
                                        false, appleAppID(), isDebug(), nullptr);
}

}  // namespace quorvel
