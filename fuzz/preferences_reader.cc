// Any bytes in the preferences file: read without a crash, and a store that read them can
// still be written and read back.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "log/QuorvelProxyManager.h"
#include "platform/AtomicFile.h"
#include "platform/posix/JsonFilePreferencesStore.h"

namespace {

const std::string& scratchFile() {
  static const std::string path = [] {
    char dir[] = "/tmp/quorvel-fuzz-prefs-XXXXXX";
    if (::mkdtemp(dir) == nullptr)
      std::abort();
    return std::string(dir) + "/prefs.json";
  }();
  return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quorvel;
  QuorvelProxyManager::sharedManager().stopRemoteDebugging();
  const std::string& path = scratchFile();
  if (platform::writeFileAtomically(path, Bytes(data, data + size), {}, nullptr) !=
      platform::AtomicWriteResult::written)
    std::abort();
  platform::JsonFilePreferencesStore store(path);
  (void)store.objectForKey("QuorvelUserId");
  (void)store.stringForKey("QuorvelConversionData");
  (void)store.integerForKey("QuorvelCounter");
  (void)store.dateForKey("QuorvelVersionUpdateDate");
  store.setInteger("QuorvelCounter", 2);
  if (!store.synchronize() || store.integerForKey("QuorvelCounter") != 2)
    std::abort();
  ::unlink((path + ".corrupt").c_str());
  return 0;
}
