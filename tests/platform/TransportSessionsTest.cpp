// A host's transport under the library's sessions: a send that blocks holds neither the caller
// nor the other sends, and a send that never answers fails at the request's deadline.
#include <quorvel/Transport.h>

#include <algorithm>
#include <future>
#include <mutex>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "platform/SendTicket.h"
#include "platform/posix/PosixServices.h"
#include "support/VirtualTime.h"

namespace quorvel {
namespace {

using namespace std::chrono_literals;

// Keeps every request's `done`; the test answers when it chooses. The send of the URL given to
// `block` waits inside send() until released, as an engine's synchronous HTTP call does.
class HeldTransport final : public Transport {
 public:
  void send(TransportRequest request, TransportDone done) noexcept override {
    if (onSend)
      onSend();
    std::shared_future<void> wait;
    {
      const std::lock_guard lock(mutex_);
      urls_.push_back(request.url);
      dones_.push_back(std::move(done));
      if (!blocked_.empty() && request.url.rfind(blocked_, 0) == 0)
        wait = released_;
    }
    sent_.notify_all();
    if (wait.valid())
      wait.wait();
  }
  std::function<void()> onSend;  // on the send's thread, before anything else
  // Every send whose URL starts with `url` blocks.
  void block(std::string url) { blocked_ = std::move(url); }
  std::vector<std::string> urls() {
    const std::lock_guard lock(mutex_);
    return urls_;
  }
  void release() { release_.set_value(); }
  // Waits (bounded) until `count` sends have begun.
  bool waitForSends(std::size_t count) {
    std::unique_lock lock(mutex_);
    return sent_.wait_for(lock, 10s, [&] { return urls_.size() >= count; });
  }
  // Sends run on several lanes: their order is not the order of their tasks.
  void answer(const std::string& url, long status) {
    TransportDone done;
    {
      const std::lock_guard lock(mutex_);
      const auto it = std::find(urls_.begin(), urls_.end(), url);
      // Let go once answered, as a real transport does: a kept `done` holds its task.
      done = std::exchange(dones_.at(static_cast<std::size_t>(it - urls_.begin())), nullptr);
    }
    done(TransportResponse{status, {}, {}}, std::nullopt);
  }

 private:
  std::mutex mutex_;
  std::condition_variable sent_;
  std::vector<std::string> urls_;
  std::vector<TransportDone> dones_;
  std::string blocked_;
  std::promise<void> release_;
  std::shared_future<void> released_ = release_.get_future().share();
};

platform::URLRequest post(const std::string& url, std::chrono::milliseconds timeout = 60s) {
  return {url, "POST", {}, Bytes{'x'}, timeout};
}

TEST(TransportSessions, ABlockingSendHoldsNeitherTheCallerNorTheNextSend) {
  const auto transport = std::make_shared<HeldTransport>();
  transport->block("https://a.svc.example/1");
  const auto dispatcher = std::make_shared<platform::PosixDispatcher>();
  const auto sessions = makeTransportSessions(transport, dispatcher, "/tmp");
  const auto session = sessions->sharedSession();
  std::promise<long> second;
  auto first = session->dataTask(post("https://a.svc.example/1"), nullptr);
  auto next = session->dataTask(post("https://a.svc.example/2"),
                                [&](const auto&, const auto& response, const auto&) {
                                  second.set_value(response ? response->statusCode : -1);
                                });
  first->resume();  // returns although its send blocks
  next->resume();
  ASSERT_TRUE(transport->waitForSends(2));
  transport->answer("https://a.svc.example/2", 200);
  auto answered = second.get_future();
  ASSERT_EQ(answered.wait_for(10s), std::future_status::ready);
  EXPECT_EQ(answered.get(), 200);
  transport->release();
  transport->answer("https://a.svc.example/1", 200);  // answered, it lets go of its task
}

// Sends on real threads (they block), deadlines on the virtual clock.
class LanesOnThreads final : public platform::Dispatcher {
 public:
  std::shared_ptr<platform::DispatchQueue> makeSerialQueue(std::string label) override {
    return clock->makeSerialQueue(std::move(label));
  }
  std::shared_ptr<platform::DispatchQueue> makeDiskQueue(std::string label) override {
    return threads->makeDiskQueue(std::move(label));
  }
  std::shared_ptr<platform::DispatchQueue> mainQueue() override { return clock->mainQueue(); }
  std::shared_ptr<platform::DispatchQueue> globalQueue() override { return clock->globalQueue(); }

