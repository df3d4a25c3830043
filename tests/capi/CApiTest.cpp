// The C API: a whole session written in C, misuse answered with a status, and the guarantee
// that no callback reaches the host once it has destroyed its handle.
#include <gtest/gtest.h>

#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <quorvel/quorvel_testkit.h>

#include "capi/CTracker.h"
#include "platform/SendTicket.h"
#include "support/Decrypt.h"
#include "support/Eventually.h"
#include "support/TempDir.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

// In CSession.c: 1 when the session went as expected; otherwise 0 and the failed check.
extern "C" int run_c_session(char* failure, size_t capacity);

namespace {

TEST(CApi, ASessionWrittenInCGetsWhatACppHostGets) {
  char failure[512] = {};
  EXPECT_EQ(run_c_session(failure, sizeof failure), 1) << failure;
}

TEST(CApi, NoCallbackRunsOnceTheHandleIsDestroyedOrTheCallbacksReplaced) {
  quorvel_testkit* kit = nullptr;
  quorvel_tracker* tracker = nullptr;
  ASSERT_EQ(quorvel_testkit_create("K", 1, &kit, &tracker), QUORVEL_OK);
  std::atomic<int> calls = 0;
  quorvel_callbacks callbacks;
  quorvel_callbacks_init(&callbacks);
  callbacks.user_data = &calls;
  callbacks.on_conversion_data = [](void* data, const char*, size_t) {
    ++*static_cast<std::atomic<int>*>(data);
  };
  ASSERT_EQ(quorvel_set_callbacks(tracker, &callbacks), QUORVEL_OK);
  quorvel_set_dev_key(tracker, "K", 1);
  quorvel_set_app_id(tracker, "1", 1);
  quorvel_track_app_launch(tracker);
  ASSERT_EQ(quorvel_set_callbacks(tracker, nullptr), QUORVEL_OK);  // removed before they fall due
  quorvel_testkit_advance(kit, 10000);
  EXPECT_EQ(calls, 0);

  ASSERT_EQ(quorvel_set_callbacks(tracker, &callbacks), QUORVEL_OK);
  quorvel_get_conversion_data(tracker);
  quorvel_tracker_destroy(tracker);
  quorvel_testkit_advance(kit, 10000);  // what was queued for the handle runs now, or never
  EXPECT_EQ(calls, 0);
  quorvel_testkit_destroy(kit);
}

// Kit and tracker for one test, released in the right order.
struct Kit {
  quorvel_testkit* kit = nullptr;
  quorvel_tracker* tracker = nullptr;
  Kit() {
    EXPECT_EQ(quorvel_testkit_create("K", 1, &kit, &tracker), QUORVEL_OK);
    quorvel_set_app_id(tracker, "1", 1);
  }
  Kit(const Kit&) = delete;
  Kit& operator=(const Kit&) = delete;
  ~Kit() {
    quorvel_tracker_destroy(tracker);
    quorvel_testkit_destroy(kit);
  }
};

TEST(CApi, MisuseIsRefusedWithAStatusAndNothingHalfDone) {
  const Kit k;
  quorvel_tracker* t = k.tracker;
  const std::string deep = std::string(200, '[') + std::string(200, ']');
  const std::string deepValues = R"({"v": )" + deep + "}";
  size_t length = 0;
  char uid[64];
  quorvel_callbacks callbacks;
  quorvel_callbacks_init(&callbacks);
  quorvel_purchase purchase;
  quorvel_purchase_init(&purchase);
  quorvel_options options;
  quorvel_options_init(&options);
  // A host built against a 1.3 header calls the function with its smaller struct: nothing
  // past it is written.
  std::vector<unsigned char> older(sizeof options, 0xAB);
  (quorvel_options_init)(reinterpret_cast<quorvel_options*>(older.data()));
  const size_t olderSize = offsetof(quorvel_options, transport_release);
  EXPECT_EQ(reinterpret_cast<quorvel_options*>(older.data())->struct_size, olderSize);
  EXPECT_TRUE(
      std::all_of(older.begin() + olderSize, older.end(), [](auto b) { return b == 0xAB; }));
  quorvel_tracker* made = nullptr;
  const struct {
    const char* what;
    quorvel_status status;
    quorvel_status expected;
  } cases[] = {
      {"empty name", quorvel_track_event(t, "", 0, nullptr, 0), QUORVEL_ERROR_INVALID_ARGUMENT},
      {"empty name, values", quorvel_track_event_with_values(t, "e", 0, "{}", 2),
       QUORVEL_ERROR_INVALID_ARGUMENT},
      {"values past the depth bound",
       quorvel_track_event_with_values(t, "deep", 4, deepValues.data(), deepValues.size()),
       QUORVEL_ERROR_INVALID_ARGUMENT},
      {"a capacity without a buffer", quorvel_get_uid(t, nullptr, 100, &length),
       QUORVEL_ERROR_INVALID_ARGUMENT},
      {"a length query", quorvel_get_uid(t, nullptr, 0, &length), QUORVEL_ERROR_BUFFER_TOO_SMALL},
      {"no place for the length", quorvel_get_uid(t, uid, sizeof uid, nullptr),
       QUORVEL_ERROR_INVALID_ARGUMENT},
      {"a value NULL with a length", quorvel_track_event(t, "e", 1, nullptr, 5),
       QUORVEL_ERROR_INVALID_ARGUMENT},
      {"a key NULL with a length", quorvel_set_dev_key(t, nullptr, 5),
       QUORVEL_ERROR_INVALID_ARGUMENT},
      {"callbacks cut in a pointer",
       (callbacks.struct_size = offsetof(quorvel_callbacks, on_app_open_attribution) + 4,
        quorvel_set_callbacks(t, &callbacks)),
       QUORVEL_ERROR_INVALID_ARGUMENT},
      {"a purchase of an unknown size",
       (purchase.struct_size = sizeof purchase + 8,
        quorvel_validate_and_track_purchase(t, &purchase)),
       QUORVEL_ERROR_INVALID_ARGUMENT},
      {"options cut in the transport",
       (options.struct_size = offsetof(quorvel_options, transport) + 4,
        quorvel_tracker_create(&options, &made)),
       QUORVEL_ERROR_INVALID_ARGUMENT},
  };
  for (const auto& c : cases)
    EXPECT_EQ(c.status, c.expected) << c.what;
  EXPECT_GT(length, 0U);
  EXPECT_EQ(made, nullptr);
  EXPECT_EQ(quorvel_is_stopped(nullptr), -1);
  quorvel_set_dev_key(t, "K", 1);
  quorvel_testkit_answer_service(k.kit, "t", 1, 400, "{}", 2);
  quorvel_track_app_launch(t);
  quorvel_testkit_advance(k.kit, 10000);
  ASSERT_GT(quorvel_testkit_sent_count(k.kit), 0U);
  quorvel_delivery_stats stats{};
  stats.struct_size = offsetof(quorvel_delivery_stats, refused);  // a 1.3 host's
  ASSERT_EQ(quorvel_get_delivery_stats(t, &stats), QUORVEL_OK);
  EXPECT_EQ(stats.refused, 0U);  // past its struct: untouched
  stats.struct_size = sizeof stats;
  ASSERT_EQ(quorvel_get_delivery_stats(t, &stats), QUORVEL_OK);
  EXPECT_EQ(stats.refused, 1U);
  EXPECT_EQ(quorvel_testkit_sent_payload(k.kit, 0, nullptr, 100, &length),
            QUORVEL_ERROR_INVALID_ARGUMENT);
  // A forked child's copy is inert: its state is not "running".
  const pid_t child = fork();
  if (child == 0)
    _exit(quorvel_is_stopped(t) == -1 ? 0 : 1);
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  for (size_t i = 0; i < quorvel_testkit_sent_count(k.kit); ++i) {
    char payload[16384];
    ASSERT_EQ(quorvel_testkit_sent_payload(k.kit, i, payload, sizeof payload, &length), QUORVEL_OK);
    EXPECT_EQ(std::string(payload, length).find("deep"), std::string::npos);
  }
}

TEST(CApi, DestroyFromInsideACallbackReturnsAndNothingIsCalledAfter) {
  quorvel_testkit* kit = nullptr;
  quorvel_tracker* tracker = nullptr;
  ASSERT_EQ(quorvel_testkit_create("K", 1, &kit, &tracker), QUORVEL_OK);
  struct State {
    quorvel_tracker* tracker;
    std::atomic<int> calls = 0;
  } state{tracker};
  quorvel_callbacks callbacks;
  quorvel_callbacks_init(&callbacks);
  callbacks.user_data = &state;
  callbacks.on_conversion_data = [](void* data, const char*, size_t) {
    auto* s = static_cast<State*>(data);
    if (++s->calls == 1)
      quorvel_tracker_destroy(s->tracker);  // returns at once; finished once this returns
  };
  ASSERT_EQ(quorvel_set_callbacks(tracker, &callbacks), QUORVEL_OK);
  quorvel_set_dev_key(tracker, "K", 1);
  quorvel_set_app_id(tracker, "1", 1);
  const std::string attribution = R"({"status": "unpaid"})";
  quorvel_testkit_answer_service(kit, "sdk", 3, 200, attribution.data(), attribution.size());
  quorvel_track_app_launch(tracker);
  quorvel_testkit_advance(kit, 10000);
  ASSERT_EQ(state.calls, 1);
  quorvel_testkit_advance(kit, 10000);
  EXPECT_EQ(state.calls, 1);
  quorvel_testkit_destroy(kit);
}

// A data and a keychain folder for a tracker on a host transport, removed with it.
struct HostFolder {
  quorvel::test::TempDir root;
  std::string data = root / "app";
  std::string keys = root / "keys";
  HostFolder() = default;
  explicit HostFolder(const char* name) : data(root / name) {}
  quorvel_options options(quorvel_transport_send send, void* user,
                          void (*release)(void*) = nullptr) const {
    quorvel_options options;
    quorvel_options_init(&options);
    options.data_directory = data.data();
    options.data_directory_length = data.size();
    options.keychain_directory = keys.data();
    options.keychain_directory_length = keys.size();
    options.transport = send;
    options.transport_user_data = user;
    options.transport_release = release;
    return options;
  }
};

// A tracker made from `options`, with its developer key and app id.
quorvel_tracker* configured(const quorvel_options& options) {
  quorvel_tracker* tracker = nullptr;
  EXPECT_EQ(quorvel_tracker_create(&options, &tracker), QUORVEL_OK);
  quorvel_set_dev_key(tracker, "K", 1);
  quorvel_set_app_id(tracker, "1", 1);
  return tracker;
}

// Ready once a flush of `tracker` has taken the reports it judges (its debug line says so).
std::shared_future<void> whenAFlushBegins(quorvel_tracker* tracker, std::promise<void>& began) {
  quorvel_set_debug(tracker, 1);
  quorvel_set_log_callback(
      tracker,
      [](void* user, int, const char* text, size_t length) {
        if (std::string_view(text, length).find("flush waits for") != std::string_view::npos)
          static_cast<std::promise<void>*>(user)->set_value();
      },
      &began);
  return began.get_future().share();
}

// What a host lends its transport, freed at the release notice: under AddressSanitizer a
// transport call after it reads freed memory. The notice says how many sends were under way.
struct LentState {
  std::atomic<int> underWay = 0;
  std::atomic<quorvel_tracker*> destroyInSend = nullptr;
  std::shared_future<void> destroyWhen;  // once the host's own call has returned
  std::atomic<bool> sentOnce = false;
  std::promise<void> sent;
  std::promise<int> released;

