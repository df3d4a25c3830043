// The ledger behind flush, the exit flush and the build throttle.
#include <gtest/gtest.h>

#include "net/ReportLedger.h"

namespace quorvel {
namespace {

using namespace std::chrono_literals;

// Keeps what is posted; the test runs it.
class HeldQueue final : public platform::DispatchQueue {
 public:
  const std::string& label() const noexcept override { return label_; }
  void async(platform::Work work) noexcept override { held.push_back(std::move(work)); }
  void asyncAfter(std::chrono::nanoseconds, platform::Work work) noexcept override {
    async(std::move(work));
  }
  bool isCurrent() const noexcept override { return false; }
  std::vector<platform::Work> held;

 private:
  std::string label_ = "held";
};

TEST(ReportLedger, FlushWaitsForTheReportsOpenedBeforeItOnly) {
  ReportLedger ledger;
  auto first = ledger.open();
  auto second = ledger.open();
  const auto mark = ledger.newest();
  auto later = ledger.open();
  second.reset();  // settled out of order
  EXPECT_FALSE(ledger.waitSettled(mark, 0ms));
  {
    // Work carried on elsewhere keeps the report open.
    const ReportLedger::Scope scope(first);
    auto carried = ReportLedger::current();
    first.reset();
    EXPECT_FALSE(ledger.waitSettled(mark, 0ms));
  }
  EXPECT_TRUE(ledger.waitSettled(mark, 0ms));
  EXPECT_FALSE(ledger.waitSettled(ledger.newest(), 0ms));
  EXPECT_EQ(ledger.unsettled().size(), 1U);
}

// In order; an earlier run's reports first, but after this run's while the outbox cannot
// write (this run's live in memory only). A woken build that takes no place wakes the next.
TEST(ReportLedger, BuildsWaitForRoomAndKeepTheirOrder) {
  ReportLedger ledger(2);
  const auto writesFail = std::make_shared<std::atomic<bool>>(true);
  ledger.holdEarlierRunWhile(writesFail);
  auto queue = std::make_shared<HeldQueue>();
  std::vector<ReportLedger::TicketPtr> built = {ledger.open(), ledger.open()};
  for (auto& ticket : built)
    ticket->attach();
  std::vector<int> ran;
  ledger.buildWhenThereIsRoom(
      queue, [&] { ran.push_back(1); }, ReportLedger::Origin::earlierRun);
  ledger.buildWhenThereIsRoom(queue, [&] { ran.push_back(2); });
  ledger.buildWhenThereIsRoom(queue, [&] { ran.push_back(3); });
  EXPECT_TRUE(ran.empty());
  EXPECT_TRUE(queue->held.empty());

  // A request that failed and waits keeps its place past its report's settlement.
  auto waitingRequest = built[0]->buildPermit();
  built[0].reset();
  EXPECT_TRUE(queue->held.empty());
  waitingRequest.reset();  // its answer makes room for one
  ASSERT_EQ(queue->held.size(), 1U);
  queue->held[0]();
  ASSERT_EQ(queue->held.size(), 2U);
  writesFail->store(false);
  queue->held[1]();
  ASSERT_EQ(queue->held.size(), 3U);
  queue->held[2]();
  EXPECT_EQ(ran, (std::vector<int>{2, 3, 1}));
}

// Answers that free every place at once wake as many builds as there are places, no more,
// and a report called later waits behind those woken: never more built than the limit, and
// in the order of the calls.
TEST(ReportLedger, FreedPlacesWakeNoMoreBuildsThanTheyHold) {
  ReportLedger ledger(2);
  auto queue = std::make_shared<HeldQueue>();
  std::vector<ReportLedger::TicketPtr> built = {ledger.open(), ledger.open()};
  for (auto& ticket : built)
    ticket->attach();
  std::vector<int> ran;
  const auto attaching = [&](int n) {
    return [&, n] {
      built.push_back(ledger.open());
      built.back()->attach();
      ran.push_back(n);
    };
  };
  ledger.buildWhenThereIsRoom(queue, attaching(1));
  ledger.buildWhenThereIsRoom(queue, attaching(2));
  built.erase(built.begin(), built.begin() + 2);  // both answered
  ASSERT_EQ(queue->held.size(), 2U);
  ledger.buildWhenThereIsRoom(queue, attaching(3));  // behind the woken ones
  EXPECT_TRUE(ran.empty());
  queue->held[0]();
  queue->held[1]();
  EXPECT_EQ(queue->held.size(), 2U);  // 3 waits for room
  EXPECT_EQ(ran, (std::vector<int>{1, 2}));
}

TEST(ReportLedger, BuildsStillWaitingWhenTheTrackerEndsLetTheirReportsGo) {
  ReportLedger ledger(1);
  auto queue = std::make_shared<HeldQueue>();
  auto built = ledger.open();
  built->attach();
  // Failed after its outbox was released: its place is never given back.
  auto neverAnswered = built->buildPermit();
  built.reset();
  auto ticket = ledger.open();
  const std::weak_ptr<ReportLedger::Ticket> waiting = ticket;
  ledger.buildWhenThereIsRoom(queue, carryReport(std::move(ticket), [] {}));
  EXPECT_FALSE(waiting.expired());  // its build holds it, and through it the ledger

  ledger.dropWaiting();
  EXPECT_TRUE(waiting.expired());
  EXPECT_TRUE(ledger.waitSettled(ledger.newest(), 0ms));
  neverAnswered.reset();
  EXPECT_TRUE(queue->held.empty());  // nothing left to post
}

}  // namespace
}  // namespace quorvel
