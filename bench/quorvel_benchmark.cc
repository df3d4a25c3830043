// Timing goals of the library, measured outside the test suite.
#include <benchmark/benchmark.h>

#include <filesystem>

#include <quorvel/Logger.h>
#include <quorvel/Platform.h>

#include "common/QuorvelAES128Crypto.h"
#include "log/Log.h"
#include "log/QuorvelProxyManager.h"
#include "tracker/TrackerCore.h"
#include "util/QuorvelDictionary.h"

#include <quorvel/QuorvelTracker.h>
#include <quorvel/testing/TestPlatform.h>

namespace {

class NullSystemLog final : public quorvel::platform::SystemLog {
 public:
  void write(std::string_view line) noexcept override { benchmark::DoNotOptimize(line.data()); }
};

// A tracker's logger writing to a sink that discards every line, mirroring nowhere.
std::shared_ptr<const quorvel::Log> nullLog(bool debug) {
  auto switches = std::make_shared<quorvel::LogSwitches>();
  switches->setDebug(debug);
  return std::make_shared<const quorvel::Log>(switches, quorvel::makePosixPlatform({}).clock,
                                              std::make_shared<NullSystemLog>(), nullptr);
}

// The cost of a log call site while the host has logging off: one byte test.
void BM_LogCallSwitchedOff(benchmark::State& state) {
  const auto log = nullLog(false);
  const quorvel::Json payload = {{"event", "Launched"}, {"counter", 3}};
  for (auto _ : state)
    log->log(quorvel::kLogDebug, "-[QuorvelTracker bench]", "payload %@ n=%d", payload, 42);
}
BENCHMARK(BM_LogCallSwitchedOff);

// A log call with logging on, formatted and written to a sink that discards it.
void BM_LogCallToNullSink(benchmark::State& state) {
  const auto log = nullLog(true);
  const quorvel::Json payload = {{"event", "Launched"}, {"counter", 3}};
  for (auto _ : state)
    log->log(quorvel::kLogDebug, "-[QuorvelTracker bench]", "payload %@ n=%d", payload, 42);
}
BENCHMARK(BM_LogCallToNullSink);

// Sealing a 2 KB payload: PBKDF2 (10,000 rounds) plus AES-128-CBC.
void BM_Encrypt2KB(benchmark::State& state) {
  const quorvel::QuorvelAES128Crypto crypto(std::string("0123456789ABCDEF"),
                                            quorvel::makePosixPlatform({}).random, nullLog(false));
  const quorvel::Bytes payload(2048, 'x');
  for (auto _ : state) {
    benchmark::DoNotOptimize(crypto.encrypt(payload));
  }
}
BENCHMARK(BM_Encrypt2KB)->Unit(benchmark::kMicrosecond);

}  // namespace

namespace {

// A tracker whose queues never run: measures what the host's thread pays for a call.
class ParkedQueue final : public quorvel::platform::DispatchQueue {
 public:
  const std::string& label() const noexcept override { return label_; }
  void async(quorvel::platform::Work work) noexcept override { keep(std::move(work)); }
  void asyncAfter(std::chrono::nanoseconds, quorvel::platform::Work work) noexcept override {
    keep(std::move(work));
  }
  bool isCurrent() const noexcept override { return false; }

 private:
  void keep(quorvel::platform::Work work) {
    // Dropped at once: only the scheduling is measured.
    benchmark::DoNotOptimize(&work);
  }
  std::string label_ = "parked";
};

class ParkedDispatcher final : public quorvel::platform::Dispatcher {
 public:
  std::shared_ptr<quorvel::platform::DispatchQueue> makeSerialQueue(std::string) override {
    return queue_;
  }
  std::shared_ptr<quorvel::platform::DispatchQueue> mainQueue() override { return queue_; }
  std::shared_ptr<quorvel::platform::DispatchQueue> globalQueue() override { return queue_; }

