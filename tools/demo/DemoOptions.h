// The demo host's command line.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace quorvel::demo {

struct DemoOptions {
  std::optional<std::string> host;
  std::optional<std::string> caFile;
  std::optional<std::string> devKey;
  std::optional<std::string> appId;
  std::string bundleId = "com.quorvel.demo";
  std::string bundleVersion = "1";
  std::string dataDir;
  std::string keychainDir;
  std::optional<std::string> customerId;
  std::optional<std::string> currency;
  std::optional<unsigned long long> minSession;
  std::optional<std::string> receipt;
  std::optional<std::string> inviteTemplate;
  double finalFlushSeconds = 30;  // 0: return from main without flushing
  std::optional<double> exitFlushSeconds;
  bool verbose = false;
  bool trace = false;
  std::optional<std::string> script;
  std::vector<std::string> steps;
};

// Parses argv; returns an exit code to stop with (help, bad usage) or nullopt to go on.
std::optional<int> parseDemoOptions(int argc, char** argv, DemoOptions& options);

}  // namespace quorvel::demo
