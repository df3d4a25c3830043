// Whatever a host calls through the C API, in whatever order and with whatever sizes and bytes,
// the library answers with a status and neither crashes, hangs nor leaks. Each input is a
// sequence of calls on a tracker of the POSIX platform whose transport is the host's own and
// answers at once (no network); the tracker is destroyed at the end of the input, and its
// folder removed.
#include <quorvel/quorvel.h>

#include <unistd.h>
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace {

// Reads the input front to back; past its end every read is zero or empty.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}
  bool done() const { return at_ >= size_; }
  std::uint8_t byte() { return done() ? 0 : data_[at_++]; }
  std::uint32_t u32() {
    std::uint32_t v = 0;
    for (int i = 0; i < 4; ++i)
      v = (v << 8) | byte();
    return v;
  }
  // A string of up to 255 bytes (its length is the next byte).
  std::string text() {
    const std::size_t length = std::min<std::size_t>(byte(), size_ - std::min(at_, size_));
    std::string s(reinterpret_cast<const char*>(data_ + at_), length);
    at_ += length;
    return s;
  }

 private:
  const std::uint8_t* data_;
  std::size_t size_;
  std::size_t at_ = 0;
};

// A struct size: mostly the right one, sometimes a neighbour or anything.
std::size_t structSize(Input& in, std::size_t right) {
  switch (in.byte() % 4) {
    case 0:
      return in.u32() % (right * 2 + 1);
    case 1:
      return right - 1;
    default:
      return right;
  }
}

// The answer the host's transport gives, picked by the input. Read on the library's send
// threads while the input changes it: under a lock, copied.
struct Answers {
  int status = 200;
  bool fail = false;
  std::string body = "{}";
};
std::mutex answersMutex;
Answers answers;

Answers currentAnswers() {
  const std::lock_guard lock(answersMutex);
  return answers;
}

void send(void* /*userData*/, const quorvel_transport_request* request,
          quorvel_transport_reply* reply) {
  // Touch every byte the library handed over: a bad length shows under the sanitizers.
  volatile std::uint8_t sum = 0;
  for (std::size_t i = 0; i < request->url_length; ++i)
    sum = sum + static_cast<std::uint8_t>(request->url[i]);
  for (std::size_t i = 0; i < request->body_length; ++i)
    sum = sum + request->body[i];
  const Answers answer = currentAnswers();
  if (answer.fail) {
    quorvel_transport_fail(reply, -1009, "offline", 7);
    return;
  }
  quorvel_transport_respond(reply, answer.status, "Content-Type: application/json\r\n", 32,
                            reinterpret_cast<const std::uint8_t*>(answer.body.data()),
                            answer.body.size());
}

void readJson(void* /*userData*/, const char* json, std::size_t length) {
  volatile char last = length > 0 ? json[length - 1] : 0;
  (void)last;
}
void readError(void* /*userData*/, std::int64_t /*code*/, const char* text, std::size_t length) {
  readJson(nullptr, text, length);
}
void readLog(void* /*userData*/, int /*level*/, const char* text, std::size_t length) {
  readJson(nullptr, text, length);
}
void readPurchase(void* /*userData*/, int /*succeeded*/, const char* json, std::size_t length) {
  readJson(nullptr, json, length);
}

const std::filesystem::path& folder() {
  static const std::filesystem::path path =
      std::filesystem::temp_directory_path() / ("quorvel-fuzz-c-api-" + std::to_string(::getpid()));
  return path;
}

// Removes the process's folder when the run ends.
struct Cleanup {
  ~Cleanup() {
    std::error_code ignored;
    std::filesystem::remove_all(folder(), ignored);
  }
} cleanup;

