#include <quorvel/testing/RecordingTransport.h>

#include <openssl/evp.h>

#include <array>
#include <atomic>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <map>
#include <utility>

namespace quorvel::testkit {
namespace {

constexpr std::size_t kIvSize = 16;
constexpr std::size_t kSaltSize = 8;
constexpr int kRounds = 10000;

struct CipherDeleter {
  void operator()(EVP_CIPHER_CTX* c) const { EVP_CIPHER_CTX_free(c); }
};

std::string percentDecoded(const std::string& text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() &&
        std::isxdigit(static_cast<unsigned char>(text[i + 1])) &&
        std::isxdigit(static_cast<unsigned char>(text[i + 2]))) {
      out.push_back(static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16)));
      i += 2;
    } else {
      out.push_back(text[i]);
    }
  }
  return out;
}

}  // namespace

Answer Answer::offline() {
  Answer a;
  a.failure =
      Error{platform::kURLErrorDomain, -1009, "The Internet connection appears to be offline."};
  return a;
}

std::string SentRequest::service() const {
  const auto scheme = request.url.find("://");
  const auto start = scheme == std::string::npos ? 0 : scheme + 3;
  const auto end = request.url.find_first_of(".:/", start);
  return request.url.substr(start, end == std::string::npos ? std::string::npos : end - start);
}

std::optional<std::string> SentRequest::queryParameter(const std::string& name) const {
  const auto question = request.url.find('?');
  if (question == std::string::npos)
    return std::nullopt;
  const std::string query = request.url.substr(question + 1);
  std::size_t at = 0;
  while (at <= query.size()) {
    const auto amp = query.find('&', at);
    const std::string pair =
        query.substr(at, amp == std::string::npos ? std::string::npos : amp - at);
    const auto eq = pair.find('=');
    if (percentDecoded(pair.substr(0, eq)) == name)
      return eq == std::string::npos ? std::string() : percentDecoded(pair.substr(eq + 1));
    if (amp == std::string::npos)
      break;
    at = amp + 1;
  }
  return std::nullopt;
}

// The layout of a sealed report: AES-128-CBC ciphertext, then the IV, then the PBKDF2 salt.
std::optional<Json> decryptPayload(const std::string& developerKey, const Bytes& sealed) {
  if (sealed.size() < kIvSize + kSaltSize + 16)
    return std::nullopt;
  const std::size_t n = sealed.size() - kIvSize - kSaltSize;
  std::array<unsigned char, 16> key{};
  if (PKCS5_PBKDF2_HMAC(developerKey.data(), static_cast<int>(developerKey.size()),
                        sealed.data() + n + kIvSize, kSaltSize, kRounds, EVP_sha1(), key.size(),
                        key.data()) != 1)
    return std::nullopt;
  const std::unique_ptr<EVP_CIPHER_CTX, CipherDeleter> ctx(EVP_CIPHER_CTX_new());
  std::string clear(n + 16, '\0');
  auto* out = reinterpret_cast<unsigned char*>(clear.data());
  int length = 0;
  int last = 0;
  if (!ctx ||
      EVP_DecryptInit_ex(ctx.get(), EVP_aes_128_cbc(), nullptr, key.data(), sealed.data() + n) !=
          1 ||
      EVP_DecryptUpdate(ctx.get(), out, &length, sealed.data(), static_cast<int>(n)) != 1 ||
      EVP_DecryptFinal_ex(ctx.get(), out + length, &last) != 1)
    return std::nullopt;
  clear.resize(static_cast<std::size_t>(length) + static_cast<std::size_t>(last));
  Json parsed = Json::parse(clear, nullptr, /*allow_exceptions=*/false);
  if (parsed.is_discarded())
    return std::nullopt;
  return parsed;
}

struct RecordingTransport::Core {
  using Delivery = std::function<void(const Answer&)>;

  std::string developerKey;
  std::mutex mutex;
  Responder responder;
  bool hold = false;
  std::vector<SentRequest> sent;
  std::map<std::size_t, Delivery> held;  // by index into `sent`

