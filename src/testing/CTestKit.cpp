// The host test kit through the C API.
#include <quorvel/CHandle.h>
#include <quorvel/quorvel_testkit.h>
#include <quorvel/testing/TestPlatform.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <mutex>
#include <string_view>

struct quorvel_testkit {
  quorvel::testkit::TestPlatform kit;
  std::mutex mutex;  // the answers are read on the advancing thread
  bool offline = false;
  std::map<std::string, quorvel::testkit::Answer> answers;

  quorvel::testkit::Answer answer(const quorvel::testkit::SentRequest& request) {
    const std::lock_guard lock(mutex);
    if (offline)
      return quorvel::testkit::Answer::offline();
    const auto it = answers.find(request.service());
    return it != answers.end() ? it->second : quorvel::testkit::Answer{};
  }
};

namespace {

quorvel_status copyOut(std::string_view text, char* buffer, size_t capacity, size_t* length) {
  // As in the main API: a capacity with no buffer is a host's mistake, not a size query.
  if ((buffer == nullptr && capacity > 0) || length == nullptr)
    return QUORVEL_ERROR_INVALID_ARGUMENT;
  *length = text.size();
  if (buffer != nullptr && capacity > 0)
    std::memcpy(buffer, text.data(), std::min(capacity, text.size()));
  return capacity >= text.size() ? QUORVEL_OK : QUORVEL_ERROR_BUFFER_TOO_SMALL;
}

template <typename Read>
quorvel_status readSent(quorvel_testkit* kit, size_t index, char* buffer, size_t capacity,
                        size_t* length, Read&& read) {
  if (kit == nullptr)
    return QUORVEL_ERROR_INVALID_ARGUMENT;
  try {
    const auto sent = kit->kit.transport->sent();
    if (index >= sent.size())
      return QUORVEL_ERROR_INVALID_ARGUMENT;
    return copyOut(read(sent[index]), buffer, capacity, length);
  } catch (...) {
    return QUORVEL_ERROR_FAILED;
  }
}

}  // namespace

extern "C" {

quorvel_status quorvel_testkit_create(const char* developer_key, size_t length,
                                      quorvel_testkit** kit, quorvel_tracker** tracker) {
  if (developer_key == nullptr || kit == nullptr || tracker == nullptr)
    return QUORVEL_ERROR_INVALID_ARGUMENT;
  *kit = nullptr;
  *tracker = nullptr;
  try {
    auto made = std::make_unique<quorvel_testkit>();
    made->kit = quorvel::testkit::makeTestPlatform(std::string(developer_key, length));
    made->kit.transport->setResponder(
        [kit = made.get()](const quorvel::platform::URLRequest& request) {
          quorvel::testkit::SentRequest sent;
          sent.request = request;
          return kit->answer(sent);
        });
    *tracker = quorvel::makeCTrackerHandle(made->kit.platform);
    if (*tracker == nullptr)
      return QUORVEL_ERROR_FAILED;
    *kit = made.release();  // the host's until quorvel_testkit_destroy
    return QUORVEL_OK;
  } catch (...) {
    return QUORVEL_ERROR_FAILED;
  }
}

void quorvel_testkit_destroy(quorvel_testkit* kit) {
  delete kit;  // NOLINT(cppcoreguidelines-owning-memory): the host's handle ends here
}

quorvel_status quorvel_testkit_advance(quorvel_testkit* kit, uint64_t milliseconds) {
  if (kit == nullptr)
    return QUORVEL_ERROR_INVALID_ARGUMENT;
  // The virtual clock counts signed nanoseconds: a larger step would wrap into a negative one.
  constexpr std::uint64_t kLongestStep = std::uint64_t{100} * 366 * 24 * 3600 * 1000;
  const auto step = static_cast<std::int64_t>(std::min(milliseconds, kLongestStep));
  kit->kit.dispatcher->advance(std::chrono::milliseconds(step));
  return QUORVEL_OK;
}

quorvel_status quorvel_testkit_set_offline(quorvel_testkit* kit, int offline) {
  if (kit == nullptr)
    return QUORVEL_ERROR_INVALID_ARGUMENT;
  const std::lock_guard lock(kit->mutex);
  kit->offline = offline != 0;
  return QUORVEL_OK;
}

quorvel_status quorvel_testkit_answer_service(quorvel_testkit* kit, const char* service,
                                              size_t service_length, int status, const char* body,
                                              size_t body_length) {
  if (kit == nullptr || service == nullptr)
    return QUORVEL_ERROR_INVALID_ARGUMENT;
  try {
    quorvel::testkit::Answer answer;
    answer.status = status;
    answer.body = body != nullptr ? std::string(body, body_length) : std::string();
    const std::lock_guard lock(kit->mutex);
    kit->answers[std::string(service, service_length)] = std::move(answer);
    return QUORVEL_OK;
  } catch (...) {
    return QUORVEL_ERROR_FAILED;
  }
}

size_t quorvel_testkit_sent_count(quorvel_testkit* kit) {
  return kit == nullptr ? 0 : kit->kit.transport->sent().size();
}

quorvel_status quorvel_testkit_sent_service(quorvel_testkit* kit, size_t index, char* buffer,
                                            size_t capacity, size_t* length) {
  return readSent(kit, index, buffer, capacity, length,
                  [](const quorvel::testkit::SentRequest& r) { return r.service(); });
}

quorvel_status quorvel_testkit_sent_payload(quorvel_testkit* kit, size_t index, char* buffer,
                                            size_t capacity, size_t* length) {
  return readSent(kit, index, buffer, capacity, length, [](const quorvel::testkit::SentRequest& r) {
    return r.payload ? r.payload->dump() : std::string("null");
  });
}

}  // extern "C"
