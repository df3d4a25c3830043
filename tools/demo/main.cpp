// quorvel-demo: a host application in miniature.
#include <quorvel/Logger.h>
#include <quorvel/Platform.h>
#include <quorvel/QuorvelTracker.h>

#include <chrono>
#include <fstream>
#include <future>
#include <iostream>
#include <sstream>
#include <thread>

#include "DemoOptions.h"
#include "device/QVSystemInfo.h"
#include "util/QuorvelUtils.h"

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

// What the next request would say about this installation and device.
void printInstallation(quorvel::QuorvelTracker& t, const quorvel::Platform& p) {
  const auto formatter = quorvel::QuorvelUtils::getDateFormatter(p.clock);
  // First, as a launch does: a new identifier also looks for the keychain copy.
  const std::string uid = t.getQuorvelUID();
  const auto original = p.preferences->stringForKey("QuorvelOriginalUserId");
  const double previousLaunch = p.preferences->doubleForKey("QuorvelTimePassedSincePrevLaunch");
  const auto version = p.bundle->objectForInfoDictionaryKey("CFBundleVersion");
  const auto tmpModified = p.fileSystem->modificationDate(p.fileSystem->temporaryDirectory());
  const auto date3 = t.getVersionUpdateDate(
      version && version->is_string() ? std::optional<std::string>(version->get<std::string>()) : std::nullopt,
      tmpModified ? std::optional<std::string>(formatter.stringFromDate(*tmpModified)) : std::nullopt);
  const auto reinstalls = p.preferences->objectForKey("QuorvelReInstallCounter");
  std::cout << "Installation\n"
            << "  identifier              " << uid << "\n"
            << "  original identifier     " << original.value_or("(none: first install)") << "\n"
            << "  reinstall counter       " << (reinstalls ? reinstalls->dump() : "(none)") << "\n"
            << "  launches so far         " << t.getCounter(false) << "\n"
            << "  in-app events so far    " << t.getInAppCounter(false) << "\n"
            << "  session counter         " << t.getRealLaunchCounter() << "\n"
            << "  install date            " << t.getInstallDate(formatter).value_or("(unknown)") << "\n"
            << "  first launch date       " << t.getFirstLanuchDate(formatter) << "\n"
            << "  version update date     " << date3.value_or("(unknown)") << "\n"
            << "  previous launch         "
            << (previousLaunch > 0 ? std::to_string(static_cast<long long>(previousLaunch)) + " (Unix s)" : "(none)")
            << "\n"
            << "  wifi                    " << (t.isWifiAvailable() ? "true" : "false") << "\n"
            << "Device\n";
  const quorvel::Json systemInfo = quorvel::QVSystemInfo::getSystemInfo(p);
  for (const auto& [key, value] : systemInfo.items()) {
    std::cout << "  " << key << std::string(key.size() < 24 ? 24 - key.size() : 1, ' ')
              << value.get<std::string>() << "\n";
  }
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

// Waits, with a bound, until the work the library queued so far has run.
void waitForLibrary(quorvel::QuorvelTracker& tracker) {
  auto done = std::make_shared<std::promise<void>>();
  tracker.backgroundQueue()->async([done] { done->set_value(); });
  if (done->get_future().wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
    std::cerr << "quorvel-demo: the library's queue did not finish within 10 s\n";
  }
  tracker.platform().preferences->synchronize();
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
  printInstallation(tracker, tracker.platform());

  for (const auto& step : steps) {
    if (!runStep(step)) {
      std::cerr << "quorvel-demo: cannot run step \"" << step << "\" (see --help)\n";
      return 2;
    }
  }
  waitForLibrary(tracker);
  return 0;
}
