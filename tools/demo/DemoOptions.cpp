#include "DemoOptions.h"

#include <CLI/CLI.hpp>

namespace quorvel::demo {

std::optional<int> parseDemoOptions(int argc, char** argv, DemoOptions& o) {
  CLI::App app{
      "quorvel-demo: a host application in miniature. It configures the Quorvel library from its\n"
      "options, prints the library's version and effective configuration, then runs each STEP\n"
      "in order. The app's data directory persists between runs."};
  app.add_option("--host", o.host, "service domain of every endpoint (e.g. localhost:8443)");
  app.add_option("--ca-file", o.caFile, "extra CA certificate (PEM) to trust")
      ->check(CLI::ExistingFile);
  app.add_option("--dev-key", o.devKey, "developer key");
  app.add_option("--app-id", o.appId, "store application identifier (digits)");
  app.add_option("--bundle-id", o.bundleId, "bundle identifier")->capture_default_str();
  app.add_option("--bundle-version", o.bundleVersion, "bundle version (CFBundleVersion)")
      ->capture_default_str();
  app.add_option("--data-dir", o.dataDir,
                 "app data directory (default: $XDG_DATA_HOME/quorvel/<bundle id>)");
  app.add_option("--keychain-dir", o.keychainDir,
                 "secure store directory (default: $XDG_STATE_HOME/quorvel/keychain)");
  app.add_option("--customer-id", o.customerId, "customer user id");
  app.add_option("--currency", o.currency, "currency code");
  app.add_option("--min-session", o.minSession, "minimum seconds between launches");
  app.add_option("--receipt", o.receipt, "the app's store receipt file");
  app.add_option("--invite-template", o.inviteTemplate, "invite short-link template id");
  app.add_option("--final-flush", o.finalFlushSeconds,
                 "after the last step, wait at most SECONDS for what the library started "
                 "(0: return from main at once and leave it to the exit flush)")
      ->capture_default_str()
      ->check(CLI::Range(0.0, 3600.0));
  app.add_option("--exit-flush", o.exitFlushSeconds,
                 "the library's flush bound at process exit in SECONDS (default 2; 0: none)")
      ->check(CLI::Range(0.0, 3600.0));
  app.add_flag("--verbose", o.verbose, "show the library's log");
  app.add_flag("--trace", o.trace, "show the library's log with elapsed times and trace lines");
  app.add_option("--script", o.script, "read steps from FILE, one per line")
      ->check(CLI::ExistingFile);
  app.add_option("steps", o.steps, "steps to run, in order");
  app.footer(
      "Steps (each positional argument is one step; words separated by blanks):\n"
      "  launch                      the app becomes active (did-finish-launching first)\n"
      "  event NAME [VALUE]          an in-app event with one value\n"
      "  event-values NAME JSON      an in-app event with a dictionary of values\n"
      "  location LON LAT            the device's location\n"
      "  emails TYPE ADDRESS...      the user's e-mails (0 plain, 1 SHA-1, 2 MD5, 3 SHA-256)\n"
      "  background                  the app goes to the background\n"
      "  open-url URL [SOURCE_APP]   the app is opened with a URL\n"
      "  universal-link URL          the app is opened through a web link\n"
      "  push JSON                   a push notification's payload arrives\n"
      "  purchase PRODUCT PRICE CURRENCY TXID   a store purchase to report and validate\n"
      "  register-token HEX          the push token, for uninstall measurement\n"
      "  invite [CHANNEL]            make an invite link and record the invite\n"
      "  cross-promo APP_ID CAMPAIGN record a cross-promotion click and show its link\n"
      "  impression APP_ID CAMPAIGN  report a cross-promotion impression\n"
      "  conversion-data             ask for the install's conversion data\n"
      "  wait SECONDS                let the library work for a while\n"
      "  idle                        wait (at most 30 s) until every block the library queued\n"
      "                              has run and every request it started has been answered");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e);
  }
  return std::nullopt;
}

}  // namespace quorvel::demo