  static void send(void* user, const quorvel_transport_request*, quorvel_transport_reply* reply) {
    auto* state = static_cast<LentState*>(user);
    ++state->underWay;
    if (quorvel_tracker* own = state->destroyInSend.exchange(nullptr)) {
      state->destroyWhen.wait();
      quorvel_tracker_destroy(own);
    }
    quorvel_transport_fail(reply, -1009, "offline", 7);
    --state->underWay;  // freed memory, had the notice come during the send
  }

  static void release(void* user) {
    auto* state = static_cast<LentState*>(user);
    std::promise<int> released = std::move(state->released);
    const int underWay = state->underWay;
    delete state;  // NOLINT(cppcoreguidelines-owning-memory): the host's own
    released.set_value(underWay);
  }
};

TEST(CApi, AHostFreesItsTransportStateAtTheReleaseNotice) {
  const HostFolder folder;
  auto* host = new LentState;  // NOLINT(cppcoreguidelines-owning-memory): freed at the notice
  std::future<int> released = host->released.get_future();
  quorvel_options options = folder.options(LentState::send, host, LentState::release);
  quorvel_tracker* tracker = configured(options);
  quorvel_track_app_launch(tracker);
  EXPECT_EQ(quorvel_flush(tracker, 30000), QUORVEL_ERROR_FAILED);  // sent, and failed
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([tracker] {
      for (int i = 0; i < 50; ++i)
        quorvel_track_event(tracker, "e", 1, "1", 1);
    });
  }
  for (auto& thread : threads)
    thread.join();
  quorvel_tracker_destroy(tracker);
  ASSERT_EQ(released.wait_for(std::chrono::seconds(30)), std::future_status::ready);
  EXPECT_EQ(released.get(), 0);

