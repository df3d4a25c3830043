// The C API: a whole session written in C, and the guarantee that no callback reaches the
// host once it has destroyed its handle.
#include <gtest/gtest.h>

#include <quorvel/quorvel_testkit.h>

#include <atomic>
#include <thread>

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

}  // namespace
