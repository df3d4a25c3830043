#include "platform/posix/CurlURLSession.h"

#include "platform/ForkGeneration.h"
#include "platform/posix/OpenSslLifetime.h"

#include <curl/curl.h>
#include <dirent.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>
#include <pthread.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <utility>
#include <variant>
#include <vector>

#include "platform/AtomicFile.h"
#include "platform/SendTicket.h"
#include "platform/posix/IdleMemory.h"
#include "platform/posix/ThreadQueue.h"
#include "util/NoDestructor.h"

namespace quorvel::platform {
// Named rather than anonymous: the session class below, which a header declares, holds these
// types, and an anonymous namespace in its fields makes the unity build warn.
namespace curl_detail {

constexpr const char* kSystemCABundle = "/etc/ssl/certs/ca-certificates.crt";
constexpr const char* kSystemCADirectory = "/etc/ssl/certs";

// Sessions being torn down when the process exits. A session released from a completion
// is torn down on its callback thread, and that teardown frees TLS state; OpenSSL may free
// its own global state from an exit handler (when something else in the process set that
// up first). The exit handler below, registered after OpenSSL's and so run before it,
// lets teardowns in progress finish first, within a bound.
class Teardowns {
 public:
  void begin() {
    const std::lock_guard lock(mutex_);
    ++count_;
  }
  void end() {
    const std::lock_guard lock(mutex_);
    if (--count_ == 0)
      done_.notify_all();
  }
  void waitAtExit() {
    // A forked child has its parent's count and none of the threads that would lower it.
    if (forkGeneration() != generation_)
      return;
    std::unique_lock lock(mutex_);
    done_.wait_for(lock, std::chrono::seconds(2), [this] { return count_ == 0; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable done_;
  int count_ = 0;
  const std::uint64_t generation_ = forkGeneration();
};

Teardowns& teardowns() {
  // Never destroyed: it is used from exit handlers and from threads that outlive main.
  static NoDestructor<Teardowns> instance;
  return instance.get();
}

void initCurlOnce() {
  static std::once_flag once;
  std::call_once(once, [] {
    keepOpenSslUntilExit();
    curl_global_init(CURL_GLOBAL_DEFAULT);
    teardowns();
    std::atexit([] { teardowns().waitAtExit(); });
  });
}

// Streams a multiplexing (HTTP/2) host may carry at once on each of its connections.
constexpr std::size_t kStreamsPerConnection = 16;

// The system's CAs and the extra ones, one store for every session that trusts the same
// extra file: every TLS connection verifies against it instead of reading its own copy.
// Where the system's folder of CAs has hashed names, a root is read from it when a chain
// first needs it: the whole bundle, parsed, held over a megabyte for the one or two roots a
// process meets.
class TrustStore {
 public:
  explicit TrustStore(const std::optional<std::string>& extraCAFile) : store_(X509_STORE_new()) {
    if (store_ == nullptr)
      return;
    if (!hasHashedNames(kSystemCADirectory) ||
        X509_STORE_load_path(store_, kSystemCADirectory) != 1) {
      if (X509_STORE_load_file(store_, kSystemCABundle) != 1)
        X509_STORE_set_default_paths(store_);
    }
    if (extraCAFile)
      X509_STORE_load_file(store_, extraCAFile->c_str());
  }
  ~TrustStore() { X509_STORE_free(store_); }
  TrustStore(const TrustStore&) = delete;
  TrustStore& operator=(const TrustStore&) = delete;

  // CURLOPT_SSL_CTX_FUNCTION: hands the shared store to a new connection's TLS context.
  static CURLcode install(CURL* /*easy*/, void* sslContext, void* user) {
    auto* self = static_cast<TrustStore*>(user);
    if (self->store_ == nullptr)
      return CURLE_SSL_CACERT_BADFILE;
    SSL_CTX_set1_cert_store(static_cast<SSL_CTX*>(sslContext), self->store_);
    return CURLE_OK;
  }

 private:
  // A folder that a rehash filled holds "<hash>.0" names (links to the CA files).
  static bool hasHashedNames(const char* folder) {
    DIR* dir = ::opendir(folder);
    if (dir == nullptr)
      return false;
    bool found = false;
    while (const dirent* entry = ::readdir(dir)) {
      const std::string_view name(entry->d_name);
      if (name.size() == 10 && name.ends_with(".0")) {
        found = true;
        break;
      }
    }
    ::closedir(dir);
    return found;
  }

  X509_STORE* store_;
};

// The store for an extra CA file, shared while some session holds it. A file changed since
// (another emulator's CA written at the same path) makes a store of its own.
std::shared_ptr<TrustStore> sharedTrustStore(const std::optional<std::string>& extraCAFile) {
  // Keyed by the file's content, not its times: a CA rewritten within one clock tick at the
  // same size would otherwise keep the old one trusted. CA files are a few kilobytes.
  std::string key;
  if (extraCAFile) {
    std::ifstream in(*extraCAFile, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    key = "+" + *extraCAFile + "\n" + content.str();
  }
  static NoDestructor<std::mutex> mutex;
  static NoDestructor<std::map<std::string, std::weak_ptr<TrustStore>>> stores;
  const std::lock_guard lock(mutex.get());
  std::erase_if(stores.get(), [](const auto& entry) { return entry.second.expired(); });
  auto& slot = stores.get()[key];
  auto store = slot.lock();
  if (!store) {
    store = std::make_shared<TrustStore>(extraCAFile);
    slot = store;
  }
  return store;
}

// "scheme://host:port" of a URL: the unit that connections are counted and reused by, and
// that a redirect must stay within. A relative `url` is resolved against `base`.
std::string originOf(const std::string& url, const std::string& base = {}) {
  CURLU* u = curl_url();
  if (u == nullptr)
    return url;
  std::string origin;
  if ((base.empty() || curl_url_set(u, CURLUPART_URL, base.c_str(), 0) == CURLUE_OK) &&
      curl_url_set(u, CURLUPART_URL, url.c_str(), 0) == CURLUE_OK) {
    for (const auto part : {CURLUPART_SCHEME, CURLUPART_HOST, CURLUPART_PORT}) {
      char* text = nullptr;
      const auto flags = part == CURLUPART_PORT ? CURLU_DEFAULT_PORT : 0U;
      if (curl_url_get(u, part, &text, flags) == CURLUE_OK) {
        std::string value(text);
        curl_free(text);
        std::transform(value.begin(), value.end(), value.begin(),
                       [](unsigned char c) { return std::tolower(c); });
        origin += value;
      }
      origin += part == CURLUPART_SCHEME ? "://" : (part == CURLUPART_HOST ? ":" : "");
    }
  } else {
    origin = url;
  }
  curl_url_cleanup(u);
  return origin;
}

// Transport errors as the platform's URL error codes, so that callers can tell them apart.
Error transportError(CURLcode code, const std::string& detail) {
  long urlCode = -1;  // unknown
  switch (code) {
    case CURLE_OPERATION_TIMEDOUT:
      urlCode = -1001;
      break;
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      urlCode = -1003;
      break;
    case CURLE_COULDNT_CONNECT:
      urlCode = -1004;
      break;
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_PARTIAL_FILE:
    case CURLE_GOT_NOTHING:
      urlCode = -1005;
      break;
    case CURLE_URL_MALFORMAT:
    case CURLE_UNSUPPORTED_PROTOCOL:
      urlCode = -1000;
      break;
    case CURLE_SSL_CONNECT_ERROR:
      urlCode = -1200;
      break;
    case CURLE_TOO_MANY_REDIRECTS:
      urlCode = -1007;
      break;
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CACERT_BADFILE:
      urlCode = -1202;
      break;
    case CURLE_WRITE_ERROR:
    case CURLE_FILESIZE_EXCEEDED:
      urlCode = -1103;
      break;  // resource exceeds maximum size
    case CURLE_ABORTED_BY_CALLBACK:
      urlCode = -999;
      break;  // cancelled
    default:
      break;
  }
  std::string text = detail.empty() ? std::string(curl_easy_strerror(code)) : detail;
  return Error{kURLErrorDomain, urlCode, std::move(text)};
}

class CurlTask final : public URLSessionTask,
                       public HandOverAware,
                       public std::enable_shared_from_this<CurlTask> {
 public:
  CurlTask(std::uint64_t id, URLRequest request, std::weak_ptr<CurlURLSession> session,
           DataTaskCompletion completion, bool download)
      : id_(id),
        request_(std::move(request)),
        session_(std::move(session)),
        completion_(std::move(completion)),
        download_(download) {}

  std::uint64_t taskIdentifier() const noexcept override { return id_; }
  const URLRequest& originalRequest() const noexcept override { return request_; }
  void resume() noexcept override;
  void cancel() noexcept override;
  std::string description() const override {
    return std::string(download_ ? "<__NSCFBackgroundDownloadTask" : "<__NSCFLocalDataTask") +
           ">{ taskIdentifier: " + std::to_string(id_) + " }";
  }

  // Called once, on the callback queue: what the completion holds is let go after its call
  // even while someone keeps the task.
  DataTaskCompletion takeCompletion() { return std::exchange(completion_, DataTaskCompletion{}); }
  bool isDownload() const { return download_; }
  // Set when its transfer begins: one still waiting for room on its host never left.
  bool requestMayHaveLeft() const noexcept override { return transferStarted; }
  std::atomic<bool> cancelled{false};
  std::atomic<bool> transferStarted{false};

 private:
  std::uint64_t id_;
  URLRequest request_;
  std::weak_ptr<CurlURLSession> session_;
  DataTaskCompletion completion_;
  bool download_;
  std::atomic<bool> resumed_{false};
};

}  // namespace curl_detail
using namespace curl_detail;

class CurlURLSession;
namespace {

// Connections are opened closed-on-exec, atomically: a child that the host forks and execs
// meanwhile keeps none of them.
curl_socket_t openClosedOnExec(void*, curlsocktype, curl_sockaddr* address) {
  return ::socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

// The session whose worker this thread is, if any.
thread_local const CurlURLSession* tWorkerOf = nullptr;
}  // namespace

// One session: a worker thread while it has transfers, a multi handle, a callback queue.
class CurlURLSession final : public URLSession,
                             public std::enable_shared_from_this<CurlURLSession> {
 public:
  CurlURLSession(CurlSessionOptions options, std::string label,
                 std::weak_ptr<URLSessionDownloadDelegate> delegate)
      : options_(std::move(options)),
        delegate_(std::move(delegate)),
        callbacks_(options_.dispatcher ? options_.dispatcher->makeSerialQueue(label + ".callbacks")
                                       : std::make_shared<ThreadQueue>(label + ".callbacks", 1,
                                                                       "quorvel.http.cb")) {
    initCurlOnce();
    trustStore_ = sharedTrustStore(options_.extraCAFile);
    options_.maxConnectionsPerHost = std::max<std::size_t>(options_.maxConnectionsPerHost, 1);
    multi_ = curl_multi_init();
    if (multi_ != nullptr) {
      const long perHost = static_cast<long>(options_.maxConnectionsPerHost);
      curl_multi_setopt(multi_, CURLMOPT_MAX_HOST_CONNECTIONS, perHost);
      curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS, perHost * 4);
      curl_multi_setopt(multi_, CURLMOPT_PIPELINING, CURLPIPE_MULTIPLEX);
    }
    // TLS sessions and DNS answers are shared by the session's transfers; connections are
    // shared through the multi handle. Only the worker uses them, so no locks are needed.
    share_ = curl_share_init();
    if (share_ != nullptr) {
      curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
      curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
    }
    // The worker starts with the first task (startWorker).
  }

  ~CurlURLSession() override {
    teardowns().begin();
    const std::unique_ptr<Teardowns, void (*)(Teardowns*)> ended(&teardowns(),
                                                                 [](Teardowns* t) { t->end(); });
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
    }
    wake();
    if (tWorkerOf == this) {
      // The worker still runs on this stack: its handles and trust store stay with the
      // process.
      (void)new std::shared_ptr<TrustStore>(std::move(trustStore_));
      return;
    }
    {
      std::unique_lock lock(mutex_);
      workerEnded_.wait(lock, [this] { return !workerRunning_; });
    }
    for (CURL* e : idleEasies_)
      curl_easy_cleanup(e);
    if (multi_ != nullptr)
      curl_multi_cleanup(multi_);
    if (share_ != nullptr)
      curl_share_cleanup(share_);
    // OpenSSL state is freed here, inside the teardown that an exit waits for, not after it
    // with the members.
    trustStore_.reset();
  }

  std::shared_ptr<URLSessionTask> dataTask(URLRequest request,
                                           DataTaskCompletion completion) override {
    return std::make_shared<CurlTask>(nextId_++, std::move(request), weak_from_this(),
                                      std::move(completion), false);
  }

  std::shared_ptr<URLSessionTask> downloadTask(URLRequest request) override {
    return std::make_shared<CurlTask>(nextId_++, std::move(request), weak_from_this(),
                                      DataTaskCompletion{}, true);
  }

  std::shared_ptr<DispatchQueue> delegateQueue() override { return callbacks_; }

  // No started task is waiting for its transfer or its completion.
  bool idle() const { return *unfinished_ == 0; }

  // A task was cancelled: the worker drops it now.
  void cancelled() { wake(); }

  void start(std::shared_ptr<CurlTask> task) {
    bool needsWorker = false;
    bool woken = false;
    {
      std::lock_guard lock(mutex_);
      if (stopping_)
        return;
      ++*unfinished_;
      // Tasks already pending were announced by their own wake-up, and the worker takes all
      // pending ones at once: under a burst one wake-up (a write and the worker's reads of the
      // wake-up socket) serves many tasks instead of one each.
      woken = !pending_.empty();
      pending_.push_back(std::move(task));
      needsWorker = !workerRunning_;
      workerRunning_ = true;
    }
    if (needsWorker)
      startWorker();
    else if (!woken)
      wake();
  }

 private:
  struct Transfer {
    std::shared_ptr<CurlTask> task;
    std::string origin;
    CURL* easy = nullptr;
    curl_slist* headers = nullptr;
    std::string body;
    HeaderList responseHeaders;
    bool tooLarge = false;
    std::size_t limit = 0;
    long status = 0;              // of the response whose headers arrive
    std::string refusedRedirect;  // the other origin a redirect pointed to

    char errorBuffer[CURL_ERROR_SIZE] = {};
  };

  static std::size_t onBody(char* data, std::size_t size, std::size_t count, void* user) {
    auto* t = static_cast<Transfer*>(user);
    const std::size_t n = size * count;
    if (t->body.size() + n > t->limit) {
      t->tooLarge = true;
      return 0;  // makes curl fail the transfer with a write error
    }
    t->body.append(data, n);
    return n;
  }

  static std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* user) {
    auto* t = static_cast<Transfer*>(user);
    const std::size_t n = size * count;
    std::string line(data, n);
    if (line.rfind("HTTP/", 0) == 0) {
      t->responseHeaders.clear();  // a new response (after a redirect or 100-continue)
      const auto space = line.find(' ');
      t->status = space == std::string::npos ? 0 : std::atol(line.c_str() + space + 1);
      return n;
    }
    const auto colon = line.find(':');
    if (t->status >= 300 && t->status < 400 && colon == 8 &&
        strncasecmp(line.c_str(), "location", 8) == 0 && !followsWithinOrigin(*t, line)) {
      return 0;  // ends the transfer before curl follows: a transport failure
    }
    if (colon != std::string::npos && t->responseHeaders.size() < 200) {
      std::string value = line.substr(colon + 1);
      const auto first = value.find_first_not_of(" \t");
      const auto last = value.find_last_not_of(" \t\r\n");
      value = first == std::string::npos ? std::string() : value.substr(first, last - first + 1);
      t->responseHeaders.emplace_back(line.substr(0, colon), value);
    }
    return n;
  }

  // A redirect is followed only within the request's origin (scheme, host, port): elsewhere its
  // body and headers, plain JSON for some services, would go to a host the caller never named.
  static bool followsWithinOrigin(Transfer& t, const std::string& locationLine) {
    std::string target = locationLine.substr(9);
    const auto first = target.find_first_not_of(" \t");
    const auto last = target.find_last_not_of(" \t\r\n");
    target = first == std::string::npos ? std::string() : target.substr(first, last - first + 1);
    const std::string& url = t.task->originalRequest().url;
    const std::string to = originOf(target, url);
    if (to == originOf(url))
      return true;
    t.refusedRedirect = to;
    return false;
  }

  void wake() {
    cv_.notify_all();
    if (multi_ != nullptr)
      curl_multi_wakeup(multi_);
  }

  struct Origin {
    std::size_t inFlight = 0;
    bool multiplexes = false;  // seen to speak HTTP/2 or later
    // Started, waiting for room: they hold nothing but their request.
    std::deque<std::shared_ptr<CurlTask>> waiting;
  };

  std::size_t limitFor(const Origin& origin) const {
    return options_.maxConnectionsPerHost * (origin.multiplexes ? kStreamsPerConnection : 1);
  }

  // The origin of the last URL seen is kept: a burst sends one URL again and again, and
  // parsing it costs more than the rest of the queueing.
  const std::string& originOfQueued(const std::string& url) {
    if (url != lastQueuedUrl_) {
      lastQueuedOrigin_ = originOf(url);
      lastQueuedUrl_ = url;
    }
    return lastQueuedOrigin_;
  }

  void enqueue(std::shared_ptr<CurlTask> task) {
    auto& state = origins_[originOfQueued(task->originalRequest().url)];
    if (state.waiting.empty())
      ++originsWaiting_;
    state.waiting.push_back(std::move(task));
  }

  // Starts waiting tasks, in order, on every host that has room.
  void admitWaiting() {
    if (originsWaiting_ == 0)
      return;
    for (auto& [origin, state] : origins_) {
      if (state.waiting.empty())
        continue;
      while (!state.waiting.empty() && state.inFlight < limitFor(state)) {
        auto task = std::move(state.waiting.front());
        state.waiting.pop_front();
        // Said before the look at the cancel, so that a cancel that finds it unsaid knows
        // that this task never leaves.
        task->transferStarted = true;
        if (!task->cancelled) {
          ++state.inFlight;
          addTransfer(task, origin);
        }
        dispose(std::move(task));
      }
      if (state.waiting.empty())
        --originsWaiting_;
    }
  }

  void addTransfer(const std::shared_ptr<CurlTask>& task, std::string origin) {
    auto t = std::make_unique<Transfer>();
    t->task = task;
    t->origin = std::move(origin);
    t->limit = options_.maxResponseBytes;
    CURL* e = takeEasy();
    if (e == nullptr) {
      deliver(*t, transportError(CURLE_OUT_OF_MEMORY, ""));
      release(*t);
      return;
    }
    t->easy = e;
    const URLRequest& r = task->originalRequest();
    curl_easy_setopt(e, CURLOPT_URL, r.url.c_str());
    curl_easy_setopt(e, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(e, CURLOPT_OPENSOCKETFUNCTION, &openClosedOnExec);
    curl_easy_setopt(e, CURLOPT_PROTOCOLS_STR, "https,http");
    curl_easy_setopt(e, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(e, CURLOPT_SSL_VERIFYHOST, 2L);
    // The session's trust store replaces curl's per-connection loading of the CA files.
    curl_easy_setopt(e, CURLOPT_CAINFO, nullptr);
    curl_easy_setopt(e, CURLOPT_CAPATH, nullptr);
    curl_easy_setopt(e, CURLOPT_SSL_CTX_FUNCTION, &TrustStore::install);
    curl_easy_setopt(e, CURLOPT_SSL_CTX_DATA, trustStore_.get());
    if (share_ != nullptr)
      curl_easy_setopt(e, CURLOPT_SHARE, share_);
    // An HTTP/2 request waits for a connection it can share rather than opening its own.
    curl_easy_setopt(e, CURLOPT_PIPEWAIT, 1L);
    const auto timeout = r.timeout.value_or(options_.requestTimeout);
    curl_easy_setopt(e, CURLOPT_TIMEOUT_MS, static_cast<long>(timeout.count()));
    curl_easy_setopt(e, CURLOPT_CONNECTTIMEOUT_MS,
                     static_cast<long>(std::min<long long>(timeout.count(), 30'000)));
    curl_easy_setopt(e, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(e, CURLOPT_MAXREDIRS, 5L);
    // A redirect never takes a request out of TLS.
    curl_easy_setopt(e, CURLOPT_REDIR_PROTOCOLS_STR, "https");
    curl_easy_setopt(e, CURLOPT_ACCEPT_ENCODING, "");
    curl_easy_setopt(e, CURLOPT_WRITEFUNCTION, &CurlURLSession::onBody);
    curl_easy_setopt(e, CURLOPT_WRITEDATA, t.get());
    curl_easy_setopt(e, CURLOPT_HEADERFUNCTION, &CurlURLSession::onHeader);
    curl_easy_setopt(e, CURLOPT_HEADERDATA, t.get());
    curl_easy_setopt(e, CURLOPT_ERRORBUFFER, t->errorBuffer);
    curl_easy_setopt(e, CURLOPT_PRIVATE, t.get());
    if (r.method == "GET") {
      curl_easy_setopt(e, CURLOPT_HTTPGET, 1L);
    } else {
      curl_easy_setopt(e, CURLOPT_POST, 1L);
      curl_easy_setopt(e, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(r.body.size()));
      curl_easy_setopt(e, CURLOPT_POSTFIELDS,
                       r.body.empty() ? "" : reinterpret_cast<const char*>(r.body.data()));
      if (r.method != "POST")
        curl_easy_setopt(e, CURLOPT_CUSTOMREQUEST, r.method.c_str());
    }
    // No "Expect: 100-continue" round trip for our small bodies.
    t->headers = curl_slist_append(t->headers, "Expect:");
    for (const auto& [name, value] : r.headers) {
      const std::string line = name + ": " + value;
      t->headers = curl_slist_append(t->headers, line.c_str());
    }
    curl_easy_setopt(e, CURLOPT_HTTPHEADER, t->headers);
    if (curl_multi_add_handle(multi_, e) != CURLM_OK) {
      deliver(*t, transportError(CURLE_FAILED_INIT, "cannot start the transfer"));
      release(*t);
      return;
    }
    active_[e] = std::move(t);
  }

  // A finished transfer's handle serves the next one, reset to its defaults: making and
  // freeing a handle for every request cost more than the reset.
  CURL* takeEasy() {
    if (idleEasies_.empty())
      return curl_easy_init();
    CURL* e = idleEasies_.back();
    idleEasies_.pop_back();
    curl_easy_reset(e);
    return e;
  }

  void keepEasy(CURL* e) {
    if (idleEasies_.size() < kIdleEasiesKept)
      idleEasies_.push_back(e);
    else
      curl_easy_cleanup(e);
  }

  void release(Transfer& t) {
    if (!t.origin.empty()) {
      auto& state = origins_[t.origin];
      if (state.inFlight > 0)
        --state.inFlight;
      t.origin.clear();
    }
    if (t.easy != nullptr) {
      long connects = 0;
      if (curl_easy_getinfo(t.easy, CURLINFO_NUM_CONNECTS, &connects) == CURLE_OK && connects > 0 &&
          options_.connectionsOpened)
        options_.connectionsOpened->fetch_add(static_cast<std::uint64_t>(connects));
      curl_multi_remove_handle(multi_, t.easy);
      keepEasy(t.easy);
      t.easy = nullptr;
    }
    curl_slist_free_all(t.headers);
    t.headers = nullptr;
    dispose(std::move(t.task));
  }

  // Lets go of a task on the callback queue, never on the worker: the last reference to a
  // task can own (through its completion) the very session this worker serves.
  void dispose(std::shared_ptr<CurlTask> task) {
    if (task)
      callbacks_->async([unfinished = unfinished_, task = std::move(task)]() mutable {
        task.reset();
        --*unfinished;
      });
  }

  void finish(CURL* easy, CURLcode code) {
    const auto it = active_.find(easy);
    if (it == active_.end())
      return;
    std::unique_ptr<Transfer> t = std::move(it->second);
    active_.erase(it);
    if (!t->refusedRedirect.empty()) {
      const std::string why = "redirect to another origin refused (" + t->refusedRedirect +
                              "): a request goes only to the origin it names, " +
                              originOf(t->task->originalRequest().url);
      if (options_.systemLog)
        options_.systemLog->write("[WARN] Quorvel: " + why);
      deliver(*t, transportError(CURLE_TOO_MANY_REDIRECTS, why));
    } else if (code != CURLE_OK && !t->tooLarge) {
      deliver(*t, transportError(code, std::string(t->errorBuffer)));
    } else {
      // An answer over the cap did reach us: the service has the request, so it is an answer
      // whose body cannot be read (empty), never a transport failure that would replay it.
      if (t->tooLarge)
        t->body.clear();
      URLResponse response;
      long status = 0;
      curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
      char* effective = nullptr;
      curl_easy_getinfo(easy, CURLINFO_EFFECTIVE_URL, &effective);
      response.statusCode = status;
      long version = 0;
      if (curl_easy_getinfo(easy, CURLINFO_HTTP_VERSION, &version) == CURLE_OK &&
          version >= CURL_HTTP_VERSION_2_0)
        origins_[t->origin].multiplexes = true;
      response.url = effective != nullptr ? effective : t->task->originalRequest().url;
      response.headers = t->responseHeaders;
      for (const auto& [name, value] : response.headers) {
        std::string lower = name;
        std::transform(lower.begin(), lower.end(), lower.begin(),
                       [](unsigned char c) { return std::tolower(c); });
        if (lower == "content-type") {
          std::string mime = value.substr(0, value.find(';'));
          mime.erase(mime.find_last_not_of(" \t") + 1);
          std::transform(mime.begin(), mime.end(), mime.begin(),
                         [](unsigned char c) { return std::tolower(c); });
          response.mimeType = mime;
        }
      }
      deliver(*t, std::move(response));
    }
    release(*t);
  }

  // Hands the outcome to the callback queue. Cancelled tasks are told nothing.
  void deliver(Transfer& t, std::variant<URLResponse, Error> outcome) {
    if (t.task->cancelled)
      return;
    auto task = t.task;
    Bytes body(t.body.begin(), t.body.end());
    auto delegate = delegate_;
    // Only a download needs the folder: a data task's answer carries no copy of its name.
    std::string downloadDir = task->isDownload() ? options_.downloadDirectory : std::string();
    callbacks_->async([task, outcome = std::move(outcome), body = std::move(body), delegate,
                       downloadDir = std::move(downloadDir)]() mutable {
      if (!task->isDownload()) {
        const auto completion = task->takeCompletion();
        if (!completion)
          return;
        if (const auto* response = std::get_if<URLResponse>(&outcome)) {
          completion(body, *response, std::nullopt);
        } else {
          completion(std::nullopt, std::nullopt, std::get<Error>(outcome));
        }
        return;
      }
      const auto d = delegate.lock();
      if (!d)
        return;
      if (std::holds_alternative<URLResponse>(outcome)) {
        const std::string path = downloadDir + "/quorvel-download-" + std::to_string(getpid()) +
                                 "-" + std::to_string(task->taskIdentifier());
        writeFileAtomically(path, body, {}, nullptr);
        d->didFinishDownloadingToPath(*task, path);
        ::unlink(path.c_str());  // the file is only valid during the call, as on the platform
        d->didCompleteWithError(*task, std::nullopt);
      } else {
        d->didCompleteWithError(*task, std::get<Error>(outcome));
      }
    });
  }

  // Only where the worker has ended or never ran: the task that needs one is pending. The
  // thread is detached: it ends by itself (when idle or stopping) and says so through
  // workerRunning_, which the destructor waits for.
  void startWorker() {
    try {
      std::thread worker([this] {
        if (run())
          workerWentIdle();
      });
      pthread_setname_np(worker.native_handle(), "quorvel.http");
      worker.detach();
    } catch (...) {
      // No thread now: the task waits and the next one tries again.
      const std::lock_guard lock(mutex_);
      workerRunning_ = false;
    }
  }

  void endWorkerLocked() {
    workerRunning_ = false;
    tWorkerOf = nullptr;
    workerEnded_.notify_all();
  }

  // True when the worker ends for want of work. The session may be gone once it returned.
  bool run() {
    tWorkerOf = this;
    while (true) {
      std::deque<std::shared_ptr<CurlTask>> incoming;
      {
        std::unique_lock lock(mutex_);
        // Idle: sleep until a task arrives, nothing polls, and after a while the thread ends
        // (idle connections stay with the multi handle for the next worker).
        const bool hasWork = cv_.wait_for(lock, options_.workerIdleTime, [&] {
          return stopping_ || !pending_.empty() || !active_.empty() || originsWaiting_ > 0;
        });
        if (stopping_)
          break;
        if (!hasWork) {
          // Idle: the kept handles go too, the next burst makes its own.
          for (CURL* e : idleEasies_)
            curl_easy_cleanup(e);
          idleEasies_.clear();
          endWorkerLocked();
          return true;
        }
        incoming.swap(pending_);
      }
      for (auto& task : incoming)
        enqueue(std::move(task));
      cancelRequested();  // before the transfers go on
      admitWaiting();
      int running = 0;
      curl_multi_perform(multi_, &running);
      int queued = 0;
      while (CURLMsg* msg = curl_multi_info_read(multi_, &queued)) {
        if (msg->msg == CURLMSG_DONE)
          finish(msg->easy_handle, msg->data.result);
      }
      cancelRequested();
      admitWaiting();
      if (!active_.empty()) {
        curl_multi_poll(multi_, nullptr, 0, 1000, nullptr);
      }
    }
    for (auto& [easy, t] : active_)
      release(*t);
    active_.clear();
    for (auto& [origin, state] : origins_) {
      for (auto& task : state.waiting)
        dispose(std::move(task));
      state.waiting.clear();
    }
    // The multi handle is cleaned up by the destructor once this thread has ended: a wake-up
    // from the destructor may still be writing to it.
    const std::lock_guard lock(mutex_);
    endWorkerLocked();
    return false;
  }

  void cancelRequested() {
    for (auto it = active_.begin(); it != active_.end();) {
      if (it->second->task->cancelled) {
        release(*it->second);
        it = active_.erase(it);
      } else {
        ++it;
      }
    }
  }

  CurlSessionOptions options_;
  std::weak_ptr<URLSessionDownloadDelegate> delegate_;
  std::shared_ptr<DispatchQueue> callbacks_;
  std::shared_ptr<TrustStore> trustStore_;
  CURLM* multi_ = nullptr;
  CURLSH* share_ = nullptr;
  std::atomic<std::uint64_t> nextId_{1};
  std::mutex mutex_;
  std::condition_variable cv_;
  std::deque<std::shared_ptr<CurlTask>> pending_;
  bool stopping_ = false;
  bool workerRunning_ = false;  // a worker thread is alive, or about to be
  std::condition_variable workerEnded_;
  // Started, completion not yet run. Shared with the callback queue, which can outlive the
  // session.
  std::shared_ptr<std::atomic<std::size_t>> unfinished_ =
      std::make_shared<std::atomic<std::size_t>>(0);
  // Worker thread only.
  std::map<CURL*, std::unique_ptr<Transfer>> active_;
  std::unordered_map<std::string, Origin> origins_;
  std::size_t originsWaiting_ = 0;  // origins with waiting tasks
  std::string lastQueuedUrl_;
  std::string lastQueuedOrigin_;
  // Handles of finished transfers, reset before reuse; freed with the session.
  static constexpr std::size_t kIdleEasiesKept = 16;
  std::vector<CURL*> idleEasies_;
};

namespace curl_detail {

void CurlTask::resume() noexcept {
  if (resumed_.exchange(true))
    return;
  if (auto session = session_.lock()) {
    try {
      session->start(shared_from_this());
    } catch (...) {
      // Not owned by a shared_ptr: nothing to start.
    }
  }
}

void CurlTask::cancel() noexcept {
  cancelled = true;
  // At once, not at the worker's next wake-up: a transfer still connecting must not go on to
  // send its request after the cancel returned.
  if (const auto session = session_.lock())
    session->cancelled();
}

}  // namespace curl_detail

}  // namespace quorvel::platform

namespace quorvel::platform {

CurlURLSessionFactory::CurlURLSessionFactory(CurlSessionOptions options)
    : options_(std::move(options)) {}

std::shared_ptr<URLSession> CurlURLSessionFactory::sharedSession() {
  std::lock_guard lock(mutex_);
  if (!shared_)
    shared_ = makeCurlURLSession(options_, "com.quorvel.session.shared");
  return shared_;
}

std::shared_ptr<URLSession> CurlURLSessionFactory::defaultSession() {
  auto session = std::make_shared<CurlURLSession>(options_, "com.quorvel.session.default",
                                                  std::weak_ptr<URLSessionDownloadDelegate>());
  std::lock_guard lock(mutex_);
  // Dropping a session cancels its transfers, so the factory holds each one it made until
  // nobody else does and its work is done (checked whenever another is made).
  std::erase_if(defaults_, [](const auto& s) { return s.use_count() == 1 && s->idle(); });
  defaults_.push_back(session);
  return session;
}

std::shared_ptr<URLSession> CurlURLSessionFactory::backgroundSession(
    const BackgroundSessionConfiguration& configuration,
    std::weak_ptr<URLSessionDownloadDelegate> delegate) {
  return makeCurlURLSession(options_, configuration.identifier, std::move(delegate));
}

std::shared_ptr<URLSession> makeCurlURLSession(const CurlSessionOptions& options, std::string label,
                                               std::weak_ptr<URLSessionDownloadDelegate> delegate) {
  return std::make_shared<CurlURLSession>(options, std::move(label), std::move(delegate));
}

}  // namespace quorvel::platform
