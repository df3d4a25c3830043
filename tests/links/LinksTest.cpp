#include <quorvel/QuorvelCrossPromotionHelper.h>
#include <quorvel/QuorvelLinkGenerator.h>
#include <quorvel/QuorvelShareInviteHelper.h>
#include <quorvel/QuorvelTracker.h>

#include <gtest/gtest.h>

#include "common/QuorvelUtils.h"
#include "log/QuorvelProxyManager.h"
#include "platform/Url.h"
#include "support/Decrypt.h"
#include "support/TestPlatform.h"
#include "support/TrackerFixture.h"
#include "tracker/TrackerCore.h"
#include "util/PreferenceKeys.h"

namespace quorvel {
namespace {

using namespace std::chrono_literals;

class LinkGeneratorTest : public test::TrackerFixture {
 protected:
  LinkGeneratorTest() : TrackerFixture(true, false) {}
  void SetUp() override {
    TrackerFixture::SetUp();
    tracker->setHost(std::string("svc.example"));
  }
};

TEST_F(LinkGeneratorTest, LongLinkRules) {
  struct Case {
    std::string name;
    std::function<void(QuorvelLinkGenerator&)> setup;
    std::string want;
  };
  const std::vector<Case> cases = {
      {"media source only", [](auto&) {}, "https://app.svc.example?pid=m"},
      {"escaping", [](auto& g) { g.addParameterValue(Json("a b&c"), "k/ey"); },
       "https://app.svc.example?pid=m&k%2Fey=a%20b%26c"},
      {"reserved set", [](auto& g) { g.setCampaign(std::string("!*'\"();:@&=+$,/?%#[]")); },
       "https://"
       "app.svc.example?pid=m&c=%21%2A%27%22%28%29%3B%3A%40%26%3D%2B%24%2C%2F%3F%25%23%5B%5D"},
      {"non-string dropped, separator kept",
       [](auto& g) {
         g.addParameterValue(Json(5), "n");
         g.addParameterValue(Json("v"), "s");
       },
       "https://app.svc.example?pid=m&&s=v"},
      {"pid replaced through parameters",
       [](auto& g) {
         g.addParameters(Json{{"pid", "other"}});
       },
       "https://app.svc.example?pid=other"},
      {"null removes",
       [](auto& g) {
         g.addParameterValue(Json("x"), "k");
         g.addParameters(Json{{"k", nullptr}});
       },
       "https://app.svc.example?pid=m"},
      {"app id path", [](auto& g) { g.setAppleAppID(std::string("123")); },
       "https://app.svc.example/id123?pid=m"},
      {"deep link base only", [](auto& g) { g.setBaseDeeplink(std::string("myapp://")); },
       "https://app.svc.example?pid=m&qv_dp=myapp%3A%2F%2F"},
      {"deep link with path",
       [](auto& g) {
         g.setDeeplinkPath(std::string("shop/1"));
         g.setBaseDeeplink(std::string("myapp://"));
       },
       "https://app.svc.example?pid=m&qv_dp=myapp%3A%2F%2Fshop%2F1"},
      {"named attributes",
       [](auto& g) {
         g.setChannel(std::string("sms"));
         g.setReferrerUID(std::string("u1"));
         g.setReferrerCustomerId(std::string("c1"));
         g.setReferrerName(std::string("Ann"));
         g.setReferrerImageURL(std::string("https://i/x.png"));
         g.setBaseURL(std::string("https://go.example/t"));
       },
       "https://go.example/"
       "t?pid=m&qv_channel=sms&referrer_qv_id=u1&qv_referrer_customer_id=c1&qv_referrer_name=Ann"
       "&qv_referrer_image_url=https%3A%2F%2Fi%2Fx.png"},
      {"unicode", [](auto& g) { g.setCampaign(std::string("\xc3\xa9t\xc3\xa9")); },
       "https://app.svc.example?pid=m&c=%C3%A9t%C3%A9"},
      {"a missing value is ignored",
       [](auto& g) {
         g.setChannel(std::string("a"));
         g.setChannel(std::nullopt);
       },
       "https://app.svc.example?pid=m&qv_channel=a"},
      {"a huge value", [](auto& g) { g.setCampaign(std::string(100'000, 'x')); },
       "https://app.svc.example?pid=m&c=" + std::string(100'000, 'x')},
  };
  for (const auto& c : cases) {
    QuorvelLinkGenerator g(std::string("m"), *facade);
    c.setup(g);
    EXPECT_EQ(g.generateLink(), c.want) << c.name;
    EXPECT_TRUE(Url::parse(g.generateLink())) << c.name;
  }
  EXPECT_EQ(QuorvelLinkGenerator::encodeValue("a b/c:d"), "a%20b%2Fc:d");
}

TEST_F(LinkGeneratorTest, ShortLinkFallsBackToTheLongLinkOnEveryFailure) {
  tracker->setQuorvelDevKey(std::string("KEY"));
  QuorvelLinkGenerator g(std::string("m"), *facade);
  const std::string longLink = g.generateLink();
  std::vector<std::string> urls;
  const auto record = [&](const std::string& u) { urls.push_back(u); };

  g.generateHoplineWithCompletionHandler(record);  // no template id: at once
  ASSERT_EQ(urls, std::vector<std::string>{longLink});

  tracker->setAppInviteHopline(std::string("tmpl"));
  struct Answer {
    std::function<void(const test::TestPlatform&, std::size_t)> respond;
    std::string want;
  };
  const std::vector<Answer> answers = {
      {[](auto& s, auto i) { s.respond(i, 200, "https://go.quorvel.link/tmpl/abc", "text/plain"); },
       "https://go.quorvel.link/tmpl/abc"},
      {[](auto& s, auto i) { s.respond(i, 200, "not a url", "text/plain"); }, longLink},
      {[](auto& s, auto i) { s.respond(i, 200, "/path/only", "text/plain"); }, longLink},
      {[](auto& s, auto i) { s.respond(i, 500, "https://x.example/a"); }, longLink},
      {[](auto& s, auto i) {
         s.fail(i, Error{platform::kURLErrorDomain, -1004, "refused"});
       },
       longLink},
  };
  for (std::size_t i = 0; i < answers.size(); ++i) {
    urls.clear();
    g.generateHoplineWithTTL(30, record);
    EXPECT_TRUE(urls.empty());
    const auto r = fakes.requests().at(i);
    EXPECT_EQ(r.url, "https://hopline.svc.example/shortlink-sdk/v1/tmpl");
    answers[i].respond(fakes, i);
    fakes.dispatcher->runUntilIdle();
    EXPECT_EQ(urls, std::vector<std::string>{answers[i].want}) << i;
  }
  const auto body = fakes.requests().at(0).body;
  EXPECT_EQ(Json::parse(body.begin(), body.end()),
            (Json{{"ttl", "30"}, {"data", Json{{"pid", "m"}}}}));
  tracker->setQuorvelDevKey(std::nullopt);
  urls.clear();
  g.generateHoplineWithCompletionHandler(record);
  EXPECT_EQ(urls, std::vector<std::string>{longLink});
}

class HelpersTest : public test::TrackerFixture {
 protected:
  void SetUp() override {
    TrackerFixture::SetUp();
    tracker->setAppleAppID(std::string("555"));
  }
  Json lastEvent() { return payload(sent().size() - 1); }
};

TEST_F(HelpersTest, InviteLinksCarryTheAppIdOrTheServicesSettingsWithATemplate) {
  const QuorvelLinkGenerator g = QuorvelShareInviteHelper::createLink(*facade, "qv_app_invites");
  EXPECT_EQ(g.generateLink(), "https://app.svc.example/id555?pid=qv_app_invites&referrer_qv_id=" +
                                  facade->getQuorvelUID() + "&qv_siteid=555");
  // With a template, the service's link settings make the base; no app id then.
  facade->setAppInviteHopline(std::string("tmpl"));
  struct Case {
    std::optional<std::string> domain, scheme;
    std::string base;
    bool deeplink;
  };
  const Case cases[] = {
      {std::string("abc"), std::string("app"), std::string("https://") + kHoplineSchema + "/tmpl",
       false},
      {std::string("abcd"), std::string("app1"), "https://abcd/tmpl", true},
  };
  for (const auto& c : cases) {
    fakes.preferences->setString(keys::kHoplineDomain, *c.domain);
    fakes.preferences->setString(keys::kHoplineScheme, *c.scheme);
    const QuorvelLinkGenerator made =
        QuorvelShareInviteHelper::createLink(*facade, "qv_app_invites");
    EXPECT_EQ(made.baseURL(), c.base);
    EXPECT_EQ(made.baseDeeplink().has_value(), c.deeplink);
    EXPECT_FALSE(made.appleAppID());
  }
}

TEST_F(HelpersTest, InviteAndCrossPromotionEventsReachThePipeline) {
  QuorvelShareInviteHelper::trackInvite(*facade, std::string("sms"),
                                        Json{{"k", "v"}, {"gone", nullptr}});
  fakes.dispatcher->advance(100ms);
  Json event = lastEvent();
  EXPECT_EQ(event["event"], "qv_invite");
  EXPECT_EQ(event["eventvalue"], "%7B%22k%22:%22v%22%2C%22qv_channel%22:%22sms%22%7D");

  QuorvelShareInviteHelper::trackLinkedSent(*facade, "custom", std::nullopt, Json{{"a", "b"}});
  fakes.dispatcher->advance(100ms);
  EXPECT_EQ(lastEvent()["eventvalue"], "%7B%22a%22:%22b%22%7D");

  std::vector<std::string> opened;
  std::size_t eventsBefore = 0;
  QuorvelCrossPromotionHelper::trackAndOpenStore(
      *facade, "999", std::string("spring"), Json{{"x", "1"}},
      [&](std::shared_ptr<platform::URLSession> session, const std::string& url) {
        EXPECT_TRUE(session && session != fakes.transport->sharedSession());  // a new one
        opened.push_back(url);
        eventsBefore = fakes.dispatcher->pendingCount();
      });
  ASSERT_EQ(opened.size(), 1U);
  EXPECT_EQ(opened[0],
            "https://app.svc.example/id999?pid=qv_cross_promotion&c=spring&qv_siteid=555&x=1");
  EXPECT_GE(eventsBefore, 1U);  // the click was queued before the callback
  fakes.dispatcher->advance(100ms);
  event = lastEvent();
  EXPECT_EQ(event["event"], "qv_cross_promotion_clicked");
  EXPECT_EQ(event["eventvalue"], "%7B%22x%22:%221%22%2C%22qv_campaign%22:%22spring%22%7D");
}

// A stopped library sends nothing for its links either: no impression, no short link (the
// long link is given at once), and no identifier of the install in the links it makes.
TEST_F(HelpersTest, NothingLeavesForLinksWhileStopped) {
  facade->setAdvertiserId("AD-ID");
  facade->setQuorvelDevKey(std::string("KEY"));
  facade->setAppInviteHopline(std::string("tmpl"));
  facade->setStopped(true);
  const std::size_t before = fakes.transport->sent().size();
  QuorvelCrossPromotionHelper::trackCrossPromoteImpression(*facade, "999", std::string("spring"));
  std::vector<std::string> urls;
  QuorvelShareInviteHelper::generateInviteUrlWithLinkGenerator(
      *facade, [](QuorvelLinkGenerator gen) { return gen; },
      [&](const std::string& u) { urls.push_back(u); });
  QuorvelLinkGenerator(std::string("m"), *facade)
      .generateHoplineWithTTL(30, [&](const std::string& u) { urls.push_back(u); });
  QuorvelCrossPromotionHelper::trackAndOpenStore(
      *facade, "999", std::nullopt, std::nullopt,
      [&](std::shared_ptr<platform::URLSession>, const std::string& u) { urls.push_back(u); });
  fakes.dispatcher->advance(10s);
  EXPECT_EQ(fakes.transport->sent().size(), before);
  ASSERT_EQ(urls.size(), 3U);
  for (const auto& u : urls) {
    EXPECT_EQ(u.find("AD-ID"), std::string::npos) << u;
    EXPECT_EQ(u.find("referrer_qv_id"), std::string::npos) << u;
  }
}

// The forms without a tracker are the same calls on the shared one.
TEST(HelpersOfTheSharedTracker, FormsWithoutATrackerUseTheSharedOne) {
  const test::TestPlatform fakes;  // for a shared tracker first made here
  fakes.install();
  auto& shared = QuorvelTracker::sharedTracker();
  shared.setAppleAppID(std::string("777"));
  EXPECT_EQ(QuorvelShareInviteHelper::createLink("qv_app_invites").generateLink(),
            QuorvelShareInviteHelper::createLink(shared, "qv_app_invites").generateLink());
  EXPECT_EQ(QuorvelCrossPromotionHelper::createLinkGenerator("9", std::nullopt, Json(), "")
                .generateLink(),
            QuorvelCrossPromotionHelper::createLinkGenerator(shared, "9", std::nullopt, Json(), "")
                .generateLink());
}

TEST_F(HelpersTest, ImpressionIsAGetAndFailuresAreOnlyLogged) {
  facade->setAdvertiserId("AD-ID");
  QuorvelCrossPromotionHelper::trackCrossPromoteImpression(*facade, "999", std::string("spring"));
  ASSERT_EQ(fakes.transport->sent().back().session, "default");
  const auto r = fakes.requests().back();
  EXPECT_EQ(r.method, "GET");
  EXPECT_EQ(r.url,
            "https://impressions.svc.example/"
            "id999?pid=qv_cross_promotion&c=spring&qv_siteid=555&advertising_id=AD-ID");
  fakes.fail(fakes.requests().size() - 1, Error{platform::kURLErrorDomain, -1004, "refused"});
  fakes.dispatcher->runUntilIdle();
  EXPECT_EQ(
      fakes.systemLog->count("Quorvel crossPromotionViewed Connection failed! Error - refused"),
      1U);
}

}  // namespace
}  // namespace quorvel
