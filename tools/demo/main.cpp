// quorvel-demo: a host application in miniature.
#include <quorvel/Logger.h>
#include <quorvel/Platform.h>
#include <quorvel/QuorvelTracker.h>

#include <chrono>
#include <fstream>
#include <iostream>
#include <sstream>
#include <thread>

#include "DemoOptions.h"

namespace {

using quorvel::demo::DemoOptions;

std::string show(const std::optional<std::string>& v) { return v ? "\"" + *v + "\"" : "(not set)"; }

void configure(quorvel::QuorvelTracker& tracker, const DemoOptions& o) {
  if (o.trace) tracker.setIsTrace(true);
  if (o.verbose || o.trace) tracker.setIsDebug(true);
  if (o.host) tracker.setHost(o.host);
  if (o.devKey) tracker.setQuorvelDevKey(o.devKey);
  if (o.appId) tracker.setAppleAppID(o.appId);
  if (o.customerId) tracker.setCustomerUserID(o.customerId);
  if (o.currency) tracker.setCurrencyCode(o.currency);
  if (o.minSession) tracker.setMinTimeBetweenSessions(*o.minSession);
  if (o.inviteTemplate) tracker.setAppInviteHopline(o.inviteTemplate);
}

void printConfiguration(const quorvel::QuorvelTracker& t, const quorvel::Platform& p) {
  std::cout << "Quorvel " << t.getSDKVersion() << "\n"
            << "  host                    " << t.host() << "\n"
            << "  developer key           " << show(t.quorvelDevKey()) << "\n"
            << "  app id                  " << show(t.appleAppID()) << "\n"
            << "  bundle                  " << p.bundle->bundleIdentifier().value_or("?") << " version "
            << t.getValueFromBundle("CFBundleVersion").get<std::string>() << "\n"
            << "  customer user id        " << show(t.customerUserID()) << "\n"
            << "  currency code           " << show(t.currencyCode()) << "\n"
            << "  min time between launches " << t.minTimeBetweenSessions() << " s\n"
            << "  invite template         " << show(t.appInviteHoplineID()) << "\n"
            << "  development platform    " << t.platfromDevName() << "\n"
            << "  debug log               " << (t.isDebug() ? "on" : "off") << "\n"
            << "  app data directory      " << p.fileSystem->libraryDirectory() << "\n"
            << "  store receipt           " << p.bundle->appStoreReceiptPath().value_or("(none)") << "\n";
}

std::vector<std::string> words(const std::string& step) {
  std::istringstream in(step);
  std::vector<std::string> out;
  for (std::string w; in >> w;) out.push_back(w);
  return out;
}

// Runs one step; false when it is not understood.
bool runStep(const std::string& step) {
  const auto w = words(step);
  if (w.empty()) return true;
  if (w[0] == "wait" && w.size() == 2) {
    try {
      const double seconds = std::stod(w[1]);
      if (seconds < 0 || seconds > 3600) return false;
      std::cout << "> wait " << seconds << " s\n";
      std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
      return true;
    } catch (...) {
      return false;
    }
  }
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  DemoOptions options;
  if (auto code = quorvel::demo::parseDemoOptions(argc, argv, options)) return *code;

  std::vector<std::string> steps;
  if (options.script) {
    std::ifstream in(*options.script);
    for (std::string line; std::getline(in, line);) {
      if (!line.empty() && line[0] != '#') steps.push_back(line);
    }
  }
  steps.insert(steps.end(), options.steps.begin(), options.steps.end());

  quorvel::PosixPlatformOptions platformOptions;
  platformOptions.bundleIdentifier = options.bundleId;
  platformOptions.bundleVersion = options.bundleVersion;
  platformOptions.dataDirectory = options.dataDir;
  platformOptions.keychainDirectory = options.keychainDir;
  platformOptions.receiptPath = options.receipt;
  quorvel::installPlatform(quorvel::makePosixPlatform(platformOptions));

  auto& tracker = quorvel::QuorvelTracker::sharedTracker();
  configure(tracker, options);
  printConfiguration(tracker, tracker.platform());

  for (const auto& step : steps) {
    if (!runStep(step)) {
      std::cerr << "quorvel-demo: cannot run step \"" << step << "\" (see --help)\n";
      return 2;
    }
  }
  return 0;
}