 private:
  std::shared_ptr<ParkedQueue> queue_ = std::make_shared<ParkedQueue>();
};

// Each benchmark starts as a fresh install: an outbox left by the one before (whose parked
// reports were written at its end) would be loaded and measured too.
std::shared_ptr<const quorvel::Platform> benchPlatform(bool parked) {
  std::error_code ignored;
  std::filesystem::remove_all("/tmp/quorvel-bench", ignored);
  quorvel::PosixPlatformOptions options;
  options.bundleIdentifier = "com.quorvel.bench";
  options.dataDirectory = "/tmp/quorvel-bench/data";
  options.keychainDirectory = "/tmp/quorvel-bench/keychain";
  quorvel::Platform p = quorvel::makePosixPlatform(options);
  p.systemLog = std::make_shared<NullSystemLog>();
  if (parked)
    p.dispatcher = std::make_shared<ParkedDispatcher>();
  quorvel::installPlatform(p);
  quorvel::QuorvelProxyManager::sharedManager().stopRemoteDebugging();
  return std::make_shared<const quorvel::Platform>(p);
}

void BM_TrackEventHostThread(benchmark::State& state) {
  quorvel::TrackerCore tracker(benchPlatform(true), quorvel::QuorvelProxyManager::sharedManager());
  tracker.setQuorvelDevKey(std::string("0123456789ABCDEF"));
  const std::optional<std::string> value("9.99");
  for (auto _ : state)
    tracker.trackEvent("purchase_made", value);
}
BENCHMARK(BM_TrackEventHostThread);

void BM_TrackAppLaunchHostThread(benchmark::State& state) {
  quorvel::TrackerCore tracker(benchPlatform(true), quorvel::QuorvelProxyManager::sharedManager());
  tracker.setQuorvelDevKey(std::string("0123456789ABCDEF"));
  // Search Ads details stored, as on every launch after the first.
  tracker.platform().preferences->setObject("QuorvelSearchAdsAttribution", quorvel::Json::object());
  for (auto _ : state)
    tracker.trackAppLaunch();
}
BENCHMARK(BM_TrackAppLaunchHostThread);

// The whole cost of a launch request before it reaches the network: the payload, its JSON
// text and the encryption (key derivation included).
void BM_LaunchPayloadBuildSerialiseEncrypt(benchmark::State& state) {
  quorvel::TrackerCore tracker(benchPlatform(true), quorvel::QuorvelProxyManager::sharedManager());
  tracker.setQuorvelDevKey(std::string("0123456789ABCDEF"));
  tracker.setAppleAppID(std::string("123456789"));
  for (auto _ : state) {
    const quorvel::QuorvelDictionary payload = tracker.getEventParameters(true);
    benchmark::DoNotOptimize(tracker.encryptData(payload));
  }
}
BENCHMARK(BM_LaunchPayloadBuildSerialiseEncrypt)->Unit(benchmark::kMicrosecond);

// Forgetting an install that holds all it can: a full kept-request folder, reports waiting in
// the outbox, identifiers, counters and the uninstall token, on the real files. Goal: 100 ms.
void BM_ForgetThisInstall(benchmark::State& state) {
  using namespace std::chrono_literals;
  constexpr const char* kKey = "0123456789ABCDEF";
  quorvel::PosixPlatformOptions options;
  options.bundleIdentifier = "com.quorvel.bench";
  options.dataDirectory = "/tmp/quorvel-bench/data";
  options.keychainDirectory = "/tmp/quorvel-bench/keychain";
  std::optional<quorvel::testkit::TestPlatform> kit;
  std::optional<quorvel::QuorvelTracker> tracker;
  for (auto _ : state) {
    state.PauseTiming();
    tracker.reset();  // the last one's end is not the forgetting's cost
    kit.reset();
    std::error_code ignored;
    std::filesystem::remove_all("/tmp/quorvel-bench", ignored);
    kit = quorvel::testkit::makeTestPlatform(options, kKey);
    tracker.emplace(kit->platform);
    tracker->setQuorvelDevKey(std::string(kKey));
    tracker->setAppleAppID(std::string("123456789"));
    tracker->trackAppLaunch();
    kit->dispatcher->advance(10s);
    tracker->registerUninstall(quorvel::Bytes{1, 2, 3, 4});
    kit->transport->setResponder([](const auto&) { return quorvel::testkit::Answer::offline(); });
    for (int i = 0; i < 200; ++i)
      tracker->trackEvent("waiting", std::nullopt);
    kit->dispatcher->advance(10s);
    state.ResumeTiming();
    benchmark::DoNotOptimize(tracker->forgetThisInstall());
  }
}
BENCHMARK(BM_ForgetThisInstall)->Unit(benchmark::kMillisecond)->Iterations(5);

}  // namespace
