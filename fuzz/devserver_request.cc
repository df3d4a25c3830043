// Any request to the emulator: routed, decrypted, parsed, recorded and answered without a
// crash. With the seal flag the body is first encrypted with the app's key, so that the
// fuzzer reaches what the emulator does with decrypted payloads.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "Emulator.h"
#include "PayloadCipher.h"
#include "common/QuorvelAES128Crypto.h"
#include "log/Log.h"
#include "platform/posix/PosixServices.h"

namespace {

using namespace quorvel;
using namespace quorvel::devserver;

constexpr const char* kApp = "123456789";
constexpr const char* kKey = "FUZZ-DEV-KEY";

struct World {
  RequestStore store{":memory:"};
  Faults faults;
  Emulator emulator{[] {
                      EmulatorConfig c;
                      c.port = 8443;
                      c.apps = {{kApp, kKey}};
                      c.conversionData = Json{{"*", Json{{"status", "unpaid"}}}};
                      return c;
                    }(),
                    store, faults, [](const std::string&) {}, [] { return 1795000000.5; }};
};

// A fresh store now and then, so that a long run does not grow without bound.
World& world() {
  static std::unique_ptr<World> current;
  static unsigned uses = 0;
  if (!current || ++uses % 4096 == 0)
    current = std::make_unique<World>();
  return *current;
}

std::string nextField(const std::string& input, std::size_t& at) {
  const auto end = input.find('\0', at);
  std::string field = input.substr(at, end == std::string::npos ? std::string::npos : end - at);
  at = end == std::string::npos ? input.size() : end + 1;
  return field;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2)
    return 0;
  const auto& prefixes = servicePrefixes();
  const std::string prefix = prefixes[data[0] % prefixes.size()];
  const bool post = (data[1] & 1U) != 0;
  const bool seal = (data[1] & 2U) != 0;
  const std::string input(reinterpret_cast<const char*>(data + 2), size - 2);
  std::size_t at = 0;
  ServiceRequest request;
  request.method = post ? "POST" : "GET";
  request.host = prefix + ".localhost:8443";
  request.path = nextField(input, at);
  request.query = nextField(input, at);
  request.body = input.substr(at);
  if (seal) {
    static const QuorvelAES128Crypto crypto{std::optional<std::string>(kKey),
                                            std::make_shared<platform::OpenSslRandom>(),
                                            Log::silent()};
    if (const auto sealed = crypto.encrypt(Bytes(request.body.begin(), request.body.end())))
      request.body.assign(sealed->begin(), sealed->end());
  }
  (void)decryptPayload(kKey, request.body);
  (void)world().emulator.handle(request);
  return 0;
}
