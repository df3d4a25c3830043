// A headless Chromium driven over the WebDriver protocol (chromedriver), for tests of pages
// the tools serve. Every wait is bounded.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include <httplib.h>

#include <quorvel/Json.h>

#include "support/Eventually.h"
#include "support/LoopbackListener.h"
#include "support/Subprocess.h"

namespace quorvel::test {

class WebDriver {
 public:
  // Starts chromedriver and a headless Chromium session; ok() tells whether it worked.
  explicit WebDriver(const std::string& logDir) {
    {
      const LoopbackListener free;  // a free port, released for chromedriver to take
      port_ = free.port();
    }
    driver_ = std::make_unique<BackgroundProcess>(
        std::vector<std::string>{"/usr/bin/chromedriver", "--port=" + std::to_string(port_)},
        logDir + "/chromedriver.out", logDir + "/chromedriver.err");
    client_ = std::make_unique<httplib::Client>("127.0.0.1", port_);
    client_->set_read_timeout(std::chrono::seconds(60));
    if (!eventually(
            [&] {
              const Json status = call("GET", "/status");
              return status.is_object() && status.value("ready", false);
            },
            std::chrono::seconds(30)))
      return;
    const Json capabilities = {{"capabilities",
                                {{"alwaysMatch",
                                  {{"browserName", "chrome"},
                                   {"goog:chromeOptions",
                                    {{"binary", "/usr/bin/chromium"},
                                     {"args",
                                      {"--headless=new", "--no-sandbox", "--disable-dev-shm-usage",
                                       "--disable-gpu", "--window-size=1400,900"}}}}}}}}};
    const Json session = call("POST", "/session", capabilities);
    if (session.is_object())
      session_ = session.value("sessionId", "");
  }
  ~WebDriver() {
    if (!session_.empty())
      call("DELETE", "/session/" + session_);
  }
  WebDriver(const WebDriver&) = delete;
  WebDriver& operator=(const WebDriver&) = delete;

  bool ok() const { return !session_.empty(); }
  void open(const std::string& url) { command("POST", "/url", Json{{"url", url}}); }
  // Runs `script` in the page and returns what it returns.
  Json run(const std::string& script) {
    return command("POST", "/execute/sync", Json{{"script", script}, {"args", Json::array()}});
  }
  // Clicks the element matching `css` as a user would; false when there is none.
  bool click(const std::string& css) {
    const Json found = command("POST", "/element", Json{{"using", "css selector"}, {"value", css}});
    if (!found.is_object() || found.empty())
      return false;
    const std::string element = found.begin()->get<std::string>();
    command("POST", "/element/" + element + "/click", Json::object());
    return true;
  }
  // The page as a PNG, base64.
  std::string screenshotBase64() { return command("GET", "/screenshot").get<std::string>(); }

 private:
  Json command(const std::string& method, const std::string& path, const Json& body = nullptr) {
    return call(method, "/session/" + session_ + path, body);
  }
  // The "value" member of the answer; null when the driver did not answer.
  Json call(const std::string& method, const std::string& path, const Json& body = nullptr) {
    httplib::Result result =
        method == "GET" ? client_->Get(path)
        : method == "DELETE"
            ? client_->Delete(path)
            : client_->Post(path, body.is_null() ? "{}" : body.dump(), "application/json");
    if (!result)
      return nullptr;
    const Json answer = Json::parse(result->body, nullptr, false);
    return answer.is_object() && answer.contains("value") ? answer["value"] : Json();
  }

  int port_ = 0;
  std::unique_ptr<BackgroundProcess> driver_;
  std::unique_ptr<httplib::Client> client_;
  std::string session_;
};

}  // namespace quorvel::test
