// quorvel-devserver: the collection services on this machine, for developing and testing an
// integration of the library without the real ones.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <mutex>

#include <httplib.h>
#include <CLI/CLI.hpp>

#include "AdminServer.h"
#include "Certificates.h"
#include "Emulator.h"
#include "HttpsFrontend.h"
#include "PrivateFiles.h"
#include "RequestReport.h"
#include "RequestStore.h"
#include "SafeText.h"

namespace fs = std::filesystem;
using namespace quorvel::devserver;

namespace {

std::string defaultDataDir() {
  if (const char* state = std::getenv("XDG_STATE_HOME"); state != nullptr && *state != '\0')
    return std::string(state) + "/quorvel-devserver";
  if (const char* home = std::getenv("HOME"); home != nullptr && *home != '\0')
    return std::string(home) + "/.local/state/quorvel-devserver";
  return "quorvel-devserver-data";
}

struct ServeOptions {
  int port = 8443;
  int adminPort = 0;
  std::string dataDir = defaultDataDir();
  std::string domain = "localhost";
  std::vector<std::string> apps;
  std::string conversionDataFile;
  int monitor = 0;
  int offlineSeconds = -1;
  std::vector<std::string> fails;
  std::vector<std::string> delays;
  bool quiet = false;
};

std::mutex gLogMutex;

void logLine(const std::string& line) {
  const std::lock_guard lock(gLogMutex);
  std::cerr << "quorvel-devserver: " << terminalSafe(line, false) << std::endl;
}

// "A=B" split at the first "="; nothing when there is none or a side is empty.
std::optional<std::pair<std::string, std::string>> splitPair(const std::string& text) {
  const auto eq = text.find('=');
  if (eq == std::string::npos || eq == 0 || eq + 1 == text.size())
    return std::nullopt;
  return std::make_pair(text.substr(0, eq), text.substr(eq + 1));
}

std::optional<int> wholeNumber(const std::string& text) {
  if (text.empty() || text.size() > 9 || text.find_first_not_of("0123456789") != std::string::npos)
    return std::nullopt;
  return std::stoi(text);
}

int serve(const ServeOptions& o) {
  EmulatorConfig config;
  config.domain = o.domain;
  config.monitor = o.monitor;
  for (const auto& app : o.apps) {
    const auto pair = splitPair(app);
    if (!pair) {
      logLine("--app takes APPID=DEVKEY, not \"" + app + "\"");
      return 2;
    }
    config.apps[pair->first] = pair->second;
  }
  if (!o.conversionDataFile.empty()) {
    std::ifstream in(o.conversionDataFile);
    config.conversionData = Json::parse(in, nullptr, false);
    if (!config.conversionData.is_object()) {
      logLine("--conversion-data: " + o.conversionDataFile + " is not a JSON object");
      return 2;
    }
  }
  Faults faults;
  for (const auto& fail : o.fails) {
    const auto pair = splitPair(fail);
    const auto code = pair ? wholeNumber(pair->second) : std::nullopt;
    if (!code) {
      logLine("--fail takes SERVICE=STATUS, not \"" + fail + "\"");
      return 2;
    }
    faults.failService(pair->first, *code);
  }
  for (const auto& delay : o.delays) {
    const auto pair = splitPair(delay);
    const auto ms = pair ? wholeNumber(pair->second) : std::nullopt;
    if (!ms) {
      logLine("--delay takes SERVICE=MILLISECONDS, not \"" + delay + "\"");
      return 2;
    }
    faults.delayService(pair->first, std::chrono::milliseconds(*ms));
  }

  // Signals are taken by sigwait below; every thread started from here inherits the mask.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  // Everything this process writes is its user's alone. The folder and the database are made
  // private one by one as well; the mask covers the rest (certificates, temporary files).
  ::umask(077);
  const fs::path dataDir = fs::absolute(o.dataDir);
  makePrivateDirectory(dataDir);
  RequestStore store((dataDir / "requests.sqlite").string());
  const Emulator::LogSink log =
      o.quiet ? Emulator::LogSink([](const std::string&) {}) : Emulator::LogSink(logLine);

  const CertificateFiles certificates =
      ensureCertificates((dataDir / "tls").string(), certificateHosts(config.domain));
  Emulator emulator(config, store, faults, log);
  HttpsFrontend frontend(emulator, faults, certificates, "127.0.0.1", log);
  frontend.start(o.port);
  // With --port 0 the port is known only once bound.
  emulator.setPort(frontend.port());
  AdminServer admin(emulator, faults, store, log);
  admin.start(o.adminPort);
  if (o.offlineSeconds >= 0) {
    faults.goOffline(o.offlineSeconds == 0
                         ? std::nullopt
                         : std::optional(std::chrono::milliseconds(o.offlineSeconds * 1000LL)));
  }

  const Json state = {{"pid", ::getpid()},
                      {"port", frontend.port()},
                      {"admin_port", admin.port()},
                      {"admin_token", admin.token()},
                      {"service_domain", emulator.serviceDomain()},
                      {"ca_file", certificates.caFile},
                      {"database", (dataDir / "requests.sqlite").string()}};
  writePrivateFileAtomically(dataDir / "server.json", state.dump(2) + "\n");
  std::cout << "quorvel-devserver ready\n"
            << "  service domain  " << emulator.serviceDomain() << "   (the library's host)\n"
            << "  trust CA        " << certificates.caFile << "\n"
            << "  inspector       http://127.0.0.1:" << admin.port()
            << "/   (open it in a browser)\n"
            << "  admin           http://127.0.0.1:" << admin.port() << "\n"
            << "  requests        " << (dataDir / "requests.sqlite").string() << "\n"
            << "  apps            ";
  if (config.apps.empty())
    std::cout << "(none: every tracking request will be refused; add --app APPID=DEVKEY)";
  for (const auto& [appId, key] : config.apps)
    std::cout << appId << " ";
  std::cout << std::endl;

  int received = 0;
  sigwait(&signals, &received);
  logLine(std::string("stopping (") + (received == SIGINT ? "SIGINT" : "SIGTERM") + ")");
  admin.stop();
  frontend.stop();
  std::error_code ignored;
  fs::remove(dataDir / "server.json", ignored);
  return 0;
}

int showRequests(const std::string& dataDir, bool json, bool full) {
  const fs::path database = fs::path(dataDir) / "requests.sqlite";
  if (!fs::exists(database)) {
    std::cerr << "quorvel-devserver: no requests recorded in " << dataDir << "\n";
    return 1;
  }
  const RequestStore store(database.string());
  const auto requests = store.all();
  if (json)
    printRequestsJson(std::cout, requests);
  else
    printRequestsText(std::cout, requests, full);
  return 0;
}

Json serverState(const std::string& dataDir) {
  std::ifstream in(fs::path(dataDir) / "server.json");
  const Json state = Json::parse(in, nullptr, false);
  return state.is_object() ? state : Json::object();
}

int adminPortFrom(const Json& state) {
  if (!state.contains("admin_port") || !state["admin_port"].is_number())
    return 0;
  return state["admin_port"].get<int>();
}

int fault(const std::string& dataDir, int adminPort, const std::vector<std::string>& words) {
  const Json state = serverState(dataDir);
  if (adminPort == 0)
    adminPort = adminPortFrom(state);
  if (adminPort == 0) {
    std::cerr << "quorvel-devserver: no running server found in " << dataDir
              << " (give --admin-port)\n";
    return 1;
  }
  const std::string verb = words.empty() ? "show" : words[0];
  const auto arg = [&](std::size_t i) { return i < words.size() ? words[i] : std::string(); };
  std::string path;
  if (verb == "show" && words.size() <= 1)
    path = "";
  else if (verb == "offline" && words.size() <= 2)
    path = words.size() == 2 ? "/faults/offline?seconds=" + arg(1) : "/faults/offline";
  else if (verb == "online" && words.size() == 1)
    path = "/faults/online";
  else if (verb == "status" && (words.size() == 3 || words.size() == 4))
    path = "/faults/status?service=" + arg(1) + "&code=" + arg(2) +
           (words.size() == 4 ? "&retry_after=" + arg(3) : std::string());
  else if (verb == "delay" && words.size() == 3)
    path = "/faults/delay?service=" + arg(1) + "&ms=" + arg(2);
  else if (verb == "clear" && words.size() == 1)
    path = "/faults/clear";
  else if (verb == "monitor" && words.size() == 2)
    path = "/monitor?value=" + arg(1);
  else {
    std::cerr << "quorvel-devserver fault: unknown action (see --help)\n";
    return 2;
  }
  httplib::Client client("127.0.0.1", adminPort);
  client.set_connection_timeout(5, 0);
  client.set_read_timeout(10, 0);
  const httplib::Headers headers = {
      {AdminServer::kTokenHeader, state.value("admin_token", std::string())}};
  const auto result =
      path.empty() ? client.Get("/faults", headers) : client.Post(path, headers, "", "text/plain");
  if (!result) {
    std::cerr << "quorvel-devserver: admin port " << adminPort << " does not answer\n";
    return 1;
  }
  std::cout << result->body;
  return result->status == 200 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{
      "quorvel-devserver: the Quorvel collection services on this machine. Serves HTTPS on\n"
      "loopback for every service host of the library, decrypts what it receives with each\n"
      "app's developer key, records every request in SQLite, and plays faults on demand."};
  app.require_subcommand(0, 1);
  ServeOptions o;
  app.add_option("--port", o.port, "HTTPS port; 0 takes a free one")->capture_default_str();
  app.add_option("--admin-port", o.adminPort,
                 "plain HTTP admin port on 127.0.0.1; 0 takes a free one");
  app.add_option("--data-dir", o.dataDir, "certificates, database and server.json")
      ->capture_default_str();
  app.add_option("--domain", o.domain, "service domain without the port")->capture_default_str();
  app.add_option("--app", o.apps, "a known app and its developer key: APPID=DEVKEY (repeatable)");
  app.add_option("--conversion-data", o.conversionDataFile,
                 "JSON object: conversion data per \"APPID/DEVICEID\", \"APPID\" or \"*\"")
      ->check(CLI::ExistingFile);
  app.add_option("--monitor", o.monitor,
                 "\"monitor\" value of tracking answers (1: remote debugging on)");
  app.add_option("--offline", o.offlineSeconds, "start offline for SECONDS (0: until told)");
  app.add_option("--fail", o.fails, "answer STATUS on SERVICE: SERVICE=STATUS (\"*\" for all)");
  app.add_option("--delay", o.delays, "answer SERVICE late: SERVICE=MILLISECONDS");
  app.add_flag("--quiet", o.quiet, "no log line per request");

  std::string dataDir = defaultDataDir();
  bool json = false;
  bool full = false;
  auto* requests = app.add_subcommand("requests", "print the requests received");
  requests->add_option("--data-dir", dataDir, "the server's data directory")->capture_default_str();
  requests->add_flag("--json", json, "one JSON array, for scripts");
  requests->add_flag("--full", full, "every payload whole");

  int adminPort = 0;
  std::vector<std::string> words;
  auto* faultCommand = app.add_subcommand(
      "fault",
      "switch faults of a running server: show | offline [SECONDS] | online |\n"
      "status SERVICE CODE [RETRY_AFTER_S] | delay SERVICE MS | clear | monitor N");
  faultCommand->add_option("--data-dir", dataDir, "the server's data directory")
      ->capture_default_str();
  faultCommand->add_option("--admin-port", adminPort, "the server's admin port");
  faultCommand->add_option("action", words, "the action and its arguments");
  app.footer(
      "Services: t. events. attr. validate. (tracking), stats. sdk. (conversion data)\n"
      "hopline. (short links) sdk-services. (receipts) register. monitorsdk. app. impressions.\n"
      "quorvel.link. — each followed by the domain. Faults name services by these prefixes.");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e);
  }
  try {
    if (requests->parsed())
      return showRequests(dataDir, json, full);
    if (faultCommand->parsed())
      return fault(dataDir, adminPort, words);
    return serve(o);
  } catch (const std::exception& e) {
    logLine(e.what());
    return 1;
  }
}
