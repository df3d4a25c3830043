// quorvel-demo: a host application in miniature.
#include <pthread.h>

#include <chrono>
#include <fstream>
#include <iostream>
#include <mutex>
#include <sstream>
#include <thread>

#include <quorvel/Logger.h>
#include <quorvel/Platform.h>
#include <quorvel/QuorvelCrossPromotionHelper.h>
#include <quorvel/QuorvelShareInviteHelper.h>
#include <quorvel/QuorvelTracker.h>

#include "DemoOptions.h"

namespace {

using quorvel::Json;
using quorvel::demo::DemoOptions;

std::mutex gOutput;

void say(const std::string& line) {
  std::lock_guard lock(gOutput);
  std::cout << line << std::endl;
}

std::string threadName() {
  char name[32] = {};
  pthread_getname_np(pthread_self(), name, sizeof name);
  return name;
}

std::string show(const std::optional<std::string>& v) {
  return v ? "\"" + *v + "\"" : "(not set)";
}

void configure(quorvel::QuorvelTracker& tracker, const DemoOptions& o) {
  if (o.trace)
    tracker.setIsTrace(true);
  if (o.verbose || o.trace)
    tracker.setIsDebug(true);
  if (o.host)
    tracker.setHost(o.host);
  if (o.devKey)
    tracker.setQuorvelDevKey(o.devKey);
  if (o.appId)
    tracker.setAppleAppID(o.appId);
  if (o.customerId)
    tracker.setCustomerUserID(o.customerId);
  if (o.currency)
    tracker.setCurrencyCode(o.currency);
  if (o.minSession)
    tracker.setMinTimeBetweenSessions(*o.minSession);
  if (o.inviteTemplate)
    tracker.setAppInviteHopline(o.inviteTemplate);
}

void printConfiguration(const quorvel::QuorvelTracker& t, const quorvel::Platform& p) {
  std::cout << "Quorvel " << t.getSDKVersion() << "\n"
            << "  host                    " << t.host() << "\n"
            << "  developer key           " << show(t.quorvelDevKey()) << "\n"
            << "  app id                  " << show(t.appleAppID()) << "\n"
            << "  bundle                  " << p.bundle->bundleIdentifier().value_or("?")
            << " version " << t.getValueFromBundle("CFBundleVersion").get<std::string>() << "\n"
            << "  customer user id        " << show(t.customerUserID()) << "\n"
            << "  currency code           " << show(t.currencyCode()) << "\n"
            << "  min time between launches " << t.minTimeBetweenSessions() << " s\n"
            << "  invite template         " << show(t.appInviteHoplineID()) << "\n"
            << "  development platform    " << t.platfromDevName() << "\n"
            << "  debug log               " << (t.isDebug() ? "on" : "off") << "\n"
            << "  app data directory      " << p.fileSystem->libraryDirectory() << "\n"
            << "  store receipt           " << p.bundle->appStoreReceiptPath().value_or("(none)")
            << "\n";
}

// What the next request would say about this installation and device.
void printInstallation(quorvel::QuorvelTracker& t, const quorvel::Platform& p) {
  // First, as a launch does: a new identifier also looks for the keychain copy.
  const std::string uid = t.getQuorvelUID();
  const auto original = p.preferences->stringForKey("QuorvelOriginalUserId");
  const double previousLaunch = p.preferences->doubleForKey("QuorvelTimePassedSincePrevLaunch");
  const auto reinstalls = p.preferences->objectForKey("QuorvelReInstallCounter");
  std::cout
      << "Installation\n"
      << "  identifier              " << uid << "\n"
      << "  original identifier     " << original.value_or("(none: first install)") << "\n"
      << "  reinstall counter       " << (reinstalls ? reinstalls->dump() : "(none)") << "\n"
      << "  launches so far         " << p.preferences->integerForKey("QuorvelCounter") << "\n"
      << "  in-app events so far    " << p.preferences->integerForKey("QuorvelInAppCounter") << "\n"
      << "  sessions so far         " << p.preferences->integerForKey("QuorvelRealLaunchCounter")
      << "\n"
      << "  install date            "
      << p.preferences->stringForKey("QuorvelInstallDate").value_or("(set by the first report)")
      << "\n"
      << "  previous launch         "
      << (previousLaunch > 0 ? std::to_string(static_cast<long long>(previousLaunch)) + " (Unix s)"
                             : "(none)")
      << "\n"
      << "  wifi                    " << (t.isWifiAvailable() ? "true" : "false") << "\n"
      << "Device\n";
  const auto& d = *p.device;
  std::cout << "  name                    " << d.name() << "\n"
            << "  model                   " << d.model() << "\n"
            << "  system                  " << d.systemName() << " " << d.systemVersion() << "\n"
            << "  system version string   " << d.operatingSystemVersionString() << "\n"
            << "  vendor identifier       " << d.identifierForVendor().value_or("(none)") << "\n"
            << std::flush;
}

std::shared_ptr<quorvel::QuorvelTrackerDelegate> makeDelegate() {
  auto d = std::make_shared<quorvel::QuorvelTrackerDelegate>();
  d->onConversionDataReceived = [](const Json& data) {
    say("< onConversionDataReceived [thread " + threadName() + "] " + data.dump());
  };
  d->onConversionDataRequestFailure = [](const quorvel::Error& e) {
    say("< onConversionDataRequestFailure [thread " + threadName() + "] " + e.description());
  };
  d->onAppOpenAttribution = [](const Json& data) {
    say("< onAppOpenAttribution [thread " + threadName() + "] " + data.dump());
  };
  return d;
}

// The rest of a step after its first `n` words.
std::string restAfterWords(const std::string& step, std::size_t n) {
  std::size_t i = 0;
  for (std::size_t w = 0; w < n; ++w) {
    i = step.find_first_not_of(' ', i);
    if (i == std::string::npos)
      return {};
    i = step.find(' ', i);
    if (i == std::string::npos)
      return {};
  }
  const auto start = step.find_first_not_of(' ', i);
  return start == std::string::npos ? std::string() : step.substr(start);
}

class Host {
 public:
  explicit Host(quorvel::QuorvelTracker& tracker) : tracker_(tracker) {}

