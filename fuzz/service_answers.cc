// Whatever a service answers, the library neither crashes nor leaks: tracking answers,
// conversion data, short links (read and created) and receipt verdicts, each through the
// code that reads it in the field. The first byte picks the service and the status, the
// rest is the body.
#include <quorvel/QuorvelTracker.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "log/QuorvelProxyManager.h"
#include "net/QuorvelHTTPClient.h"
#include "support/TestPlatform.h"
#include "tracker/TrackerCore.h"
#include "util/PreferenceKeys.h"

namespace {

using namespace quorvel;

constexpr long kStatuses[] = {200, 200, 404, 500};
constexpr const char* kMimeTypes[] = {"application/json", "text/plain"};

void answerLast(test::TestPlatform& fakes, long status, const std::string& body, const char* mime) {
  const auto sent = fakes.transport->sent().size();
  if (sent > 0)
    fakes.respond(sent - 1, status, body, mime);
  fakes.dispatcher->runUntilIdle();
}

// One tracker for the whole run (making one derives its key, which would dominate); each
// input is answered, then everything it left queued runs and the sessions forget it.
struct World {
  test::TestPlatform fakes;
  std::unique_ptr<TrackerCore> tracker;
  std::shared_ptr<QuorvelTrackerDelegate> delegate = std::make_shared<QuorvelTrackerDelegate>();

  World() {
    fakes.bundle->receiptPath = "/app/receipt";
    fakes.fileSystem->writeFileAtomically("/app/receipt", Bytes{'r', 'c', 'p'});
    tracker = std::make_unique<TrackerCore>(fakes.shared(), QuorvelProxyManager::sharedManager());
    tracker->setQuorvelDevKey(std::string("FUZZ-DEV-KEY"));
    tracker->setAppleAppID(std::string("123"));
    tracker->setHost(std::string("svc.example"));
    delegate->onConversionDataReceived = [](const Json& d) { (void)d.dump(); };
    delegate->onConversionDataRequestFailure = [](const Error&) {};
  }
  ~World() {
    tracker.reset();
    fakes.transport->clear();
  }
  void settle() {
    fakes.dispatcher->advance(std::chrono::minutes(10));
    QuorvelProxyManager::sharedManager().stopRemoteDebugging();
    fakes.transport->clear();
    // Conversion data is fetched again only without a stored copy.
    fakes.preferences->removeObjectForKey(keys::kConversionData);
    fakes.preferences->removeObjectForKey(keys::kConversionDataRequestRetries);
    fakes.systemLog->clear();
  }
};

World& world() {
  static World w;
  return w;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0)
    return 0;
  const unsigned selector = data[0];
  const std::string body(reinterpret_cast<const char*>(data + 1), size - 1);
  const long status = kStatuses[(selector >> 3) % 4];
  const char* mime = kMimeTypes[(selector >> 5) % 2];
  World& w = world();
  TrackerCore& tracker = *w.tracker;

  switch (selector % 5) {
    case 0:  // a tracking answer
      tracker.httpClient()->sendRequestEventToServer(
          QuorvelRequestCacheData("https://t.svc.example/api?a=1", Bytes{1}, "4.8.0"), false,
          std::nullopt, false, nullptr);
      break;
    case 1:  // conversion data
      tracker.loadConversionDataWithDelegate(w.delegate);
      break;
    case 2:  // a short link read
      tracker.httpClient()->getHopline("https://links.svc.example/shortlink-sdk/v1/x?id=a",
                                       "FUZZ-DEV-KEY", [](const auto& link, const auto&) {
                                         if (link)
                                           (void)link->dump();
                                       });
      break;
    case 3:  // a short link made
      tracker.httpClient()->createHopline("https://links.svc.example/shortlink-sdk/v1/x", 30,
                                          "FUZZ-DEV-KEY", Json{{"pid", "fuzz"}},
                                          [](const auto& link, const auto&) { (void)link; });
      break;
    default:  // a receipt verdict
      tracker.validateAndTrackInAppPurchase(
          std::string("p"), std::string("1"), std::string("USD"), std::string("t1"), std::nullopt,
          [](const Json& verdict) { (void)verdict.dump(); },
          [](const std::optional<Error>&, const Json& verdict) { (void)verdict; });
      break;
  }
  w.fakes.dispatcher->runUntilIdle();
  answerLast(w.fakes, status, body, mime);
  w.settle();
  return 0;
}