  // The folder is let go with the handle: a new tracker on it holds it at once and sends
  // what the first one kept.
  static std::atomic<int> answered = 0;
  options.transport_release = nullptr;
  options.transport = [](void*, const quorvel_transport_request*, quorvel_transport_reply* reply) {
    ++answered;
    quorvel_transport_respond(reply, 200, "", 0, nullptr, 0);
    quorvel_transport_fail(reply, -1009, "answered twice", 14);  // a host's mistake: ignored
  };
  tracker = configured(options);
  quorvel_delivery_stats stats{};
  stats.struct_size = sizeof stats;
  ASSERT_EQ(quorvel_get_delivery_stats(tracker, &stats), QUORVEL_OK);
  EXPECT_EQ(stats.data_directory_held_elsewhere, 0);
  quorvel_track_app_launch(tracker);
  // The flush waits for what the first tracker kept too, which goes by the replay.
  EXPECT_EQ(quorvel_flush(tracker, 30000), QUORVEL_OK);
  EXPECT_EQ(quorvel_get_delivery_stats(tracker, &stats), QUORVEL_OK);
  EXPECT_EQ(stats.waiting, 0U);
  EXPECT_GE(answered.load(), 202);  // the two launches and the 200 events
  quorvel_tracker_destroy(tracker);
}

// Destroyed from inside its own send, a tracker returns at once; the notice waits for that send.
TEST(CApi, TheReleaseNoticeComesOnceTheSendThatDestroyedTheTrackerReturned) {
  const HostFolder folder;
  auto* host = new LentState;  // NOLINT(cppcoreguidelines-owning-memory): freed at the notice
  std::future<int> released = host->released.get_future();
  const quorvel_options options = folder.options(LentState::send, host, LentState::release);
  std::promise<void> launched;
  host->destroyWhen = launched.get_future().share();
  quorvel_tracker* tracker = configured(options);
  host->destroyInSend = tracker;
  quorvel_track_app_launch(tracker);
  launched.set_value();
  ASSERT_EQ(released.wait_for(std::chrono::seconds(30)), std::future_status::ready);
  EXPECT_EQ(released.get(), 0);
}

