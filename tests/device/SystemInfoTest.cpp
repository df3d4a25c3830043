#include <cstring>

#include <gtest/gtest.h>

#include "device/QVSystemInfo.h"
#include "support/TestPlatform.h"

namespace quorvel {
namespace {

template <typename T>
Bytes raw(T v) {
  Bytes b(sizeof(T));
  std::memcpy(b.data(), &v, sizeof(T));
  return b;
}
Bytes text(const std::string& s) {
  Bytes b(s.begin(), s.end());
  b.push_back(0);
  return b;
}

TEST(SystemInfo, CpuTypeTable) {
  struct Case {
    const char* name;
    std::optional<std::int32_t> type;
    std::optional<std::int32_t> subtype;
    std::optional<std::uint32_t> family;
    std::optional<std::string> brand;
    std::optional<std::string> want;
  };
  const Case cases[] = {
      {"no type", std::nullopt, 1, std::nullopt, std::nullopt, std::nullopt},
      {"arm64 v8", 0x0100000C, 1, std::nullopt, std::nullopt, "ARM64_V8"},
      {"arm64 other", 0x0100000C, 2, std::nullopt, std::nullopt, "ARM64"},
      {"armv7s", 12, 11, std::nullopt, std::nullopt, "ARMV7S"},
      {"arm", 12, 6, std::nullopt, std::nullopt, "ARM"},
      {"x86 brand first", 7, 3, 0x10B282DC, "Intel(R) Xeon(R) CPU", "Intel(R) Xeon(R) CPU"},
      {"x86 bad utf8 brand", 7, 3, 0x582ED09C, "\xff\xfe", "Intel Core M/i5/i7 (Haswell)"},
      {"x86 family", 7, 3, 0x37FC219F, std::nullopt, "Intel Core M/i5/i7 (Skylake)"},
      {"x86 unknown family", 7, 3, 0x12345678, std::nullopt, std::nullopt},
      {"x86 no family", 7, 3, std::nullopt, std::nullopt, "Intel"},
      {"ppc family", 18, 10, 0x77C184AE, std::nullopt, "PowerPC G4"},
      {"ppc g5", 18, 100, std::nullopt, std::nullopt, "PowerPC G5"},
      {"ppc other", 18, 1, std::nullopt, std::nullopt, std::nullopt},
      {"other type", 99, 1, std::nullopt, std::nullopt, std::nullopt},
      {"family for a non-x86", 99, 1, 0xCEE41549, "ignored brand", "PowerPC G3"},
  };
  for (const auto& c : cases) {
    test::FakeSysctl s;
    if (c.type)
      s.byNameAnswers["hw.cputype"] = raw(*c.type);
    if (c.subtype)
      s.byNameAnswers["hw.cpusubtype"] = raw(*c.subtype);
    if (c.family)
      s.byNameAnswers["hw.cpufamily"] = raw(*c.family);
    if (c.brand)
      s.byNameAnswers["machdep.cpu.brand_string"] = text(*c.brand);
    EXPECT_EQ(QVSystemInfo::cpuType(s), c.want) << c.name;
  }
}

TEST(SystemInfo, NumbersAndTheirFailureValues) {
  test::FakeSysctl s;
  EXPECT_EQ(QVSystemInfo::ramSize(s), -1);
  EXPECT_EQ(QVSystemInfo::cpuSpeed(s), -1);
  EXPECT_EQ(QVSystemInfo::cpuCount(s), 1);
  EXPECT_FALSE(QVSystemInfo::machineModel(s));
  s.byNameAnswers["hw.memsize"] = raw<std::uint64_t>(2'147'483'648ULL);
  s.byMibAnswers[{6, 15}] = raw<std::int64_t>(2'399'999'999LL);
  s.byNameAnswers["hw.ncpu"] = raw<std::int32_t>(6);
  s.byNameAnswers["hw.machine"] = text("iPhone10,3");
  EXPECT_EQ(QVSystemInfo::ramSize(s), 2048);
  EXPECT_EQ(QVSystemInfo::cpuSpeed(s), 2399);
  EXPECT_EQ(QVSystemInfo::cpuCount(s), 6);
  EXPECT_EQ(QVSystemInfo::machineModel(s), "iPhone10,3");
}

TEST(SystemInfo, SixtyFourBitTakesTheFirstQueryThatAnswers) {
  struct Case {
    std::optional<std::int32_t> capable, x86_64, ops;
    bool want;
  };
  const Case cases[] = {{1, 0, 0, true},
                        {0, 1, 1, false},
                        {std::nullopt, 1, 0, true},
                        {std::nullopt, std::nullopt, 1, true},
                        {std::nullopt, std::nullopt, 2, false},
                        {std::nullopt, std::nullopt, std::nullopt, false}};
  for (const auto& c : cases) {
    test::FakeSysctl s;
    if (c.capable)
      s.byNameAnswers["hw.cpu64bit_capable"] = raw(*c.capable);
    if (c.x86_64)
      s.byNameAnswers["hw.optional.x86_64"] = raw(*c.x86_64);
    if (c.ops)
      s.byNameAnswers["hw.optional.64bitops"] = raw(*c.ops);
    EXPECT_EQ(QVSystemInfo::is64bit(s), c.want);
  }
}

TEST(SystemInfo, DictionaryOfStrings) {
  test::TestPlatform fakes;
  fakes.device->osVersionString = "Version 10.3 (Build 14E277)";
  fakes.sysctl->byNameAnswers["hw.cputype"] = raw<std::int32_t>(0x0100000C);
  fakes.sysctl->byNameAnswers["hw.cpusubtype"] = raw<std::int32_t>(1);
  fakes.sysctl->byNameAnswers["hw.memsize"] = raw<std::uint64_t>(3ULL << 30);
  fakes.sysctl->byNameAnswers["hw.cpu64bit_capable"] = raw<std::int32_t>(1);
  const Json info = QVSystemInfo::getSystemInfo(fakes.platform());
  EXPECT_EQ(info, Json::parse(R"json({"osVersion": "10.3 (Build 14E277)", "device_model": "(null)",
      "ram_size": "3072", "cpu_type": "ARM64_V8", "cpu_speed": "-1", "cpu_count": "1",
      "cpu_64bits": "true"})json"));
  // Gathered once per platform: its services are not asked again; another platform's are.
  fakes.sysctl->byNameAnswers["hw.memsize"] = raw<std::uint64_t>(1ULL << 30);
  EXPECT_EQ(QVSystemInfo::getSystemInfo(fakes.platform())["ram_size"], "3072");
  test::TestPlatform other;
  other.sysctl->byNameAnswers["hw.memsize"] = raw<std::uint64_t>(1ULL << 30);
  EXPECT_EQ(QVSystemInfo::getSystemInfo(other.platform())["ram_size"], "1024");
  fakes.device->osVersionString = "12.1";
  EXPECT_EQ(QVSystemInfo::osVersion(*fakes.device), "12.1");
  EXPECT_EQ(QVSystemInfo::architecture(*fakes.sysctl), std::nullopt);
  fakes.sysctl->byNameAnswers["hw.cputype"] = raw<std::int32_t>(18);
  EXPECT_EQ(QVSystemInfo::architecture(*fakes.sysctl), "PPC");
  EXPECT_EQ(QVSystemInfo::language(*fakes.locale), "en-US");
}

}  // namespace
}  // namespace quorvel