  // Records the request, then delivers its answer now or keeps the delivery for answer().
  void record(const platform::URLRequest& request, const std::string& session, Delivery deliver) {
    SentRequest entry{
        request, developerKey.empty() ? std::nullopt : decryptPayload(developerKey, request.body),
        session};
    Responder answerWith;
    {
      const std::lock_guard lock(mutex);
      sent.push_back(std::move(entry));
      if (hold) {
        held.emplace(sent.size() - 1, std::move(deliver));
        return;
      }
      answerWith = responder;
    }
    deliver(answerWith ? answerWith(request) : Answer{});
  }
};

namespace {

class RecordedTask;

class RecordingSession final : public platform::URLSession,
                               public std::enable_shared_from_this<RecordingSession> {
 public:
  RecordingSession(std::shared_ptr<RecordingTransport::Core> core, std::string name,
                   std::shared_ptr<platform::DispatchQueue> queue,
                   std::weak_ptr<platform::URLSessionDownloadDelegate> delegate)
      : core_(std::move(core)),
        name_(std::move(name)),
        queue_(std::move(queue)),
        delegate_(std::move(delegate)) {}

  std::shared_ptr<platform::URLSessionTask> dataTask(
      platform::URLRequest request, platform::DataTaskCompletion completion) override;
  std::shared_ptr<platform::URLSessionTask> downloadTask(platform::URLRequest request) override {
    return dataTask(std::move(request), nullptr);
  }
  std::shared_ptr<platform::DispatchQueue> delegateQueue() override { return queue_; }

  void start(const std::shared_ptr<RecordedTask>& task);

 private:
  std::shared_ptr<RecordingTransport::Core> core_;
  std::string name_;
  std::shared_ptr<platform::DispatchQueue> queue_;
  std::weak_ptr<platform::URLSessionDownloadDelegate> delegate_;
  std::atomic<std::uint64_t> nextId_{1};
};

class RecordedTask final : public platform::URLSessionTask,
                           public std::enable_shared_from_this<RecordedTask> {
 public:
  RecordedTask(std::uint64_t id, platform::URLRequest request,
               platform::DataTaskCompletion completion, std::weak_ptr<RecordingSession> session)
      : id_(id),
        request_(std::move(request)),
        completion_(std::move(completion)),
        session_(std::move(session)) {}
  std::uint64_t taskIdentifier() const noexcept override { return id_; }
  const platform::URLRequest& originalRequest() const noexcept override { return request_; }
  void resume() noexcept override {
    if (resumed_.exchange(true))
      return;
    try {
      if (const auto session = session_.lock())
        session->start(shared_from_this());
    } catch (...) {
      cancelled_ = true;  // it could not be recorded (out of memory): it never completes
    }
  }
  void cancel() noexcept override { cancelled_ = true; }
  std::string description() const override {
    return "<RecordedTask> { taskIdentifier: " + std::to_string(id_) + " }";
  }
  bool cancelled() const noexcept { return cancelled_; }
  platform::DataTaskCompletion takeCompletion() { return std::exchange(completion_, nullptr); }

 private:
  std::uint64_t id_;
  platform::URLRequest request_;
  platform::DataTaskCompletion completion_;
  std::weak_ptr<RecordingSession> session_;
  std::atomic<bool> resumed_{false};
  std::atomic<bool> cancelled_{false};
};

void deliver(RecordedTask& task, const Answer& answer,
             const std::weak_ptr<platform::URLSessionDownloadDelegate>& delegate);

std::shared_ptr<platform::URLSessionTask> RecordingSession::dataTask(
    platform::URLRequest request, platform::DataTaskCompletion completion) {
  return std::make_shared<RecordedTask>(nextId_++, std::move(request), std::move(completion),
                                        weak_from_this());
}

void RecordingSession::start(const std::shared_ptr<RecordedTask>& task) {
  core_->record(task->originalRequest(), name_,
                [task, queue = queue_, delegate = delegate_](const Answer& answer) {
                  queue->async([task, answer, delegate] { deliver(*task, answer, delegate); });
                });
}

void deliver(RecordedTask& task, const Answer& answer,
             const std::weak_ptr<platform::URLSessionDownloadDelegate>& delegate) {
  if (task.cancelled())
    return;
  if (auto completion = task.takeCompletion()) {
    if (answer.failure) {
      completion(std::nullopt, std::nullopt, answer.failure);
      return;
    }
    platform::URLResponse response;
    response.url = task.originalRequest().url;
    response.statusCode = answer.status;
    response.mimeType = answer.mimeType;
    response.headers = {{"Content-Type", answer.mimeType}};
    response.headers.insert(response.headers.end(), answer.headers.begin(), answer.headers.end());
    completion(Bytes(answer.body.begin(), answer.body.end()), response, std::nullopt);
    return;
  }
  const auto receiver = delegate.lock();
  if (!receiver)
    return;
  if (!answer.failure) {
    // A download lands in a file, as a background session hands it over.
    const auto path =
        std::filesystem::temp_directory_path() /
        ("quorvel-testkit-" + std::to_string(reinterpret_cast<std::uintptr_t>(&task)));
    std::ofstream(path, std::ios::binary)
        .write(answer.body.data(), static_cast<std::streamsize>(answer.body.size()));
    receiver->didFinishDownloadingToPath(task, path.string());
    std::filesystem::remove(path);
  }
  receiver->didCompleteWithError(task, answer.failure);
}

}  // namespace