// An interpreter exiting ends the foreign threads that call into it (a forced unwind): a library
// thread ended under a send unwinds, neither aborting nor leaving the send counted.
TEST(CApi, AThreadEndedUnderASendUnwindsAndTheTrackerIsStillReleased) {
  const HostFolder folder;
  auto* host = new LentState;  // NOLINT(cppcoreguidelines-owning-memory): freed at the notice
  std::future<int> released = host->released.get_future();
  std::future<void> sent = host->sent.get_future();
  const quorvel_options options = folder.options(
      [](void* user, const quorvel_transport_request*, quorvel_transport_reply*) {
        auto* state = static_cast<LentState*>(user);
        if (!state->sentOnce.exchange(true))
          state->sent.set_value();
        pthread_exit(nullptr);
      },
      host, LentState::release);
  quorvel_tracker* tracker = configured(options);
  quorvel_track_app_launch(tracker);
  ASSERT_EQ(sent.wait_for(std::chrono::seconds(30)), std::future_status::ready);
  quorvel_tracker_destroy(tracker);
  EXPECT_EQ(released.wait_for(std::chrono::seconds(30)), std::future_status::ready);
}

// A host that never answers: the request fails as timed out once past its timeout, and what it
// carried is let go (not kept for an answer that never comes).
TEST(CApi, ARequestTheHostNeverAnswersIsFailedAndForgottenPastItsTimeout) {
  std::vector<quorvel_transport_reply*> replies;
  const auto transport = quorvel::capi::makeCTransport(
      [](void* user, const quorvel_transport_request*, quorvel_transport_reply* reply) {
        static_cast<std::vector<quorvel_transport_reply*>*>(user)->push_back(reply);
      },
      &replies, std::make_shared<quorvel::capi::CallGate>());
  std::vector<std::int64_t> failures;
  auto carried = std::make_shared<int>();
  const std::weak_ptr<int> kept = carried;
  transport->send({"POST", "https://a.svc.example/", {}, {1, 2, 3}, std::chrono::milliseconds(0)},
                  [&failures, carried = std::move(carried)](auto, auto failure) {
                    failures.push_back(failure ? failure->code : 0);
                  });
  transport->send({"POST", "https://a.svc.example/", {}, {}, std::chrono::seconds(60)},
                  [](auto, auto) {});
  EXPECT_EQ(failures, std::vector<std::int64_t>{-1001});
  EXPECT_TRUE(kept.expired());
  // A transport that queues requests can tell the one given up on (not to be sent) from the
  // one still awaited.
  ASSERT_EQ(replies.size(), 2U);
  EXPECT_EQ(quorvel_transport_pending(replies[0]), 0);
  EXPECT_EQ(quorvel_transport_pending(replies[1]), 1);
  quorvel_transport_respond(replies[1], 200, nullptr, 0, nullptr, 0);
  EXPECT_EQ(quorvel_transport_pending(replies[1]), 0);
  // Once it takes requests before it sends them, one it had not taken by its deadline never
  // left: its next copy is no repeat.
  const auto send = [&](std::chrono::milliseconds timeout) {
    transport->send({"POST", "https://a.svc.example/", {}, {}, timeout},
                    [&](auto, auto failure) { failures.push_back(failure ? failure->code : 0); });
  };
  send(std::chrono::seconds(60));
  EXPECT_EQ(quorvel_transport_take(replies.back()), 1);
  {
    const quorvel::platform::SendTicketScope lane(
        std::make_shared<quorvel::platform::SendTicket>());
    send(std::chrono::milliseconds(0));
    EXPECT_TRUE(quorvel::platform::currentSendTicket()->heldUnsentByHost());
  }
  send(std::chrono::seconds(60));  // finds the other past its deadline
  EXPECT_EQ(failures.back(), -1004);
  // Taken, it may have left, whatever a later take hears (a stop came meanwhile).
  const auto ticket = std::make_shared<quorvel::platform::SendTicket>();
  {
    const quorvel::platform::SendTicketScope lane(ticket);
    send(std::chrono::seconds(60));
  }
  EXPECT_EQ(quorvel_transport_take(replies.back()), 1);
  ticket->cancelled = true;
  EXPECT_EQ(quorvel_transport_take(replies.back()), 0);
  EXPECT_FALSE(ticket->heldUnsentByHost());
}

