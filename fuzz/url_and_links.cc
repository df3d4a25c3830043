// Any text as a URL, a deep link or a query: parsed, split and turned into launch
// parameters without a crash, and the payload that carries it can always be written.
#include <quorvel/QuorvelTracker.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "common/QuorvelUtils.h"
#include "log/QuorvelProxyManager.h"
#include "platform/Url.h"
#include "support/TestPlatform.h"
#include "tracker/TrackerCore.h"
#include "util/QuorvelDictionary.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quorvel;
  const std::string text(reinterpret_cast<const char*>(data), size);
  if (const auto url = Url::parse(text)) {
    (void)url->pathComponents();
    (void)QuorvelUtils::URLQueryParameters(*url).dump(-1, ' ', false,
                                                      Json::error_handler_t::replace);
  }
  (void)percentDecode(text);
  (void)QuorvelUtils::isValidDeeplink(text);
  (void)QuorvelUtils::getHoplinePath(Json(text));

  // The link as the next launch reads it.
  test::TestPlatform fakes;
  QuorvelProxyManager::sharedManager().stopRemoteDebugging();
  auto tracker =
      std::make_unique<TrackerCore>(fakes.shared(), QuorvelProxyManager::sharedManager());
  tracker->setQuorvelDevKey(std::string("FUZZ-DEV-KEY"));
  tracker->setAppleAppID(std::string("123"));
  tracker->handleOpenURL(text, std::string("com.source"));
  const auto parameters = tracker->getEventParameters(true);
  if (!QuorvelUtils::getJsonStringFromDictionary(parameters.dict(), tracker->logger()))
    std::abort();  // the launch would be lost
  tracker.reset();
  // Whatever is still queued runs now, so that nothing keeps the platform past the input.
  fakes.transport->clear();
  fakes.dispatcher->advance(std::chrono::minutes(10));
  return 0;
}
