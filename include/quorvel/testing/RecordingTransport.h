// The network of a host's tests: every request the library would send is recorded (and its
// payload decrypted with the developer key) and answered in memory, on the virtual queues.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <quorvel/Error.h>
#include <quorvel/Json.h>
#include <quorvel/platform/DispatchQueue.h>
#include <quorvel/platform/URLSession.h>

namespace quorvel::testkit {

// What the transport answers a request with: an HTTP answer, or a transport failure.
struct Answer {
  long status = 200;
  std::string body = "{}";
  std::string mimeType = "application/json";
  std::optional<Error> failure;  // set: the request fails in transport (it is then cached)
  platform::HeaderList headers;  // besides Content-Type (a Retry-After, say)

  static Answer offline();
};

struct SentRequest {
  platform::URLRequest request;
  // The decrypted body as JSON when it is a report sealed with the developer key.
  std::optional<Json> payload;
  // The session it went through: "shared", "default" or a background session's identifier.
  std::string session;
  // The service: the first label of the host ("t" for tracking, "sdk", "register", ...).
  std::string service() const;
  // A query parameter of the URL, percent-decoded.
  std::optional<std::string> queryParameter(const std::string& name) const;
};

// The JSON inside a report body, when it decrypts with `developerKey`.
std::optional<Json> decryptPayload(const std::string& developerKey, const Bytes& sealed);

class RecordingTransport final : public platform::URLSessionFactory {
 public:
  using Responder = std::function<Answer(const platform::URLRequest&)>;

  // Answers run on queues of `dispatcher`: they arrive when the test advances time. Without a
  // developer key no payload is decrypted.
  RecordingTransport(std::shared_ptr<platform::Dispatcher> dispatcher, std::string developerKey);
  ~RecordingTransport() override;

  // Every request from now on is answered by `responder` (the default answers 200 "{}").
  void setResponder(Responder responder);
  // While holding, requests sent from now on stay unanswered until answer() is called: a
  // test can look at what the host does while a request is in flight. A held request keeps
  // its caller alive: answer it, or clear() before the test ends.
  void holdAnswers(bool hold);
  // Answers the held request `index` of sent(); false when there is no such held request.
  bool answer(std::size_t index, const Answer& answer);
  // Requests sent so far, oldest first.
  std::vector<SentRequest> sent() const;
  // Forgets what was sent, and drops the answers still held.
  void clear();

  std::shared_ptr<platform::URLSession> sharedSession() override;
  // A new session each time; what it sends is recorded with the rest.
  std::shared_ptr<platform::URLSession> defaultSession() override;
  std::shared_ptr<platform::URLSession> backgroundSession(
      const platform::BackgroundSessionConfiguration& configuration,
      std::weak_ptr<platform::URLSessionDownloadDelegate> delegate) override;

  struct Core;  // what the sessions share with the transport; outlives either

 private:
  std::shared_ptr<platform::Dispatcher> dispatcher_;
  std::shared_ptr<Core> core_;
  std::mutex sessionsMutex_;
  std::shared_ptr<platform::URLSession> shared_;
};

}  // namespace quorvel::testkit