quorvel_tracker* create(Input& in) {
  const std::string data = (folder() / "data").string();
  const std::string keychain = (folder() / "keychain").string();
  const std::string domain = in.text();
  quorvel_options options;
  quorvel_options_init(&options);
  options.struct_size = structSize(in, sizeof options);
  options.data_directory = data.c_str();
  options.data_directory_length = data.size();
  options.keychain_directory = keychain.c_str();
  options.keychain_directory_length = keychain.size();
  options.bundle_identifier = "com.example.fuzz";
  options.bundle_identifier_length = 16;
  if (in.byte() % 2 == 0) {
    options.service_domain = domain.data();
    options.service_domain_length = domain.size();
  }
  options.transport = send;
  quorvel_tracker* tracker = nullptr;
  if (quorvel_tracker_create(&options, &tracker) != QUORVEL_OK)
    return nullptr;
  // A tracker made from a cut-short options struct would use the network: never here.
  if (options.struct_size != sizeof options) {
    quorvel_tracker_destroy(tracker);
    return nullptr;
  }
  return tracker;
}

// NULL with length 0 ("not set"), now and then NULL with a length (a host's mistake, refused),
// else the text.
std::pair<const char*, std::size_t> maybeText(const std::string& s, Input& in) {
  switch (in.byte() % 8) {
    case 0:
      return {nullptr, 0};
    case 1:
      return {nullptr, s.size()};
    default:
      return {s.data(), s.size()};
  }
}

void getUid(quorvel_tracker* t, Input& in) {
  const std::size_t capacity = in.byte() % 64;
  std::vector<char> buffer(capacity);
  std::size_t length = 0;
  const bool noBuffer = in.byte() % 4 == 0;
  quorvel_get_uid(t, noBuffer ? nullptr : buffer.data(), capacity,
                  in.byte() % 8 == 0 ? nullptr : &length);
}

void purchase(quorvel_tracker* t, Input& in) {
  const std::string product = in.text();
  const std::string price = in.text();
  const std::string currency = in.text();
  const std::string transaction = in.text();
  quorvel_purchase p;
  quorvel_purchase_init(&p);
  p.struct_size = structSize(in, sizeof p);
  p.product_id = product.data();
  p.product_id_length = product.size();
  p.price = price.data();
  p.price_length = price.size();
  p.currency = currency.data();
  p.currency_length = currency.size();
  p.transaction_id = transaction.data();
  p.transaction_id_length = transaction.size();
  p.callback = in.byte() % 2 == 0 ? readPurchase : nullptr;
  quorvel_validate_and_track_purchase(t, &p);
}

void callbacks(quorvel_tracker* t, Input& in) {
  quorvel_callbacks c;
  quorvel_callbacks_init(&c);
  c.struct_size = structSize(in, sizeof c);
  c.on_conversion_data = readJson;
  c.on_conversion_data_failure = readError;
  c.on_app_open_attribution = readJson;
  quorvel_set_callbacks(t, in.byte() % 4 == 0 ? nullptr : &c);
}

void stats(quorvel_tracker* t, Input& in) {
  // Room for any size the input asks for: a size the library accepts is filled up to it.
  std::vector<std::uint8_t> room(sizeof(quorvel_delivery_stats) * 2 + sizeof(std::size_t));
  quorvel_delivery_stats s;
  s.struct_size = structSize(in, sizeof s);
  std::copy_n(reinterpret_cast<const std::uint8_t*>(&s.struct_size), sizeof s.struct_size,
              room.begin());
  quorvel_get_delivery_stats(t, reinterpret_cast<quorvel_delivery_stats*>(room.data()));
}

void answerWith(Input& in) {
  constexpr int kStatuses[] = {200, 200, 400, 429, 500, 0};
  const std::uint8_t pick = in.byte();
  std::string body = in.text();
  const std::lock_guard lock(answersMutex);
  answers.status = kStatuses[pick % 6];
  answers.fail = pick % 7 == 0;
  answers.body = std::move(body);
}

