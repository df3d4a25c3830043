#include <quorvel/Format.h>

#include <gtest/gtest.h>

#include <limits>

namespace quorvel {
namespace {

TEST(Format, ObjectConversionDescribesEachKindOfValue) {
  const Json dict = Json{{"a", 1}, {"b", Json::array({"x", nullptr})}};
  const Json text = "hello";
  const Json number = 2.5;
  const std::optional<std::string> none;
  struct Case {
    std::string got;
    std::string want;
  };
  const Case cases[] = {
      {format("%@", "plain"), "plain"},
      {format("%@", std::string("owned")), "owned"},
      {format("%@", 42), "42"},
      {format("%@", -7L), "-7"},
      {format("%@", 3.0), "3"},
      {format("%@", 0.1), "0.1"},
      {format("%@", dict), R"({"a":1,"b":["x",null]})"},
      {format("%@", text), "hello"},
      {format("%@", number), "2.5"},
      {format("%@", none), "(null)"},
      {format("%@", nullptr), "(null)"},
      {format("%@", Json()), "(null)"},
      {format("%@", Json::binary({1, 0xab})), "{length = 2, bytes = 0x01ab}"},
      {format("%@", true), "1"},
      {format("%@", std::chrono::system_clock::time_point(std::chrono::seconds(1'493'890'215))),
       "2017-05-04 09:30:15 +0000"},  // a date, in UTC
  };
  for (const auto& c : cases)
    EXPECT_EQ(c.got, c.want);
}

TEST(Format, PrintfConversionsBehaveAsPrintfAndWidthPadsObjects) {
  EXPECT_EQ(format("%d|%i|%ld|%lu|%u", 1, -2, 3L, 4UL, 5U), "1|-2|3|4|5");
  EXPECT_EQ(format("%02x%02x", 0x0a, 255), "0aff");
  EXPECT_EQ(format("%0.0f", 1234567.89), "1234568");
  EXPECT_EQ(format("%f", 1.5), "1.500000");
  EXPECT_EQ(format("%.2f", 2), "2.00");
  EXPECT_EQ(format("%s and %s", "a", nullptr), "a and (null)");
  EXPECT_EQ(format("%c%c", 'o', 107), "ok");
  EXPECT_EQ(format("100%%"), "100%");
  EXPECT_EQ(format("%5d|%-5d|", 42, 42), "   42|42   |");
  // Width pads objects but never cuts them: a 19-character date in a field of 18 keeps all its
  // characters and gains no blanks.
  EXPECT_EQ(format("%18@ %@", "2024-01-02 03:04:05", "line"), "2024-01-02 03:04:05 line");
  EXPECT_EQ(format("%8@|", "ab"), "      ab|");
  EXPECT_EQ(format("%-8@|", "ab"), "ab      |");
}

TEST(Format, MismatchedOrMissingArgumentsNeverMisbehave) {
  EXPECT_EQ(format("%d %d", 1), "1 0");
  EXPECT_EQ(format("%@"), "(null)");
  EXPECT_EQ(format("%d", "text"), "0");
  EXPECT_EQ(format("%f", "text"), "0.000000");
  EXPECT_EQ(format("%d", std::numeric_limits<double>::quiet_NaN()), "0");
  EXPECT_EQ(format("%d", 1e300), "0");
  EXPECT_EQ(format("trailing %"), "trailing %");
  EXPECT_EQ(format("%y unknown", 1), "%y unknown");
  EXPECT_EQ(format("%@", "extra", "ignored"), "extra");
}

}  // namespace
}  // namespace quorvel
