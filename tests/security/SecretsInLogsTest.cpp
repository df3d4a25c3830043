// A log travels further than the app: bug reports, shared terminals, remote debugging. Neither
// the developer key nor the key derived from it appears in any line of a whole session, with
// every switch on; the key shows only in its masked form.
#include <gtest/gtest.h>

#include "common/QuorvelAES128Crypto.h"
#include "log/Log.h"
#include "log/QuorvelProxyManager.h"
#include "support/TrackerFixture.h"
#include "util/Base64.h"

namespace quorvel {
namespace {

using namespace std::chrono_literals;

class SecretsInLogs : public test::TrackerFixture {};

std::string hexOf(const Bytes& bytes) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  for (const auto b : bytes) {
    out.push_back(kHex[b >> 4U]);
    out.push_back(kHex[b & 0xFU]);
  }
  return out;
}

TEST_F(SecretsInLogs, NoLineOfASessionCarriesTheDeveloperKeyOrTheKeyDerivedFromIt) {
  auto& mirror = tracker->remoteDebugging();
  tracker->logger().switches().setTrace(true);
  tracker->setCustomerUserID(std::string("user-1"));
  tracker->trackAppLaunch();
  tracker->trackEvent("purchase", std::string("9.99"));
  tracker->trackEventWithValues("level", Json{{"n", 3}});
  for (std::size_t answered = 0; answered < 20; ++answered) {
    fakes.dispatcher->advance(300ms);
    if (answered >= sent().size())
      break;
    fakes.respond(answered, 200, R"({"monitor":1})");  // the service asks for the log
  }
  ASSERT_GE(sent().size(), 3U);
  const std::string document = mirror.getJSONString().value_or("");
  mirror.stopRemoteDebugging();
  Json lines = Json::parse(document, nullptr, false);
  ASSERT_TRUE(lines.is_object()) << document;
  lines = lines.value("data", Json());  // the lines; the document's header names its app

  const QuorvelAES128Crypto cipher(std::string(kDevKey), fakes.random, Log::silent());
  const Bytes derived =
      QuorvelAES128Crypto::AESKeyForPassword(std::string(kDevKey), cipher.salt(), *Log::silent());
  const std::string raw(derived.begin(), derived.end());
  const std::vector<std::string> secrets = {kDevKey, raw, hexOf(derived), base64Encode(derived)};
  const auto console = fakes.systemLog->lines();
  ASSERT_GT(console.size(), 20U);
  std::size_t masked = 0;
  for (const auto& line : console) {
    for (const auto& secret : secrets)
      EXPECT_EQ(line.find(secret), std::string::npos) << line;
    masked += line.find(maskedSecret(kDevKey)) != std::string::npos ? 1 : 0;
  }
  EXPECT_GT(masked, 0U);  // the key's lines are still there, masked
  const std::string mirrored = lines.dump();
  ASSERT_GT(mirrored.size(), 1000U) << document.substr(0, 600);
  for (const auto& secret : secrets)
    EXPECT_EQ(mirrored.find(secret), std::string::npos);
  EXPECT_EQ(maskedSecret("DEMO-DEV-KEY-0001"), "DEMO... (17 characters)");
  EXPECT_EQ(maskedSecret("abc"), "a... (3 characters)");
}

}  // namespace
}  // namespace quorvel
