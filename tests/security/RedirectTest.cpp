// A redirect carries the request's body and headers, some of them plain JSON with the app's
// identifiers: it is followed within the request's origin only.
#include <future>

#include <gtest/gtest.h>

#include <quorvel/testing/MemoryServices.h>

#include "platform/posix/CurlURLSession.h"
#include "support/TlsTestServer.h"

namespace quorvel::platform {
namespace {

using namespace std::chrono_literals;

TEST(Redirects, AreFollowedWithinTheOriginAndNeverCarryTheBodyElsewhere) {
  test::TlsTestServer server({"register.localhost", "elsewhere.localhost"});
  const std::string port = std::to_string(server.port());
  server.onRequest([&](const httplib::Request& req, httplib::Response& res) {
    if (req.path == "/same") {
      res.status = 307;
      res.set_header("Location", "/moved");  // relative: the same origin
    } else if (req.path == "/other-host") {
      res.status = 307;
      res.set_header("Location", "https://elsewhere.localhost:" + port + "/stolen");
    } else if (req.path == "/other-port") {
      res.status = 308;
      res.set_header("Location", "https://register.localhost:1/stolen");
    } else {
      res.set_content("{}", "application/json");
    }
  });
  CurlSessionOptions options;
  options.extraCAFile = server.caFile();
  const auto log = std::make_shared<testkit::CapturingSystemLog>();
  options.systemLog = log;
  const auto session = makeCurlURLSession(options, "redirects");
  struct Case {
    const char* path;
    bool followed;
  };
  for (const Case c :
       {Case{"/same", true}, Case{"/other-host", false}, Case{"/other-port", false}}) {
    URLRequest request;
    request.url = "https://register.localhost:" + port + c.path;
    request.method = "POST";
    request.body = Bytes{'{', '"', 's', '"', ':', '1', '}'};
    auto outcome = std::make_shared<std::promise<std::optional<Error>>>();
    session
        ->dataTask(request, [outcome](const auto&, const auto&,
                                      const auto& error) { outcome->set_value(error); })
        ->resume();
    auto future = outcome->get_future();
    ASSERT_EQ(future.wait_for(30s), std::future_status::ready) << c.path;
    const auto error = future.get();
    if (c.followed) {
      EXPECT_FALSE(error) << c.path;
    } else {
      ASSERT_TRUE(error) << c.path;
      EXPECT_EQ(error->code, -1007);
      EXPECT_NE(error->localizedDescription.find("redirect to another origin refused"),
                std::string::npos)
          << error->localizedDescription;
    }
  }
  // Told even with debug logs off.
  EXPECT_EQ(log->count("[WARN] Quorvel: redirect to another origin refused"), 2U);
  const auto received = server.received();
  std::vector<std::string> seen;
  for (const auto& r : received) {
    seen.push_back(r.host.substr(0, r.host.find(':')) + r.target);
    EXPECT_EQ(r.target.find("/stolen"), std::string::npos) << r.host << r.target;
  }
  EXPECT_EQ(seen, (std::vector<std::string>{"register.localhost/same", "register.localhost/moved",
                                            "register.localhost/other-host",
                                            "register.localhost/other-port"}));
  ASSERT_GE(received.size(), 2U);
  EXPECT_EQ(received[1].body, "{\"s\":1}");  // a followed 307 keeps its body
}

}  // namespace
}  // namespace quorvel::platform
