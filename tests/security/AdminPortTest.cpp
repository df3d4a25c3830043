// The emulator's admin port shows decrypted requests and switches faults. A web page in the
// developer's browser can send requests to it (a form post, or its own host name rebound to
// 127.0.0.1); it must not be able to read or change anything.
#include <gtest/gtest.h>

#include <httplib.h>

#include "AdminServer.h"
#include "Emulator.h"
#include "RequestReport.h"

namespace quorvel::devserver {
namespace {

class AdminPort : public ::testing::Test {
 protected:
  AdminPort() : emulator(EmulatorConfig{}, store, faults, [](const std::string&) {}) {
    admin.start(0);
  }
  httplib::Result send(const std::string& method, const std::string& path,
                       httplib::Headers headers) {
    httplib::Client client("127.0.0.1", admin.port());
    client.set_connection_timeout(5, 0);
    return method == "GET" ? client.Get(path, headers) : client.Post(path, headers, "", "");
  }

  RequestStore store{":memory:"};
  Faults faults;
  Emulator emulator;
  AdminServer admin{emulator, faults, store, [](const std::string&) {}};
};

TEST_F(AdminPort, AnswersOnlyItsOwnNamesAndChangesStateOnlyWithTheTokenFromItsOwnOrigin) {
  const std::string port = std::to_string(admin.port());
  const std::string token = admin.token();
  struct Case {
    const char* name;
    const char* method;
    const char* path;
    httplib::Headers headers;
    int status;
  };
  const Case cases[] = {
      {"inspector", "GET", "/", {}, 200},
      {"by localhost",
       "GET",
       "/faults",
       {{"Host", "localhost:" + port}, {AdminServer::kTokenHeader, token}},
       200},
      {"rebound host name",
       "GET",
       "/faults",
       {{"Host", "rebind.example:" + port}, {AdminServer::kTokenHeader, token}},
       403},
      {"another port", "GET", "/faults", {{"Host", "127.0.0.1:1"}}, 403},
      {"form post from a site",
       "POST",
       "/faults/offline",
       {{"Origin", "http://site.example"}, {AdminServer::kTokenHeader, token}},
       403},
      {"no token", "POST", "/faults/offline", {{"Origin", "http://127.0.0.1:" + port}}, 403},
      {"wrong token", "POST", "/faults/offline", {{AdminServer::kTokenHeader, "0"}}, 403},
      {"rebound, with token",
       "POST",
       "/faults/offline",
       {{"Host", "rebind.example:" + port}, {AdminServer::kTokenHeader, token}},
       403},
      {"script with token",
       "POST",
       "/faults/delay?service=t&ms=5",
       {{AdminServer::kTokenHeader, token}},
       200},
      {"inspector page",
       "POST",
       "/faults/status?service=t&code=503",
       {{"Origin", "http://localhost:" + port}, {AdminServer::kTokenHeader, token}},
       200},
  };
  for (const auto& c : cases) {
    const auto result = send(c.method, c.path, c.headers);
    ASSERT_TRUE(result) << c.name;
    EXPECT_EQ(result->status, c.status) << c.name << ": " << result->body;
  }
  // Only the two allowed changes happened: nothing went offline.
  const Json state = faults.describe(Faults::Clock::now());
  EXPECT_TRUE(state["online"].get<bool>()) << state.dump();
  EXPECT_EQ(state["statuses"], (Json{{"t", 503}}));
  // The page carries the token its own posts send.
  EXPECT_NE(send("GET", "/", {})->body.find(token), std::string::npos);
}

// The recorded requests carry developers' keys and their users' clear payloads: only a
// holder of the token reads them, and no other page can frame the one that has it.
TEST_F(AdminPort, RecordedRequestsAreReadOnlyWithTheTokenAndNothingIsFramed) {
  StoredRequest r;
  r.query = "a=\x9b[31m&b=\xe2\x80\xae";
  store.add(std::move(r));
  const auto page = send("GET", "/", {});
  const auto tokenless = send("GET", "/requests", {});
  const auto read = send("GET", "/requests", {{AdminServer::kTokenHeader, admin.token()}});
  ASSERT_TRUE(page && tokenless && read);
  EXPECT_EQ(tokenless->status, 403);
  EXPECT_EQ(tokenless->body.find("x9b"), std::string::npos);
  ASSERT_EQ(read->status, 200);
  // Escaped, not replaced: a script sees what the client sent.
  EXPECT_EQ(Json::parse(read->body)[0]["query"], "a=\\x9b[31m&b=\u202e");
  for (const auto* answer : {&page, &tokenless, &read}) {
    EXPECT_EQ((*answer)->get_header_value("X-Frame-Options"), "DENY");
    EXPECT_EQ((*answer)->get_header_value("Content-Security-Policy"), "frame-ancestors 'none'");
  }
}

// What a client sent is printed to the developer's terminal: escape sequences in it must not
// reach the terminal.
TEST(RequestPrinting, EscapesControlCharactersFromClients) {
  StoredRequest r;
  r.method = "POST";
  r.host = "t.localhost\x1b]0;owned\x07\x9b\xe2\x80\xae";
  r.path = "/a\x1b[2J\r";
  r.body = R"({"event":"e\u001b[31m\u0085"})";
  std::ostringstream out;
  printRequestsText(out, {r}, false);
  const std::string text = out.str();
  for (const unsigned char c : text)
    EXPECT_TRUE(c == '\n' || (c >= 0x20U && c != 0x7FU)) << static_cast<int>(c) << " in " << text;
  EXPECT_EQ(text.find("\xc2\x85"), std::string::npos);
  EXPECT_NE(text.find("t.localhost\\x1b]0;owned\\x07\\x9b\\u202e"), std::string::npos) << text;
}

// A script reads `requests --json`: one bad byte from one client must not make the whole list
// unreadable, and no raw control or override may reach a terminal it is printed to.
TEST(RequestPrinting, JsonIsAlwaysValidAndEscapesWhatClientsSent) {
  StoredRequest r;
  r.query = "a=\x9b[31m&b=\xe2\x80\xae\x7f";
  r.headers = Json{{"X-Note", "\xc2\x85"}};
  std::ostringstream out;
  printRequestsJson(out, {r});
  const std::string text = out.str();
  for (const unsigned char c : text)
    ASSERT_TRUE(c < 0x7FU && (c >= 0x20U || c == '\n')) << static_cast<int>(c) << " in " << text;
  const Json list = Json::parse(text, nullptr, false);
  ASSERT_TRUE(list.is_array()) << text;
  EXPECT_EQ(list[0]["query"], "a=\\x9b[31m&b=\u202e\x7f");  // the characters themselves
  EXPECT_EQ(list[0]["headers"]["X-Note"], "\xc2\x85");
}

}  // namespace
}  // namespace quorvel::devserver
