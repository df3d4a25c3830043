// Timing goals of the library, measured outside the test suite.
#include <benchmark/benchmark.h>

#include <quorvel/Logger.h>
#include <quorvel/Platform.h>

#include "log/Log.h"
#include "log/QuorvelProxyManager.h"
#include "util/QuorvelAES128Crypto.h"

namespace {

class NullSystemLog final : public quorvel::platform::SystemLog {
 public:
  void write(std::string_view line) noexcept override { benchmark::DoNotOptimize(line.data()); }
};

void installNullSink() {
  quorvel::Platform p;
  p.systemLog = std::make_shared<NullSystemLog>();
  quorvel::installPlatform(p);
  // Remote collection off, so that only the console path is measured.
  quorvel::QuorvelProxyManager::sharedManager().stopRemoteDebugging();
}

// The cost of a log call site while the host has logging off: one byte test.
void BM_LogCallSwitchedOff(benchmark::State& state) {
  installNullSink();
  quorvel::QVSetShowDebugLogs(false);
  const quorvel::Json payload = {{"event", "Launched"}, {"counter", 3}};
  for (auto _ : state) {
    quorvel::qvLog(quorvel::kLogDebug, "-[QuorvelTracker bench]", "payload %@ n=%d", payload, 42);
  }
}
BENCHMARK(BM_LogCallSwitchedOff);

// A log call with logging on, formatted and written to a sink that discards it.
void BM_LogCallToNullSink(benchmark::State& state) {
  installNullSink();
  quorvel::QVSetShowDebugLogs(true);
  const quorvel::Json payload = {{"event", "Launched"}, {"counter", 3}};
  for (auto _ : state) {
    quorvel::qvLog(quorvel::kLogDebug, "-[QuorvelTracker bench]", "payload %@ n=%d", payload, 42);
  }
  quorvel::QVSetShowDebugLogs(false);
}
BENCHMARK(BM_LogCallToNullSink);

// Sealing a 2 KB payload: PBKDF2 (10,000 rounds) plus AES-128-CBC.
void BM_Encrypt2KB(benchmark::State& state) {
  installNullSink();
  const quorvel::QuorvelAES128Crypto crypto(std::string("0123456789ABCDEF"));
  const quorvel::Bytes payload(2048, 'x');
  for (auto _ : state) {
    benchmark::DoNotOptimize(crypto.encrypt(payload));
  }
}
BENCHMARK(BM_Encrypt2KB)->Unit(benchmark::kMicrosecond);

}  // namespace