// One call on the tracker (null when the input destroyed it and made none since).
void call(quorvel_tracker*& t, Input& in) {
  const std::uint8_t op = in.byte();
  switch (op % 34) {
    case 0:
      if (t == nullptr)  // calls on no tracker are refused until one is made again
        t = create(in);
      break;
    case 1:
      quorvel_tracker_destroy(t);
      t = nullptr;
      break;
    case 2: {
      const std::string s = in.text();
      quorvel_set_dev_key(t, s.data(), s.size());
      break;
    }
    case 3: {
      const std::string s = in.text();
      quorvel_set_app_id(t, s.data(), s.size());
      break;
    }
    case 4: {
      const std::string s = in.text();
      const auto [data, size] = maybeText(s, in);
      quorvel_set_customer_user_id(t, data, size);
      break;
    }
    case 5: {
      const std::string s = in.text();
      quorvel_set_currency_code(t, s.data(), s.size());
      break;
    }
    case 6:
      quorvel_set_debug(t, in.byte() % 2);
      break;
    case 7:
      quorvel_set_min_time_between_sessions(t, in.u32());
      break;
    case 8:
      getUid(t, in);
      break;
    case 9:
      quorvel_track_app_launch(t);
      break;
    case 10: {
      const std::string name = in.text();
      const std::string value = in.text();
      const auto [data, size] = maybeText(value, in);
      quorvel_track_event(t, name.data(), name.size(), data, size);
      break;
    }
    case 11: {
      const std::string name = in.text();
      const std::string values = in.text();
      quorvel_track_event_with_values(t, name.data(), name.size(), values.data(), values.size());
      break;
    }
    case 12: {
      const std::string url = in.text();
      const std::string source = in.text();
      quorvel_handle_open_url(t, url.data(), url.size(), source.data(), source.size());
      break;
    }
    case 13: {
      const std::string url = in.text();
      quorvel_continue_web_link(t, url.data(), url.size());
      break;
    }
    case 14:
      purchase(t, in);
      break;
    case 15: {
      const std::string token = in.text();
      quorvel_register_uninstall(t, reinterpret_cast<const std::uint8_t*>(token.data()),
                                 token.size());
      break;
    }
    case 16:
      callbacks(t, in);
      break;
    case 17:
      quorvel_get_conversion_data(t);
      break;
    case 18:
      quorvel_flush(t, in.byte() % 20);
      break;
    case 19:
      stats(t, in);
      break;
    case 20:
      quorvel_set_stopped(t, in.byte() % 2);
      break;
    case 21:
      (void)quorvel_is_stopped(t);
      break;
    case 22:
      quorvel_forget_this_install(t);
      break;
    case 23:
      (void)quorvel_status_text(static_cast<quorvel_status>(in.byte()));
      (void)quorvel_check_version(static_cast<int>(in.u32()));
      break;
    case 24:
      quorvel_set_log_callback(t, in.byte() % 4 == 0 ? nullptr : readLog, nullptr);
      break;
    case 25:
      quorvel_app_entered_foreground(t);
      break;
    case 26:
      quorvel_app_entered_background(t);
      break;
    case 27: {
      const std::string payload = in.text();
      quorvel_handle_push_payload(t, payload.data(), payload.size());
      break;
    }
    case 28: {
      const std::string data = in.text();
      const auto [text, size] = maybeText(data, in);
      quorvel_set_custom_data(t, text, size);
      break;
    }
    case 29:
      quorvel_set_outbox_limits(t, in.u32(), in.u32());
      break;
    case 30:
      quorvel_set_device_tracking_disabled(t, in.byte() % 2);
      break;
    case 31:
      quorvel_set_use_receipt_sandbox(t, in.byte() % 2);
      break;
    default:
      answerWith(in);
      break;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input in(data, size);
  answers = Answers{};
  quorvel_tracker* tracker = create(in);
  // Bounded: every call reads at least one byte, and at most 64 calls per input.
  for (int calls = 0; calls < 64 && !in.done(); ++calls)
    call(tracker, in);
  quorvel_tracker_destroy(tracker);
  // Each input starts on an empty folder, so that a failing one fails again on its own.
  std::error_code ignored;
  std::filesystem::remove_all(folder(), ignored);
  return 0;
}
