// Any bytes in a cached-request file: read without a crash, and a record comes out only
// with a URL and a body that decoded.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "cache/QuorvelRequestCache.h"
#include "log/QuorvelProxyManager.h"
#include "support/TestPlatform.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quorvel;
  test::TestPlatform fakes;
  QuorvelProxyManager::sharedManager().stopRemoteDebugging();
  auto cache = std::make_shared<QuorvelRequestCache>(fakes.shared(), fakes.log(), nullptr);
  const auto directory = cache->getCacheDirectoryPath();
  if (!directory)
    std::abort();
  fakes.fileSystem->writeFileAtomically(*directory + "/700000000.250000.qv",
                                        Bytes(data, data + size));
  for (const auto& record : cache->getCachedRequests()) {
    if (!record.requestURL() || !record.postData())
      std::abort();
  }
  return 0;
}
