// The libcurl session against a real HTTPS server on loopback.
#include <future>
#include <map>
#include <set>

#include <gtest/gtest.h>

#include "platform/posix/CurlURLSession.h"
#include "support/LoopbackListener.h"
#include "support/TlsTestServer.h"

namespace quorvel::platform {
namespace {

using namespace std::chrono_literals;

struct Outcome {
  std::optional<Bytes> body;
  std::optional<URLResponse> response;
  std::optional<Error> error;
  bool onCallbackQueue = false;
};

class CurlSessionTest : public ::testing::Test {
 protected:
  std::shared_ptr<URLSession> session(std::chrono::milliseconds timeout = 10s,
                                      std::size_t maxBytes = 1 << 20,
                                      CurlSessionOptions options = {}) {
    options.extraCAFile = server.caFile();
    options.requestTimeout = timeout;
    options.maxResponseBytes = maxBytes;
    return makeCurlURLSession(options, "test");
  }
  Outcome run(URLSession& s, URLRequest request) {
    auto promise = std::make_shared<std::promise<Outcome>>();
    auto queue = s.delegateQueue();
    auto task =
        s.dataTask(std::move(request),
                   [promise, queue](const auto& body, const auto& response, const auto& error) {
                     promise->set_value(Outcome{body, response, error, queue->isCurrent()});
                   });
    task->resume();
    auto future = promise->get_future();
    EXPECT_EQ(future.wait_for(30s), std::future_status::ready);
    return future.get();
  }
  test::TlsTestServer server{{"t.localhost", "events.localhost"}};
};

TEST_F(CurlSessionTest, PostReachesTheServerAndTheAnswerComesBackOnTheCallbackQueue) {
  server.onRequest([](const httplib::Request& req, httplib::Response& res) {
    res.status = 201;
    res.set_header("X-Echo", req.get_header_value("Content-Type"));
    res.set_content(req.body, "application/json; charset=utf-8");
  });
  // A worker that ends as soon as it is idle: every request below starts a new one, which
  // takes over the kept-alive connection.
  CurlSessionOptions options;
  options.workerIdleTime = 0ms;
  options.connectionsOpened = std::make_shared<std::atomic<std::uint64_t>>(0);
  auto s = session(10s, 1 << 20, options);
  URLRequest request;
  request.url = "https://t." + server.domain() + "/api/v4.8/iosevent?app_id=1";
  request.method = "POST";
  request.headers = {{"Content-Type", "application/octet-stream"}};
  request.body = Bytes{'{', '}', 0, 0xff};
  for (int i = 0; i < 2; ++i)
    ASSERT_FALSE(run(*s, request).error);
  EXPECT_EQ(options.connectionsOpened->load(), 1U);
  const Outcome o = run(*s, request);
  ASSERT_FALSE(o.error) << o.error->localizedDescription;
  EXPECT_TRUE(o.onCallbackQueue);
  EXPECT_EQ(o.response->statusCode, 201);
  EXPECT_EQ(o.response->mimeType, "application/json");
  EXPECT_EQ(o.body, request.body);
  const auto received = server.received();
  ASSERT_EQ(received.size(), 3U);
  EXPECT_EQ(received[0].host, "t." + server.domain());
  EXPECT_EQ(received[0].target, "/api/v4.8/iosevent?app_id=1");
  bool echoed = false;
  for (const auto& [k, v] : o.response->headers)
    echoed = echoed || (k == "X-Echo" && v == "application/octet-stream");
  EXPECT_TRUE(echoed);
}

TEST_F(CurlSessionTest, ABurstSharesAFewKeptAliveConnectionsPerHost) {
  server.onRequest([](const httplib::Request&, httplib::Response& res) {
    std::this_thread::sleep_for(5ms);  // the server is busy, so that requests pile up
    res.set_content("{}", "application/json");
  });
  CurlSessionOptions options;
  options.extraCAFile = server.caFile();
  options.maxConnectionsPerHost = 3;
  auto s = makeCurlURLSession(options, "burst");
  constexpr int kPerHost = 40;
  std::atomic<int> ok{0};
  auto all = std::make_shared<std::promise<void>>();
  for (int i = 0; i < 2 * kPerHost; ++i) {
    URLRequest r;
    r.url = "https://" + std::string(i % 2 == 0 ? "t." : "events.") + server.domain() + "/";
    s->dataTask(r, [&ok, all](const auto&, const auto& response, const auto&) {
       if (response && response->statusCode == 200 && ++ok == 2 * kPerHost)
         all->set_value();
     })->resume();
  }
  ASSERT_EQ(all->get_future().wait_for(60s), std::future_status::ready) << ok;
  std::map<std::string, std::set<int>> connections;
  for (const auto& r : server.received())
    connections[r.host].insert(r.clientPort);
  ASSERT_EQ(connections.size(), 2U);
  for (const auto& [host, ports] : connections)
    EXPECT_LE(ports.size(), 3U) << host;
}

TEST_F(CurlSessionTest, TransportFailuresAreErrorsAndAnswersThatArrivedAreResponses) {
  // Only the slow request gets a short timeout: a loaded machine must not turn the other
  // cases into timeouts.
  auto s = session(30s, 64 * 1024);
  test::LoopbackListener plain;
  ASSERT_TRUE(plain.bound());
  server.onRequest([&](const httplib::Request& req, httplib::Response& res) {
    if (req.path == "/slow") {
      std::this_thread::sleep_for(1500ms);  // the server side is slow, not the test
    } else if (req.path == "/cut") {
      res.set_content_provider(100'000, "application/json",
                               [](std::size_t offset, std::size_t, httplib::DataSink& sink) {
                                 if (offset > 0)
                                   return false;  // close the connection mid-body
                                 sink.write("{\"monitor\":", 11);
                                 return true;
                               });
      return;
    } else if (req.path == "/redirect") {
      res.status = 307;
      res.set_header("Location", "http://127.0.0.1:" + std::to_string(plain.port()) + "/x");
      return;
    }
    res.set_content(std::string(req.path == "/huge" ? 2'000'000 : 2, 'x'), "text/plain");
  });
  const std::string base = "https://t." + server.domain();
  struct Case {
    std::string url;
    std::optional<long> error;  // else an answer, with this many bytes of body
    std::size_t bodySize = 0;
    std::shared_ptr<URLSession> session = nullptr;  // else the trusting one
  };
  const Case cases[] = {
      {"https://localhost:1/", -1004},  // refused
      {base + "/slow", -1001},          // timeout
      {base + "/cut", -1005},           // connection closed mid-body
      {base + "/redirect", -1007},      // a redirect out of TLS (and its origin) is refused
      {"https://other.localhost:" + std::to_string(server.port()) + "/", -1202},      // wrong name
      {base + "/", -1202, 0, makeCurlURLSession(CurlSessionOptions{}, "untrusted")},  // unknown CA
      // Answers that reached us are responses, whatever their size: the service has the
      // request, so it must never be replayed. A body over the cap is dropped.
      {base + "/huge", std::nullopt, 0},
      {base + "/small", std::nullopt, 2},
  };
  for (const auto& c : cases) {
    URLRequest r;
    r.url = c.url;
    if (c.error == -1001)
      r.timeout = 300ms;
    const Outcome o = run(c.session ? *c.session : *s, r);
    if (c.error) {
      ASSERT_TRUE(o.error) << c.url;
      EXPECT_EQ(o.error->code, *c.error) << c.url << ": " << o.error->localizedDescription;
      EXPECT_EQ(o.error->domain, kURLErrorDomain);
      EXPECT_FALSE(o.response);
    } else {
      ASSERT_FALSE(o.error) << c.url << ": " << o.error->localizedDescription;
      EXPECT_EQ(o.response->statusCode, 200);
      EXPECT_EQ(o.body.value_or(Bytes{}).size(), c.bodySize) << c.url;
    }
  }
  EXPECT_FALSE(plain.connectionArrived());
}

// Records download outcomes.
struct RecordingDelegate final : URLSessionDownloadDelegate {
  std::mutex m;
  std::vector<std::string> events;
  std::promise<void> done;
  void didFinishDownloadingToPath(URLSessionTask& task, const std::string& path) override {
    std::lock_guard l(m);
    std::ifstream in(path);
    std::string content((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    events.push_back("finished " + std::to_string(task.taskIdentifier()) + " " + content);
  }
  void didCompleteWithError(URLSessionTask&, const std::optional<Error>& error) override {
    std::lock_guard l(m);
    events.push_back(error ? "error " + std::to_string(error->code) : "complete");
    done.set_value();
  }
};

TEST_F(CurlSessionTest, DownloadTasksReportToTheDelegate) {
  server.onRequest(
      [](const httplib::Request&, httplib::Response& res) { res.set_content("ok", "text/plain"); });
  CurlSessionOptions options;
  options.extraCAFile = server.caFile();
  auto delegate = std::make_shared<RecordingDelegate>();
  auto s = makeCurlURLSession(options, "com.quorvel.sdk", delegate);
  URLRequest r;
  r.url = "https://localhost:" + std::to_string(server.port()) + "/remote-debug";
  r.method = "POST";
  r.body = Bytes{'h', 'i'};
  auto task = s->downloadTask(r);
  task->resume();
  ASSERT_EQ(delegate->done.get_future().wait_for(30s), std::future_status::ready);
  std::lock_guard l(delegate->m);
  EXPECT_EQ(delegate->events,
            (std::vector<std::string>{"finished " + std::to_string(task->taskIdentifier()) + " ok",
                                      "complete"}));
  EXPECT_EQ(server.received().at(0).body, "hi");
}

TEST_F(CurlSessionTest, ShutdownWithRequestsInFlightNeitherCrashesNorHangs) {
  server.onRequest([](const httplib::Request&, httplib::Response& res) {
    std::this_thread::sleep_for(300ms);
    res.set_content("{}", "application/json");
  });
  std::atomic<int> completions{0};
  {
    auto s = session();
    for (int i = 0; i < 5; ++i) {
      URLRequest r;
      r.url = "https://localhost:" + std::to_string(server.port()) + "/";
      s->dataTask(r, [&](const auto&, const auto&, const auto&) { ++completions; })->resume();
    }
  }
  SUCCEED();
}

}  // namespace
}  // namespace quorvel::platform
