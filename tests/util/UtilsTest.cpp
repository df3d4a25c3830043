#include <gtest/gtest.h>

#include "common/QuorvelUtils.h"
#include "support/TestPlatform.h"
#include "util/Base64.h"
#include "util/CompactJson.h"

namespace quorvel {
namespace {

class UtilsTest : public ::testing::Test {
 protected:
  test::TestPlatform fakes;
};

TEST_F(UtilsTest, HashesKeepTheirByteQuirks) {
  // sha1 hashes as many UTF-8 bytes as the text has UTF-16 units: "é" is 2 bytes, 1 unit.
  EXPECT_EQ(QuorvelUtils::sha1("\xc3\xa9"), QuorvelUtils::sha1("\xc3"));
  EXPECT_EQ(QuorvelUtils::sha1("abc"), "a9993e364706816aba3e25717850c26c9cd0d89d");
  // A character outside the BMP is 4 bytes and 2 units: only 2 bytes are hashed.
  EXPECT_EQ(QuorvelUtils::sha1("\xf0\x9f\x98\x80"), QuorvelUtils::sha1("\xf0\x9f"));
  // md5 stops at the first zero byte.
  EXPECT_EQ(QuorvelUtils::md5(std::string("ab\0cd", 5)), QuorvelUtils::md5("ab"));
  EXPECT_EQ(QuorvelUtils::md5(""), "d41d8cd98f00b204e9800998ecf8427e");
  // sha256 takes every byte.
  EXPECT_EQ(QuorvelUtils::sha256(""),
            "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_NE(QuorvelUtils::sha256("\xc3\xa9"), QuorvelUtils::sha256("\xc3"));
}

TEST_F(UtilsTest, QueryParametersFollowTheUrlsRealParts) {
  const auto url =
      Url::parse("myapp://host.example/real/path?a=0&a=1&b&c=2=3&d==4&path=x&k%20e=v%26w%39");
  ASSERT_TRUE(url);
  const Json params = QuorvelUtils::URLQueryParameters(*url);
  EXPECT_EQ(params["a"], "1");  // the later piece wins
  EXPECT_FALSE(params.contains("b"));
  EXPECT_EQ(params["c"], "2");
  EXPECT_EQ(params["d"], "");
  EXPECT_EQ(params["path"], "/real/path");
  EXPECT_EQ(params["k e"], "v&w9");
  EXPECT_EQ(params["scheme"], "myapp");
  EXPECT_EQ(params["host"], "host.example");
}

TEST_F(UtilsTest, HoplinePathNeedsOwnDomainAndTwoSegments) {
  const std::string own = std::string("https://go.") + kHoplineSchema;
  const std::pair<Json, std::optional<std::string>> cases[] = {
      {own + "/abc/xyz", "/shortlink-sdk/v1/abc?id=xyz"},
      {own + "/abc/xyz?p=1", "/shortlink-sdk/v1/abc?id=xyz"},
      {own + "/abc", std::nullopt},
      {own + "/a/b/c", std::nullopt},
      {"https://other.example/abc/xyz", std::nullopt},
      {Json(12), std::nullopt},
      {Json(), std::nullopt},
  };
  for (const auto& [link, want] : cases)
    EXPECT_EQ(QuorvelUtils::getHoplinePath(link), want) << link;
}

TEST_F(UtilsTest, ValidDeeplinkIsNonBlank) {
  EXPECT_TRUE(QuorvelUtils::isValidDeeplink("x"));
  EXPECT_TRUE(QuorvelUtils::isValidDeeplink(" \tx "));
  EXPECT_FALSE(QuorvelUtils::isValidDeeplink(" \t "));
  EXPECT_FALSE(QuorvelUtils::isValidDeeplink(""));
  EXPECT_FALSE(QuorvelUtils::isValidDeeplink(std::nullopt));
}

TEST_F(UtilsTest, JsonSerialisationRefusesWhatItCannotWrite) {
  const auto log = fakes.log();
  EXPECT_EQ(QuorvelUtils::getJsonStringFromDictionary(Json{{"a", 1}, {"b", "x"}}, *log),
            R"({"a":1,"b":"x"})");
  const Json unwritable[] = {
      Json{{"n", std::numeric_limits<double>::quiet_NaN()}},
      Json{{"bytes", Json::binary({1, 2})}},
      Json("not a container"),
  };
  for (const auto& v : unwritable) {
    EXPECT_EQ(QuorvelUtils::getJsonStringFromDictionary(v, *log), std::nullopt);
    EXPECT_EQ(QuorvelUtils::getJsonDataFromDictionary(v, *log), std::nullopt);
    EXPECT_EQ(stringify(v, *log), "");
  }
  // A byte that is not UTF-8 costs the character, never the text.
  EXPECT_EQ(QuorvelUtils::getJsonStringFromDictionary(Json{{"bad", std::string("a\xff")}}, *log),
            "{\"bad\":\"a\xEF\xBF\xBD\"}");
  const auto data = QuorvelUtils::getJsonDataFromDictionary(Json{{"k", "v"}}, *log);
  ASSERT_TRUE(data);
  EXPECT_EQ(std::string(data->begin(), data->end()), R"({"k":"v"})");
}

TEST(CompactJson, WritesWhatTheLibraryDumpWrites) {
  const Json values[] = {
      Json::object(),
      Json::array(),
      Json{{"plain", "text with spaces"}, {"empty", ""}, {"n", nullptr}, {"t", true}},
      Json{{"quote\"key", "back\\slash"}, {"ctl", std::string("a\x01\n\t\x7f")}},
      Json{{"utf8", "\xc3\xa9\xf0\x9f\x98\x80"}, {"bad", std::string("a\xff\xc3")}},
      Json{{"ints", {0, -1, 42, INT64_MIN, INT64_MAX}}, {"u", UINT64_MAX}},
      Json{{"floats", {0.0, -0.5, 1e21, 3.14159, 1.0}}},
      Json{{"nested", {{"a", Json::array({Json::object(), {1, "x"}})}}}},
      Json{{"bytes", Json::binary({1, 2}, 7)}},
  };
  for (const auto& v : values) {
    std::string text = "kept|";
    appendCompactJson(v, text);
    EXPECT_EQ(text, "kept|" + v.dump(-1, ' ', false, Json::error_handler_t::replace));
  }
}

TEST_F(UtilsTest, DateFormattersUseTheDeviceZone) {
  const auto t =
      std::chrono::system_clock::time_point(std::chrono::seconds(1'493'890'215));  // 09:30:15Z
  fakes.clock->setGMTOffset(3 * 3600);
  EXPECT_EQ(QuorvelUtils::getDateFormatter(fakes.clock).stringFromDate(t),
            "2017-05-04_123015+0300");
  EXPECT_EQ(QuorvelUtils::getDateFormatterForRemoteDebug(fakes.clock).stringFromDate(t),
            "2017-05-04 12:30:15");
  fakes.clock->setGMTOffset(-(9 * 3600 + 30 * 60));
  EXPECT_EQ(QuorvelUtils::getDateFormatter(fakes.clock).stringFromDate(t),
            "2017-05-04_000015-0930");
  EXPECT_EQ(QuorvelUtils::getDateFormatter(fakes.clock).localeIdentifier(), "en_US");
}

TEST(Base64, StandardAlphabetAndLenientDecoding) {
  const std::pair<std::string, std::string> cases[] = {
      {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"\xff\xfe\xfd", "//79"}};
  for (const auto& [plain, encoded] : cases) {
    EXPECT_EQ(base64Encode(Bytes(plain.begin(), plain.end())), encoded);
    EXPECT_EQ(base64DecodeLenient(encoded), Bytes(plain.begin(), plain.end()));
  }
  EXPECT_EQ(base64DecodeLenient("Zm\n9v!"), (Bytes{'f', 'o', 'o'}));
  EXPECT_EQ(base64DecodeLenient("Zt4mQp9LxR0=").size(), 8U);
}

}  // namespace
}  // namespace quorvel