// A transport that queues requests sends none of them once a stop, a forgetting or a destroy
// returned: the library gave them up, and says so.
TEST(CApi, ATransportThatQueuesSeesEveryRequestGivenUpOnceStopForgetOrDestroyReturned) {
  for (const int way : {0, 1, 2}) {  // a stop, a forgetting, a destroy
    const bool forget = way == 1;
    const HostFolder folder;
    struct Queue {
      std::mutex mutex;
      std::vector<quorvel_transport_reply*> replies;
    } queue;
    quorvel_tracker* tracker = configured(folder.options(
        [](void* user, const quorvel_transport_request*, quorvel_transport_reply* reply) {
          auto* queued = static_cast<Queue*>(user);
          const std::lock_guard lock(queued->mutex);
          queued->replies.push_back(reply);
        },
        &queue));
    quorvel_track_app_launch(tracker);
    ASSERT_TRUE(quorvel::test::eventually([&] {
      const std::lock_guard lock(queue.mutex);
      return !queue.replies.empty();
    }));
    if (way == 2)
      quorvel_tracker_destroy(tracker);
    else
      EXPECT_EQ(forget ? quorvel_forget_this_install(tracker) : quorvel_set_stopped(tracker, 1),
                QUORVEL_OK);
    {
      const std::lock_guard lock(queue.mutex);
      for (auto* reply : queue.replies) {
        EXPECT_EQ(quorvel_transport_pending(reply), 0) << way;
        EXPECT_EQ(quorvel_transport_take(reply), 0) << way;
      }
    }
    if (way != 2)
      quorvel_tracker_destroy(tracker);
  }
}

// Inside one tracker's callback, another tracker is an ordinary one: its destroy waits for its
// own sends under way on other threads.
TEST(CApi, DestroyingAnotherTrackerFromACallbackWaitsForThatTrackersSends) {
  struct Host {
    std::mutex mutex;
    std::condition_variable changed;
    int started = 0;
    int finished = 0;
    bool released = false;
  };
  auto host = std::make_unique<Host>();
  const HostFolder folder("b");
  const quorvel_options options = folder.options(
      [](void* user, const quorvel_transport_request*, quorvel_transport_reply* reply) {
        auto* h = static_cast<Host*>(user);
        std::unique_lock lock(h->mutex);
        ++h->started;
        h->changed.notify_all();
        h->changed.wait_for(lock, std::chrono::seconds(30), [h] { return h->released; });
        ++h->finished;  // freed memory, were this send still under way once destroy returned
        lock.unlock();
        quorvel_transport_fail(reply, -1009, "offline", 7);
      },
      host.get());
  quorvel_tracker* b = nullptr;
  ASSERT_EQ(quorvel_tracker_create(&options, &b), QUORVEL_OK);
  quorvel_set_dev_key(b, "K", 1);
  quorvel_set_app_id(b, "1", 1);
  quorvel_track_app_launch(b);

  struct Inside {
    quorvel_tracker* b;
    Host* host;
    std::thread releaser;
    int unfinishedAtReturn = -1;
  } inside{b, host.get(), {}, -1};
  const Kit a;
  quorvel_callbacks callbacks;
  quorvel_callbacks_init(&callbacks);
  callbacks.user_data = &inside;
  callbacks.on_conversion_data = [](void* user, const char*, size_t) {
    auto* in = static_cast<Inside*>(user);
    if (in->b == nullptr)
      return;
    {
      std::unique_lock lock(in->host->mutex);
      in->host->changed.wait_for(lock, std::chrono::seconds(30),
                                 [in] { return in->host->started > 0; });
    }
    in->releaser = std::thread([h = in->host] {
      const std::lock_guard lock(h->mutex);
      h->released = true;
      h->changed.notify_all();
    });
    quorvel_tracker_destroy(std::exchange(in->b, nullptr));
    const std::lock_guard lock(in->host->mutex);
    in->unfinishedAtReturn = in->host->started - in->host->finished;
  };
  ASSERT_EQ(quorvel_set_callbacks(a.tracker, &callbacks), QUORVEL_OK);
  quorvel_set_dev_key(a.tracker, "K", 1);
  const std::string attribution = R"({"status": "unpaid"})";
  quorvel_testkit_answer_service(a.kit, "sdk", 3, 200, attribution.data(), attribution.size());
  quorvel_track_app_launch(a.tracker);
  quorvel_testkit_advance(a.kit, 10000);
  ASSERT_TRUE(inside.releaser.joinable());
  inside.releaser.join();
  EXPECT_EQ(inside.unfinishedAtReturn, 0);
}

// The lines a host's log function received.
struct HostLog {
  std::mutex mutex;
  std::vector<std::pair<int, std::string>> lines;

  static void write(void* self, int level, const char* text, size_t length) {
    auto* log = static_cast<HostLog*>(self);
    const std::lock_guard lock(log->mutex);
    log->lines.emplace_back(level, std::string(text, length));
  }
  size_t count() {
    const std::lock_guard lock(mutex);
    return lines.size();
  }
  bool has(int level, const std::string& part) {
    const std::lock_guard lock(mutex);
    return std::ranges::any_of(lines, [&](const auto& line) {
      return line.first == level && line.second.find(part) != std::string::npos &&
             line.second.find("[") != 0;  // the level tag is not in the text
    });
  }
};

