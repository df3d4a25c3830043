#include <quorvel/platform/SearchAds.h>

#include <deque>

#include <gtest/gtest.h>

#include "device/QVSDKiAdClient.h"
#include "log/QuorvelProxyManager.h"
#include "support/TestPlatform.h"

namespace quorvel {
namespace {

using namespace std::chrono_literals;

// Answers each request with the next scripted answer, at once.
struct ScriptedAdClient final : platform::SearchAdsClient {
  struct Answer {
    std::optional<Json> details;
    std::optional<Error> error;
  };
  std::deque<Answer> answers;
  int requests = 0;
  void requestAttributionDetailsWithBlock(platform::AttributionDetailsHandler handler) override {
    ++requests;
    const Answer a = answers.empty() ? Answer{std::nullopt, Error{"ADClientError", 0, "not yet"}}
                                     : answers.front();
    if (!answers.empty())
      answers.pop_front();
    handler(a.details, a.error);
  }
};

struct ScriptedAdClientClass final : platform::SearchAdsClientClass {
  std::shared_ptr<ScriptedAdClient> client = std::make_shared<ScriptedAdClient>();
  bool answersShared = true;
  std::shared_ptr<platform::SearchAdsClient> sharedClient() override {
    return answersShared ? client : nullptr;
  }
};

class SearchAdsTest : public ::testing::Test {
 protected:
  void SetUp() override { QuorvelProxyManager::sharedManager().stopRemoteDebugging(); }
  // Starts a request and returns where its results go.
  std::shared_ptr<std::vector<Json>> request() {
    auto results = std::make_shared<std::vector<Json>>();
    client.requestAttributionDetails([results](const Json& r) { results->push_back(r); });
    return results;
  }
  void registerClient() { fakes.classRegistry->registerClass("ADClient", adClass); }

  test::TestPlatform fakes;
  QVSDKiAdClient client{fakes.shared(), fakes.log()};
  std::shared_ptr<ScriptedAdClientClass> adClass = std::make_shared<ScriptedAdClientClass>();
};

TEST_F(SearchAdsTest, NoFrameworkAClassOfTheWrongKindOrNoSharedClientIsReportedAfterTwoSeconds) {
  auto none = request();
  fakes.dispatcher->advance(1999ms);
  EXPECT_TRUE(none->empty());
  fakes.dispatcher->advance(1ms);
  EXPECT_EQ(*none, (std::vector<Json>{Json{{"error", "ADClient not loaded"}}}));
  EXPECT_EQ(fakes.dispatcher->ranOn().back(), "global");
  fakes.classRegistry->registerClass("ADClient", std::make_shared<platform::ClassMarker>());
  auto wrongKind = request();
  fakes.dispatcher->advance(2s);
  EXPECT_EQ(*wrongKind, *none);
  adClass->answersShared = false;
  registerClient();
  auto noShared = request();
  fakes.dispatcher->advance(2s);
  EXPECT_EQ(*noShared,
            (std::vector<Json>{
                Json{{"error", "requestAttributionDetailsWithBlock not respondsToSelector"}}}));
}

TEST_F(SearchAdsTest, EachKindOfAnswer) {
  struct Case {
    std::deque<ScriptedAdClient::Answer> answers;
    std::vector<Json> want;
    int requests;
    std::chrono::seconds when;
  };
  const Json details = Json{{"Version3.1", Json{{"iad-attribution", "true"}}}};
  const std::vector<Case> cases = {
      {{{details, std::nullopt}}, {details}, 1, 2s},
      {{{std::nullopt, std::nullopt}}, {}, 1, 2s},  // no error and no details: silence
      {{{std::nullopt, Error{"ADClientError", 1, "limited ad tracking"}}},
       {Json{{"error", "limited ad tracking"}}},
       1,
       2s},
      {{{std::nullopt, Error{"ADClientError", 0, "x"}}, {details, std::nullopt}}, {details}, 2, 4s},
      {{}, {Json{{"error", "ADClientErrorUnknown"}}}, 4, 8s},  // code 0 every time
  };
  for (const auto& c : cases) {
    test::TestPlatform local;
    auto cls = std::make_shared<ScriptedAdClientClass>();
    cls->client->answers = c.answers;
    local.classRegistry->registerClass("ADClient", cls);
    QVSDKiAdClient ads(local.shared(), local.log());
    auto results = std::make_shared<std::vector<Json>>();
    ads.requestAttributionDetails([results](const Json& r) { results->push_back(r); });
    local.dispatcher->advance(c.when - 1ms);
    EXPECT_TRUE(results->empty());
    local.dispatcher->advance(1h);
    EXPECT_EQ(*results, c.want);
    EXPECT_EQ(cls->client->requests, c.requests);
  }
}

}  // namespace
}  // namespace quorvel