RecordingTransport::RecordingTransport(std::shared_ptr<platform::Dispatcher> dispatcher,
                                       std::string developerKey)
    : dispatcher_(std::move(dispatcher)), core_(std::make_shared<Core>()) {
  core_->developerKey = std::move(developerKey);
}

RecordingTransport::~RecordingTransport() = default;

void RecordingTransport::setResponder(Responder responder) {
  const std::lock_guard lock(core_->mutex);
  core_->responder = std::move(responder);
}

void RecordingTransport::holdAnswers(bool hold) {
  const std::lock_guard lock(core_->mutex);
  core_->hold = hold;
}

bool RecordingTransport::answer(std::size_t index, const Answer& answer) {
  Core::Delivery deliver;
  {
    const std::lock_guard lock(core_->mutex);
    const auto it = core_->held.find(index);
    if (it == core_->held.end())
      return false;
    deliver = std::move(it->second);
    core_->held.erase(it);
  }
  deliver(answer);
  return true;
}

std::vector<SentRequest> RecordingTransport::sent() const {
  const std::lock_guard lock(core_->mutex);
  return core_->sent;
}

void RecordingTransport::clear() {
  std::map<std::size_t, Core::Delivery> dropped;  // released outside the lock
  const std::lock_guard lock(core_->mutex);
  core_->sent.clear();
  dropped.swap(core_->held);
}

std::shared_ptr<platform::URLSession> RecordingTransport::sharedSession() {
  const std::lock_guard lock(sessionsMutex_);
  if (!shared_)
    shared_ = std::make_shared<RecordingSession>(
        core_, "shared", dispatcher_->makeSerialQueue("testkit.shared"),
        std::weak_ptr<platform::URLSessionDownloadDelegate>());
  return shared_;
}

std::shared_ptr<platform::URLSession> RecordingTransport::defaultSession() {
  return std::make_shared<RecordingSession>(core_, "default",
                                            dispatcher_->makeSerialQueue("testkit.default"),
                                            std::weak_ptr<platform::URLSessionDownloadDelegate>());
}

std::shared_ptr<platform::URLSession> RecordingTransport::backgroundSession(
    const platform::BackgroundSessionConfiguration& configuration,
    std::weak_ptr<platform::URLSessionDownloadDelegate> delegate) {
  return std::make_shared<RecordingSession>(
      core_, configuration.identifier,
      dispatcher_->makeSerialQueue("testkit." + configuration.identifier), std::move(delegate));
}

}  // namespace quorvel::testkit