// Another thread tracking during a flush never turns the flush's own delivered reports into a
// failure.
TEST(CApi, AFlushJudgesTheReportsMadeBeforeItNotThoseTrackedMeanwhile) {
  const HostFolder folder;
  struct Host {
    std::atomic<quorvel_tracker*> tracker = nullptr;
    std::atomic<int> sends = 0;
    std::shared_future<void> flushBegan;
  } host;
  const auto send = [](void* user, const quorvel_transport_request*,
                       quorvel_transport_reply* reply) {
    auto& h = *static_cast<Host*>(user);
    if (h.sends++ > 0)
      return quorvel_transport_fail(reply, -1009, "offline", 7);
    // The launch, answered only once the flush has taken its reports and another report
    // was tracked and accepted meanwhile.
    h.flushBegan.wait_for(std::chrono::seconds(30));
    quorvel_track_event(h.tracker, "meanwhile", 9, nullptr, 0);
    quorvel_delivery_stats stats{};
    stats.struct_size = sizeof stats;
    for (int i = 0; i < 3000 && stats.waiting < 2; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
      quorvel_get_delivery_stats(h.tracker, &stats);
    }
    quorvel_transport_respond(reply, 200, "", 0, nullptr, 0);
  };
  quorvel_tracker* tracker = configured(folder.options(send, &host));
  host.tracker = tracker;
  std::promise<void> began;
  host.flushBegan = whenAFlushBegins(tracker, began);
  quorvel_track_app_launch(tracker);
  EXPECT_EQ(quorvel_flush(tracker, 30000), QUORVEL_OK);
  // The launch was delivered; the event tracked meanwhile was not.
  quorvel_delivery_stats stats{};
  stats.struct_size = sizeof stats;
  ASSERT_EQ(quorvel_get_delivery_stats(tracker, &stats), QUORVEL_OK);
  EXPECT_EQ(stats.delivered, 1U);
  EXPECT_EQ(stats.waiting + stats.kept_as_files, 1U);
  // Stopped, nothing goes: a flush says so at once instead of waiting out its bound.
  quorvel_track_event(tracker, "held", 4, nullptr, 0);
  quorvel_set_stopped(tracker, 1);
  EXPECT_EQ(quorvel_flush(tracker, 5000), QUORVEL_ERROR_FAILED);
  quorvel_tracker_destroy(tracker);
}

// A report the service refused is settled, but not delivered.
TEST(CApi, AFlushSaysOkOnlyWhenTheServiceTookEveryReport) {
  const HostFolder folder;
  const auto refuse = [](void*, const quorvel_transport_request*, quorvel_transport_reply* reply) {
    quorvel_transport_respond(reply, 400, "", 0, nullptr, 0);
  };
  quorvel_tracker* tracker = configured(folder.options(refuse, nullptr));
  quorvel_track_app_launch(tracker);
  EXPECT_EQ(quorvel_flush(tracker, 30000), QUORVEL_ERROR_FAILED);
  quorvel_tracker_destroy(tracker);
}

// An engine that ends with exit() and never destroys its tracker: what it tracked in its last
// moments (not yet on the disk when exit() was called) is written then and sent at the next
// start.
TEST(CApi, WhatAHostTrackedRightBeforeExitWithoutDestroyIsSentAtTheNextStart) {
  const HostFolder folder;
  const auto neverAnswers = [](void*, const quorvel_transport_request*, quorvel_transport_reply*) {
  };
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    quorvel_tracker* tracker = configured(folder.options(neverAnswers, nullptr));
    for (int i = 0; i < 50; ++i)
      quorvel_track_event(tracker, "last", 4, nullptr, 0);
    std::exit(0);
  }
  // Its exit status is not judged here: in this binary a dependency initialises OpenSSL at
  // load time with its own exit cleanup, which the library's threads, still building, can meet.
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  static std::atomic<int> sent = 0;
  const auto answers = [](void*, const quorvel_transport_request*, quorvel_transport_reply* reply) {
    ++sent;
    quorvel_transport_respond(reply, 200, "", 0, nullptr, 0);
  };
  quorvel_tracker* tracker = configured(folder.options(answers, nullptr));
  EXPECT_EQ(quorvel_flush(tracker, 30000), QUORVEL_OK);
  EXPECT_EQ(sent.load(), 50);
  quorvel_tracker_destroy(tracker);
}

// What earlier trackers on the folder left unsent goes by the replay: a flush waits for it
// instead of judging it failed before it was ever tried. And a flush under way on another
// thread when the host destroys the handle is waited for (under AddressSanitizer, a flush
// left running on the freed tracker is a use after free).
TEST(CApi, AFlushWaitsForWhatEarlierTrackersLeftAndDestroyWaitsForAFlush) {
  const HostFolder folder;
  const auto neverAnswers = [](void*, const quorvel_transport_request*, quorvel_transport_reply*) {
  };
  quorvel_options options = folder.options(neverAnswers, nullptr);
  for (int round = 0; round < 3; ++round) {
    quorvel_tracker* tracker = configured(options);
    for (int i = 0; i < 20; ++i)
      quorvel_track_event(tracker, "e", 1, "1", 1);
    if (round < 2) {
      quorvel_tracker_destroy(tracker);
      continue;
    }
    std::promise<void> began;
    const auto flushBegan = whenAFlushBegins(tracker, began);
    auto flushed =
        std::async(std::launch::async, [tracker] { return quorvel_flush(tracker, 300); });
    flushBegan.wait();
    quorvel_tracker_destroy(tracker);
    EXPECT_EQ(flushed.wait_for(std::chrono::seconds(0)), std::future_status::ready);
    EXPECT_EQ(flushed.get(), QUORVEL_ERROR_TIMED_OUT);
  }
  static std::atomic<int> answered = 0;
  options.transport = [](void*, const quorvel_transport_request*, quorvel_transport_reply* reply) {
    ++answered;
    quorvel_transport_respond(reply, 200, "", 0, nullptr, 0);
  };
  quorvel_tracker* tracker = configured(options);
  EXPECT_EQ(quorvel_flush(tracker, 30000), QUORVEL_OK);
  quorvel_delivery_stats stats{};
  stats.struct_size = sizeof stats;
  ASSERT_EQ(quorvel_get_delivery_stats(tracker, &stats), QUORVEL_OK);
  EXPECT_EQ(stats.waiting, 0U);
  // A request a destroy cut off may wait as a kept file instead, which goes on its own.
  EXPECT_GE(answered.load(), 50);
  quorvel_tracker_destroy(tracker);
}