  // Runs one step; false when it is not understood.
  bool run(const std::string& step) {
    std::istringstream in(step);
    std::vector<std::string> w;
    for (std::string word; in >> word;)
      w.push_back(word);
    if (w.empty())
      return true;
    const std::string& verb = w[0];
    say("> " + step);
    try {
      if (verb == "launch" && w.size() == 1)
        return launch();
      if (verb == "event" && (w.size() == 2 || w.size() == 3)) {
        tracker_.trackEvent(w[1], w.size() == 3 ? std::optional<std::string>(w[2]) : std::nullopt);
        return true;
      }
      if (verb == "event-values" && w.size() >= 3) {
        const Json values = Json::parse(restAfterWords(step, 2), nullptr, false);
        if (values.is_discarded())
          return false;
        tracker_.trackEventWithValues(w[1], values);
        return true;
      }
      if (verb == "location" && w.size() == 3) {
        tracker_.trackLocation(std::stod(w[1]), std::stod(w[2]));
        return true;
      }
      if (verb == "emails" && w.size() >= 3) {
        tracker_.setUserEmails(std::vector<std::string>(w.begin() + 2, w.end()), std::stoi(w[1]));
        return true;
      }
      if (verb == "background" && w.size() == 1) {
        tracker_.platform().notificationCenter->post(
            {quorvel::platform::kApplicationDidEnterBackgroundNotification, Json()});
        return true;
      }
      if (verb == "open-url" && (w.size() == 2 || w.size() == 3)) {
        tracker_.handleOpenURL(w[1],
                               w.size() == 3 ? std::optional<std::string>(w[2]) : std::nullopt);
        return true;
      }
      if (verb == "universal-link" && w.size() == 2) {
        tracker_.continueUserActivity({quorvel::kQuorvelUserActivityTypeBrowsingWeb, w[1]},
                                      nullptr);
        return true;
      }
      if (verb == "push" && w.size() >= 2) {
        const Json payload = Json::parse(restAfterWords(step, 1), nullptr, false);
        if (payload.is_discarded())
          return false;
        tracker_.handlePushNotification(payload);
        return true;
      }
      if (verb == "purchase" && w.size() == 5) {
        tracker_.validateAndTrackInAppPurchase(
            w[1], w[2], w[3], w[4], std::nullopt,
            [](const Json& r) {
              say("< purchase validated [thread " + threadName() + "] " + r.dump());
            },
            [](const std::optional<quorvel::Error>& e, const Json& r) {
              say("< purchase not validated [thread " + threadName() + "] " +
                  (e ? e->description() : "") + " " +
                  r.dump(-1, ' ', false, Json::error_handler_t::replace));
            });
        return true;
      }
      if (verb == "register-token" && w.size() == 2) {
        quorvel::Bytes token;
        const std::string& hex = w[1];
        if (hex.size() % 2 != 0 ||
            hex.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
          return false;
        for (std::size_t i = 0; i < hex.size(); i += 2) {
          token.push_back(static_cast<std::uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
        }
        tracker_.registerUninstall(token);
        return true;
      }
      if (verb == "invite" && w.size() <= 2) {
        const std::optional<std::string> channel =
            w.size() == 2 ? std::optional<std::string>(w[1]) : std::nullopt;
        quorvel::QuorvelShareInviteHelper::generateInviteUrlWithLinkGenerator(
            [channel](quorvel::QuorvelLinkGenerator generator) {
              generator.setChannel(channel);
              return generator;
            },
            [](const std::string& url) {
              say("< invite link [thread " + threadName() + "] " + url);
            });
        quorvel::QuorvelShareInviteHelper::trackInvite(channel, std::nullopt);
        return true;
      }
      if (verb == "cross-promo" && w.size() == 3) {
        quorvel::QuorvelCrossPromotionHelper::trackAndOpenStore(
            w[1], w[2], std::nullopt,
            [](const auto&, const std::string& url) { say("< promotion link " + url); });
        return true;
      }
      if (verb == "impression" && w.size() == 3) {
        quorvel::QuorvelCrossPromotionHelper::trackCrossPromoteImpression(w[1], w[2]);
        return true;
      }
      if (verb == "conversion-data" && w.size() == 1) {
        tracker_.getConversionData();
        return true;
      }
      if (verb == "idle" && w.size() == 1) {
        // Everything started so far has been answered: the service's settings are known.
        if (!tracker_.flush(std::chrono::seconds(30)))
          std::cerr << "quorvel-demo: the library was still busy after 30 s\n";
        return true;
      }
      if (verb == "wait" && w.size() == 2) {
        const double seconds = std::stod(w[1]);
        if (seconds < 0 || seconds > 3600)
          return false;
        std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
        return true;
      }
    } catch (const std::exception&) {
      return false;
    }
    return false;
  }

 private:
  bool launch() {
    tracker_.trackAppLaunch();
    return true;
  }

  quorvel::QuorvelTracker& tracker_;
};

// The launch options a real host receives: an app started by a URL (the first step is
// "open-url URL [SOURCE_APP]") finds that URL and its source in them.
Json launchOptions(const std::vector<std::string>& steps) {
  Json options = Json::object();
  if (steps.empty())
    return options;
  std::istringstream in(steps.front());
  std::string verb;
  std::string url;
  std::string source;
  in >> verb >> url >> source;
  if (verb != "open-url" || url.empty())
    return options;
  options[quorvel::platform::kLaunchOptionsURLKey] = url;
  if (!source.empty())
    options[quorvel::platform::kLaunchOptionsSourceApplicationKey] = source;
  return options;
}

// What became of this run's reports (and of those an earlier run left), as the library counts.
void printDeliveryStats(const quorvel::QuorvelDeliveryStats& s) {
  std::cout << "Delivery\n"
            << "  accepted " << s.accepted << ", delivered " << s.delivered << ", refused "
            << s.refused << ", waiting " << s.waiting << " (" << s.retrying
            << " answered 5xx/429, to go again), kept as files " << s.keptAsFiles << "\n"
            << "  dropped: over size " << s.droppedOverSize << ", over age " << s.droppedOverAge
            << ", unreadable " << s.droppedUnreadable << ", by rule " << s.droppedByRule
            << "; not kept on disk " << s.notKept << "; sent again after a lost answer "
            << s.repeated << "\n";
}

}  // namespace

int main(int argc, char** argv) {
  DemoOptions options;
  if (auto code = quorvel::demo::parseDemoOptions(argc, argv, options))
    return *code;

  std::vector<std::string> steps;
  if (options.script) {
    std::ifstream in(*options.script);
    for (std::string line; std::getline(in, line);) {
      if (!line.empty() && line[0] != '#')
        steps.push_back(line);
    }
  }
  steps.insert(steps.end(), options.steps.begin(), options.steps.end());

  quorvel::PosixPlatformOptions platformOptions;
  platformOptions.bundleIdentifier = options.bundleId;
  platformOptions.bundleVersion = options.bundleVersion;
  platformOptions.dataDirectory = options.dataDir;
  platformOptions.keychainDirectory = options.keychainDir;
  platformOptions.receiptPath = options.receipt;
  platformOptions.extraCAFile = options.caFile;
  quorvel::installPlatform(quorvel::makePosixPlatform(platformOptions));

  auto& tracker = quorvel::QuorvelTracker::sharedTracker();
  configure(tracker, options);
  if (options.exitFlushSeconds) {
    tracker.setExitFlushTimeout(
        std::chrono::milliseconds(static_cast<std::int64_t>(*options.exitFlushSeconds * 1000)));
  }
  const auto delegate = makeDelegate();
  tracker.setDelegate(delegate);
  printConfiguration(tracker, tracker.platform());
  printInstallation(tracker, tracker.platform());

  // The process starts as an app's does: did-finish-launching, with its launch options.
  tracker.platform().notificationCenter->post(
      {quorvel::platform::kApplicationDidFinishLaunchingNotification, launchOptions(steps)});
  Host host(tracker);
  for (const auto& step : steps) {
    if (!host.run(step)) {
      std::cerr << "quorvel-demo: cannot run step \"" << step << "\" (see --help)\n";
      return 2;
    }
  }
  // What the steps started (delayed ones too, such as the uninstall registration) is
  // answered while the delegate is still there to print it.
  if (options.finalFlushSeconds > 0) {
    const auto bound =
        std::chrono::milliseconds(static_cast<std::int64_t>(options.finalFlushSeconds * 1000));
    if (!tracker.flush(bound)) {
      std::cerr << "quorvel-demo: the library was still busy after " << options.finalFlushSeconds
                << " s; the exit flush keeps what is unanswered for the next run\n";
    }
  }
  printDeliveryStats(tracker.deliveryStats());
  return 0;
}
