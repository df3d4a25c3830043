#include <atomic>
#include <cstring>
#include <future>
#include <thread>

#include <gtest/gtest.h>

#include "platform/posix/PosixServices.h"
#include "support/TempDir.h"
#include "support/TestPlatform.h"

namespace quorvel::platform {
namespace {

template <typename T>
T as(const Bytes& b) {
  T v{};
  EXPECT_EQ(b.size(), sizeof(T));
  std::memcpy(&v, b.data(), std::min(sizeof(T), b.size()));
  return v;
}

TEST(LinuxSysctl, AnswersWhatLinuxHasAndNothingElse) {
  const LinuxSysctl sysctl;
  const auto machine = sysctl.byName("hw.machine");
  ASSERT_TRUE(machine);
  EXPECT_EQ(machine->back(), 0);
  EXPECT_GT(as<std::uint64_t>(*sysctl.byName("hw.memsize")), 1024ULL * 1024);
  EXPECT_GE(as<std::int32_t>(*sysctl.byName("hw.ncpu")), 1);
  ASSERT_TRUE(sysctl.byName("hw.cpu64bit_capable"));
  EXPECT_EQ(as<std::int32_t>(*sysctl.byName("hw.cpu64bit_capable")), sizeof(void*) == 8 ? 1 : 0);
  EXPECT_FALSE(sysctl.byName("hw.cpufamily"));
#if defined(__x86_64__) || defined(__i386__)
  EXPECT_EQ(as<std::int32_t>(*sysctl.byName("hw.cputype")), 7);  // read with the brand string
  EXPECT_GT(sysctl.byName("machdep.cpu.brand_string")->size(), 1U);
#endif
  EXPECT_FALSE(sysctl.byName("no.such.name"));
  EXPECT_FALSE(sysctl.byMib({1, 2}));
}

TEST(PosixNetworkInterfaces, ListsTheLoopback) {
  const auto list = PosixNetworkInterfaces().addresses();
  ASSERT_TRUE(list);
  bool loopback = false;
  for (const auto& a : *list) {
    if (a.isLoopback && a.family == InterfaceAddress::Family::ipv4)
      loopback = a.address == "127.0.0.1";
  }
  EXPECT_TRUE(loopback);
}

TEST(PosixFileSystem, LayoutDatesAndAtomicWrites) {
  test::TempDir dir;
  PosixFileSystem fs(dir / "app");
  EXPECT_TRUE(fs.fileExists(fs.libraryDirectory()));
  EXPECT_TRUE(fs.fileExists(fs.cachesDirectory()));
  EXPECT_TRUE(fs.fileExists(fs.temporaryDirectory()));
  const auto created = fs.creationDate(fs.libraryDirectory());
  ASSERT_TRUE(created);
  // A second look at the same directory gives the same date: it is not "now".
  PosixFileSystem again(dir / "app");
  EXPECT_EQ(again.creationDate(again.libraryDirectory()), created);
  EXPECT_TRUE(fs.modificationDate(fs.temporaryDirectory()));
  EXPECT_FALSE(fs.creationDate(dir / "missing"));
  // Forgotten, the install is dated anew: nothing leads back to the old date.
  const auto forgetting = std::chrono::floor<std::chrono::microseconds>(TimePoint::clock::now());
  EXPECT_TRUE(fs.forgetCreationDates());
  EXPECT_GE(fs.creationDate(fs.libraryDirectory()), forgetting);

  const std::string file = fs.cachesDirectory() + "/x.bin";
  EXPECT_TRUE(fs.writeFileAtomically(file, Bytes{1, 2, 3}));
  EXPECT_EQ(fs.readFile(file), (Bytes{1, 2, 3}));
  const auto names = fs.contentsOfDirectory(fs.cachesDirectory());
  ASSERT_TRUE(names);
  EXPECT_EQ(*names, std::vector<std::string>{"x.bin"});  // no temp files left behind
  EXPECT_TRUE(fs.removeFile(file));
  EXPECT_FALSE(fs.readFile(file));
  EXPECT_FALSE(fs.contentsOfDirectory(dir / "missing"));
}

TEST(PosixLocaleAndDevice, ProbesGiveUsableValues) {
  const PosixLocale locale;
  EXPECT_FALSE(locale.localeIdentifier().empty());
  EXPECT_FALSE(locale.preferredLanguages().empty());
  const PosixDevice device(std::string("dev-box"), std::nullopt, true);
  EXPECT_FALSE(device.systemVersion().empty());
  EXPECT_TRUE(device.isMultitaskingSupported());
  EXPECT_EQ(PosixDevice(std::nullopt, std::string("9.3"), false).systemVersion(), "9.3");
  // Whatever the distribution's version, the platform has the background capabilities.
  for (const char* version : {"3.18", "7", "9.3", ""})
    EXPECT_EQ(PosixDevice(std::nullopt, std::string(version), true).capabilities(),
              platform::SystemCapabilities{})
        << version;
}

TEST(OpenSslRandom, BoundedIntegersStayInRange) {
  OpenSslRandom random;
  for (int i = 0; i < 1000; ++i) {
    const auto v = random.uniform(9'999'999);
    EXPECT_LT(v, 9'999'999U);
  }
  EXPECT_EQ(random.uniform(0), 0U);
  EXPECT_EQ(random.uniform(1), 0U);
  Bytes a(16);
  Bytes b(16);
  EXPECT_EQ(random.fill(a), 0);
  EXPECT_EQ(random.fill(b), 0);
  EXPECT_NE(a, b);
}

TEST(NotificationCenter, ASubscriptionOutlivesNoneOfItsHandlersCalls) {
  const auto center = std::make_shared<InProcessNotificationCenter>();
  std::atomic<int> calls = 0;
  std::atomic<bool> resetStarted = false;
  std::atomic<bool> handlerReturned = false;
  std::promise<void> entered;
  NotificationSubscription subscription(center, "n", [&](const Notification&) {
    ++calls;
    entered.set_value();
    while (!resetStarted)
      std::this_thread::yield();
    handlerReturned = true;
  });
  std::thread poster([&] { center->post({"n", Json()}); });
  entered.get_future().wait();
  // Ending the subscription while its handler runs elsewhere waits for that call.
  resetStarted = true;
  subscription.reset();
  EXPECT_TRUE(handlerReturned);
  poster.join();
  center->post({"n", Json()});
  EXPECT_EQ(calls, 1);

  // A handler may end its own subscription; later posts do not reach it.
  NotificationSubscription self;
  self = NotificationSubscription(center, "m", [&](const Notification&) {
    ++calls;
    self.reset();
  });
  center->post({"m", Json()});
  center->post({"m", Json()});
  EXPECT_EQ(calls, 2);
  EXPECT_FALSE(self.active());
}

}  // namespace
}  // namespace quorvel::platform