TEST(CApi, TheLogGoesToTheHostsFunctionWithItsLevelsAndNeverAfterDestroy) {
  quorvel_testkit* kit = nullptr;
  quorvel_tracker* t = nullptr;
  ASSERT_EQ(quorvel_testkit_create("K", 1, &kit, &t), QUORVEL_OK);
  HostLog log;
  ASSERT_EQ(quorvel_set_log_callback(t, HostLog::write, &log), QUORVEL_OK);
  quorvel_set_debug(t, 1);
  quorvel_set_dev_key(t, "K", 1);
  quorvel_set_app_id(t, "1", 1);
  quorvel_set_customer_user_id(t, "u1", 2);
  EXPECT_TRUE(log.has(QUORVEL_LOG_DEBUG, "SetCustomerId = u1"));
  quorvel_track_app_launch(t);
  quorvel_testkit_advance(kit, 10000);
  EXPECT_TRUE(log.has(QUORVEL_LOG_INFO, "trackAppLaunch] Launch"));

  ASSERT_EQ(quorvel_set_log_callback(t, nullptr, nullptr), QUORVEL_OK);
  const size_t removed = log.count();
  quorvel_set_customer_user_id(t, "u2", 2);
  EXPECT_EQ(log.count(), removed);

  ASSERT_EQ(quorvel_set_log_callback(t, HostLog::write, &log), QUORVEL_OK);
  quorvel_track_event(t, "e", 1, "1", 1);
  quorvel_tracker_destroy(t);
  const size_t atDestroy = log.count();
  quorvel_testkit_advance(kit, 10000);  // what was queued for the handle runs now, or never
  EXPECT_EQ(log.count(), atDestroy);
  quorvel_testkit_destroy(kit);

  // The platform's own services (the preferences file here, a file where its folder goes) log
  // through the host's function too.
  const HostFolder folder;
  std::filesystem::create_directories(folder.data + "/Library");
  std::ofstream(folder.data + "/Library/Preferences") << "not a folder";
  quorvel_tracker* real = configured(folder.options(nullptr, nullptr));
  HostLog stores;
  ASSERT_EQ(quorvel_set_log_callback(real, HostLog::write, &stores), QUORVEL_OK);
  quorvel_set_customer_user_id(real, "u3", 2);
  quorvel_app_entered_background(real);
  EXPECT_TRUE(quorvel::test::eventually(
      [&] { return stores.has(QUORVEL_LOG_ERROR, "could not save preferences"); }));
  quorvel_tracker_destroy(real);
}