  std::shared_ptr<test::VirtualDispatcher> clock =
      std::make_shared<test::VirtualDispatcher>(std::make_shared<test::VirtualClock>());
  std::shared_ptr<platform::PosixDispatcher> threads =
      std::make_shared<platform::PosixDispatcher>();
};

// A task that ends before its lane is free never reaches the host's transport: cancelled (a
// stop) before it starts or while it waits, or failed at its deadline meanwhile (the library
// has sent it again by then).
TEST(TransportSessions, ATaskEndedBeforeItsLaneIsFreeNeverReachesTheTransport) {
  const auto transport = std::make_shared<HeldTransport>();
  transport->block("https://a.svc.example/busy");
  const auto dispatcher = std::make_shared<LanesOnThreads>();
  const auto session = makeTransportSessions(transport, dispatcher, "/tmp")->sharedSession();
  std::vector<std::shared_ptr<platform::URLSessionTask>> tasks;
  for (int i = 0; i < 4; ++i) {  // every lane
    tasks.push_back(
        session->dataTask(post("https://a.svc.example/busy" + std::to_string(i)), nullptr));
    tasks.back()->resume();
  }
  ASSERT_TRUE(transport->waitForSends(4));
  std::vector<std::optional<Error>> late;
  const auto timedOut = session->dataTask(
      post("https://a.svc.example/late", 1s),
      [&](const auto&, const auto&, const auto& error) { late.push_back(error); });
  timedOut->resume();
  const auto held = std::make_shared<int>(0);  // what a report's completion holds
  const auto waiting = session->dataTask(post("https://a.svc.example/waiting"),
                                         [held](const auto&, const auto&, const auto&) {});
  waiting->resume();
  waiting->cancel();
  EXPECT_FALSE(platform::taskMayHaveLeft(*waiting));  // its next copy is no repeat
  EXPECT_TRUE(platform::taskMayHaveLeft(*tasks[0]));
  const auto never = session->dataTask(post("https://a.svc.example/never"), nullptr);
  never->cancel();
  never->resume();
  for (int i = 0; i < 4; ++i) {  // one behind each lane's queue
    tasks.push_back(
        session->dataTask(post("https://a.svc.example/after" + std::to_string(i)), nullptr));
    tasks.back()->resume();
  }
  dispatcher->clock->advance(2s);
  EXPECT_EQ(held.use_count(), 1);  // cancelled, it lets its completion go at once
  ASSERT_EQ(late.size(), 1U);
  ASSERT_TRUE(late[0]);
  EXPECT_EQ(late[0]->code, -1004);  // it never left: a later copy is no repeat
  transport->release();
  ASSERT_TRUE(transport->waitForSends(8));
  for (const auto& url : transport->urls())
    EXPECT_TRUE(url.find("busy") != std::string::npos || url.find("after") != std::string::npos)
        << url;
  for (int i = 0; i < 4; ++i) {
    transport->answer("https://a.svc.example/busy" + std::to_string(i), 200);
    transport->answer("https://a.svc.example/after" + std::to_string(i), 200);
  }
  dispatcher->clock->clear();
}

// Timed out, it may have reached the service; unless the host's transport said that it still
// held the request in its queue (then it never left, and its next copy is no repeat).
TEST(TransportSessions, ASendThatNeverAnswersFailsAtItsDeadlineAndALateAnswerIsIgnored) {
  for (const bool queuedByHost : {false, true}) {
    const auto clock = std::make_shared<test::VirtualClock>();
    const auto dispatcher = std::make_shared<test::VirtualDispatcher>(clock);
    const auto transport = std::make_shared<HeldTransport>();
    transport->onSend = [queuedByHost] {
      if (queuedByHost)
        platform::currentSendTicket()->hostSays = platform::SendTicket::queued;
    };
    const auto sessions = makeTransportSessions(transport, dispatcher, "/tmp");
    std::vector<std::optional<Error>> outcomes;
    auto task = sessions->sharedSession()->dataTask(
        post("https://a.svc.example/slow", 5s),
        [&](const auto&, const auto&, const auto& error) { outcomes.push_back(error); });
    task->resume();
    dispatcher->advance(5s);  // the transport's own timeout: its answer would still count
    EXPECT_TRUE(outcomes.empty());
    dispatcher->advance(1s);
    ASSERT_EQ(outcomes.size(), 1U);
    ASSERT_TRUE(outcomes[0]);
    EXPECT_EQ(outcomes[0]->code, queuedByHost ? -1004 : -1001);
    transport->answer("https://a.svc.example/slow", 200);
    dispatcher->runUntilIdle();
    EXPECT_EQ(outcomes.size(), 1U);
    dispatcher->clear();
  }
}

}  // namespace
}  // namespace quorvel