TEST(CApi, AnEngineReportsItsLifecycleCustomDataAndPushPayloads) {
  const Kit k;
  quorvel_tracker* t = k.tracker;
  quorvel_set_dev_key(t, "K", 1);
  const std::string custom = R"({"tier": "gold"})";
  const std::string push = R"({"qv": {"link": "app://from-push"}})";
  const struct {
    const char* what;
    quorvel_status status;
    quorvel_status expected;
  } cases[] = {
      {"custom data", quorvel_set_custom_data(t, custom.data(), custom.size()), QUORVEL_OK},
      {"custom data not an object", quorvel_set_custom_data(t, "[1]", 3),
       QUORVEL_ERROR_INVALID_ARGUMENT},
      {"push payload", quorvel_handle_push_payload(t, push.data(), push.size()), QUORVEL_OK},
      {"push payload not JSON", quorvel_handle_push_payload(t, "{", 1),
       QUORVEL_ERROR_INVALID_ARGUMENT},
      {"device tracking opt-out", quorvel_set_device_tracking_disabled(t, 1), QUORVEL_OK},
      {"receipt sandbox", quorvel_set_use_receipt_sandbox(t, 1), QUORVEL_OK},
      {"no room in the outbox", quorvel_set_outbox_limits(t, 0, 3600),
       QUORVEL_ERROR_INVALID_ARGUMENT},
      {"an age past any clock", quorvel_set_outbox_limits(t, 1 << 20, UINT64_MAX),
       QUORVEL_ERROR_INVALID_ARGUMENT},
      {"foreground", quorvel_app_entered_foreground(t), QUORVEL_OK},
  };
  for (const auto& c : cases)
    EXPECT_EQ(c.status, c.expected) << c.what;
  quorvel_testkit_advance(k.kit, 10000);

  std::string launch;
  for (size_t i = 0; i < quorvel_testkit_sent_count(k.kit); ++i) {
    char text[16384];
    size_t length = 0;
    ASSERT_EQ(quorvel_testkit_sent_service(k.kit, i, text, sizeof text, &length), QUORVEL_OK);
    const std::string service(text, length);
    ASSERT_EQ(quorvel_testkit_sent_payload(k.kit, i, text, sizeof text, &length), QUORVEL_OK);
    if (service == "t" && launch.empty())
      launch.assign(text, length);
  }
  EXPECT_NE(launch.find("gold"), std::string::npos) << launch;
  EXPECT_NE(launch.find("app://from-push"), std::string::npos) << launch;
  EXPECT_NE(launch.find(R"("deviceTrackingDisabled":"true")"), std::string::npos) << launch;

  // Removed, custom data is no longer sent.
  ASSERT_EQ(quorvel_set_custom_data(t, nullptr, 0), QUORVEL_OK);
  const size_t before = quorvel_testkit_sent_count(k.kit);
  ASSERT_EQ(quorvel_track_event(t, "after_removal", 13, nullptr, 0), QUORVEL_OK);
  quorvel_testkit_advance(k.kit, 10000);
  std::string after;
  for (size_t i = before; i < quorvel_testkit_sent_count(k.kit); ++i) {
    char text[16384];
    size_t length = 0;
    ASSERT_EQ(quorvel_testkit_sent_payload(k.kit, i, text, sizeof text, &length), QUORVEL_OK);
    after.append(text, length);
  }
  EXPECT_NE(after.find("after_removal"), std::string::npos) << after;
  EXPECT_EQ(after.find("gold"), std::string::npos) << after;
}

// A stop is kept across starts. A host configures its next start while still stopped (its
// transport and domain at create, then its callbacks, key and app id): all of it is taken and
// used once the user opts in, while tracking and what is about the user are refused as such.
TEST(CApi, OptingInAfterAKeptStopSendsWithTheConfigurationTakenWhileStopped) {
  struct Host {
    std::mutex mutex;
    std::vector<std::string> events;  // read with the key set while stopped
    std::once_flag converted;
    std::promise<void> conversion;
  } host;
  const HostFolder folder;
  quorvel_options options = folder.options(
      [](void* user, const quorvel_transport_request* r, quorvel_transport_reply* reply) {
        auto& h = *static_cast<Host*>(user);
        const auto payload =
            quorvel::test::decryptPayload("K2", {r->body, r->body + r->body_length});
        if (std::string_view(r->url, r->url_length).find("//events.svc.example/") !=
            std::string_view::npos) {
          const std::lock_guard lock(h.mutex);
          h.events.push_back(payload.is_object() ? payload.value("event", "") : "unreadable");
        }
        const std::string_view answer = R"({"status": "unpaid"})";
        quorvel_transport_respond(reply, 200, "", 0,
                                  reinterpret_cast<const uint8_t*>(answer.data()), answer.size());
      },
      &host);
  quorvel_tracker* tracker = configured(options);
  ASSERT_EQ(quorvel_set_stopped(tracker, 1), QUORVEL_OK);
  quorvel_tracker_destroy(tracker);
  options.service_domain = "svc.example";
  options.service_domain_length = 11;
  ASSERT_EQ(quorvel_tracker_create(&options, &tracker), QUORVEL_OK);
  quorvel_callbacks callbacks;
  quorvel_callbacks_init(&callbacks);
  callbacks.user_data = &host;
  callbacks.on_conversion_data = [](void* user, const char*, size_t) {
    auto& h = *static_cast<Host*>(user);
    std::call_once(h.converted, [&h] { h.conversion.set_value(); });
  };
  EXPECT_EQ(quorvel_set_callbacks(tracker, &callbacks), QUORVEL_OK);
  EXPECT_EQ(quorvel_set_dev_key(tracker, "K2", 2), QUORVEL_OK);
  EXPECT_EQ(quorvel_set_app_id(tracker, "2", 1), QUORVEL_OK);
  EXPECT_EQ(quorvel_set_outbox_limits(tracker, 1 << 20, 3600), QUORVEL_OK);
  EXPECT_EQ(quorvel_set_custom_data(tracker, "{}", 2), QUORVEL_STOPPED);
  EXPECT_EQ(quorvel_track_event(tracker, "stopped", 7, nullptr, 0), QUORVEL_STOPPED);
  ASSERT_EQ(quorvel_set_stopped(tracker, 0), QUORVEL_OK);
  EXPECT_EQ(quorvel_track_event(tracker, "running", 7, nullptr, 0), QUORVEL_OK);
  EXPECT_EQ(quorvel_get_conversion_data(tracker), QUORVEL_OK);
  EXPECT_EQ(quorvel_flush(tracker, 30000), QUORVEL_OK);
  EXPECT_EQ(host.conversion.get_future().wait_for(std::chrono::seconds(30)),
            std::future_status::ready);
  quorvel_tracker_destroy(tracker);
  EXPECT_EQ(host.events, std::vector<std::string>{"running"});
}

}  // namespace
