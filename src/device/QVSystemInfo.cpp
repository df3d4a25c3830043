#include "device/QVSystemInfo.h"

#include <cstring>
#include <memory>
#include <mutex>

#include <quorvel/Format.h>

#include "util/Utf8.h"

namespace quorvel {
namespace {

// A query's answer read as an integer of type T; nullopt when the query failed. Answers of
// another width are read at their own width, as the kernel copies what fits.
template <typename T>
std::optional<T> readInteger(const std::optional<Bytes>& answer) {
  if (!answer || answer->empty())
    return std::nullopt;
  if (answer->size() == sizeof(T)) {
    T v{};
    std::memcpy(&v, answer->data(), sizeof(T));
    return v;
  }
  if (answer->size() == 4) {
    std::int32_t v = 0;
    std::memcpy(&v, answer->data(), 4);
    return static_cast<T>(v);
  }
  if (answer->size() == 8) {
    std::int64_t v = 0;
    std::memcpy(&v, answer->data(), 8);
    return static_cast<T>(v);
  }
  return std::nullopt;
}

std::optional<std::string> readText(const std::optional<Bytes>& answer, std::size_t capacity) {
  if (!answer)
    return std::nullopt;
  std::size_t length = std::min(answer->size(), capacity);
  const auto* begin = reinterpret_cast<const char*>(answer->data());
  const auto* zero = static_cast<const char*>(std::memchr(begin, 0, length));
  if (zero != nullptr)
    length = static_cast<std::size_t>(zero - begin);
  return std::string(begin, length);
}

constexpr std::int32_t kTypeX86 = 7;
constexpr std::int32_t kTypeARM = 12;
constexpr std::int32_t kTypeARM64 = 0x0100000C;
constexpr std::int32_t kTypePowerPC = 18;

std::optional<std::string> familyName(std::uint32_t family) {
  switch (family) {
    case 0x78EA4FBC:
      return "Intel Core 2 Duo (Penryn)";
    case 0x6B5A4CD2:
      return "Intel (Nehalem)";
    case 0x573B5EEC:
      return "Intel (Westmere)";
    case 0x5490B78C:
      return "Intel Core i5/i7 (Sandy Bridge)";
    case 0x1F65E835:
      return "Intel (Ivy Bridge)";
    case 0x10B282DC:
      return "Intel Core i5/i7 (Haswell)";
    case 0x582ED09C:
      return "Intel Core M/i5/i7 (Haswell)";  // kept as shipped: a second Haswell label
    case 0x37FC219F:
      return "Intel Core M/i5/i7 (Skylake)";
    case 0xCEE41549:
      return "PowerPC G3";
    case 0x77C184AE:
      return "PowerPC G4";
    case 0xED76D8AA:
      return "PowerPC G5";
    default:
      return std::nullopt;
  }
}

}  // namespace

std::string QVSystemInfo::osVersion(const platform::Device& device) {
  std::string text = device.operatingSystemVersionString();
  if (text.rfind("Version ", 0) == 0)
    text.erase(0, 8);
  return text;
}

std::optional<std::string> QVSystemInfo::machineModel(const platform::Sysctl& sysctl) {
  return readText(sysctl.byName("hw.machine"), SIZE_MAX);
}

std::int64_t QVSystemInfo::ramSize(const platform::Sysctl& sysctl) {
  const auto bytes = readInteger<std::uint64_t>(sysctl.byName("hw.memsize"));
  return bytes ? static_cast<std::int64_t>(*bytes / 1'048'576ULL) : -1;
}

std::int64_t QVSystemInfo::cpuSpeed(const platform::Sysctl& sysctl) {
  const auto hz = readInteger<std::int64_t>(sysctl.byMib({6, 15}));
  return hz ? *hz / 1'000'000 : -1;
}

std::int32_t QVSystemInfo::cpuCount(const platform::Sysctl& sysctl) {
  return readInteger<std::int32_t>(sysctl.byName("hw.ncpu")).value_or(1);
}

bool QVSystemInfo::is64bit(const platform::Sysctl& sysctl) {
  for (const char* name : {"hw.cpu64bit_capable", "hw.optional.x86_64", "hw.optional.64bitops"}) {
    if (const auto v = readInteger<std::int32_t>(sysctl.byName(name)))
      return *v == 1;
  }
  return false;
}

std::optional<std::string> QVSystemInfo::cpuType(const platform::Sysctl& sysctl) {
  const auto type = readInteger<std::int32_t>(sysctl.byName("hw.cputype"));
  if (!type)
    return std::nullopt;
  if (*type == kTypeARM64) {
    const auto sub = readInteger<std::int32_t>(sysctl.byName("hw.cpusubtype"));
    return (sub && *sub == 1) ? "ARM64_V8" : "ARM64";
  }
  if (*type == kTypeARM) {
    const auto sub = readInteger<std::int32_t>(sysctl.byName("hw.cpusubtype"));
    if (sub && *sub == 11)
      return "ARMV7S";
    if (sub && *sub == 9)
      return "ARMV7";
    return "ARM";
  }
  if (*type == kTypeX86) {
    const auto brand = readText(sysctl.byName("machdep.cpu.brand_string"), 256);
    if (brand && !brand->empty() && isValidUtf8(*brand))
      return brand;
  }
  if (const auto family = readInteger<std::uint32_t>(sysctl.byName("hw.cpufamily"))) {
    return familyName(*family);
  }
  const auto sub = readInteger<std::int32_t>(sysctl.byName("hw.cpusubtype"));
  if (!sub)
    return std::nullopt;
  if (*type == kTypePowerPC) {
    if (*sub == 10 || *sub == 11)
      return "PowerPC G4";
    if (*sub == 100)
      return "PowerPC G5";
    if (*sub == 9)
      return "PowerPC G3";
    return std::nullopt;
  }
  if (*type == kTypeX86)
    return "Intel";
  return std::nullopt;
}

std::optional<std::string> QVSystemInfo::architecture(const platform::Sysctl& sysctl) {
  const auto type = readInteger<std::int32_t>(sysctl.byName("hw.cputype"));
  if (type && *type == kTypePowerPC)
    return "PPC";
  if (type && *type == kTypeX86)
    return "Intel";
  return std::nullopt;
}

std::optional<std::string> QVSystemInfo::language(const platform::Locale& locale) {
  const auto languages = locale.preferredLanguages();
  if (languages.empty())
    return std::nullopt;
  return languages.front();
}

namespace {

Json gatherSystemInfo(const Platform& p) {
  const auto& s = *p.sysctl;
  Json info = Json::object();
  info["osVersion"] = format("%@", QVSystemInfo::osVersion(*p.device));
  info["device_model"] = format("%@", QVSystemInfo::machineModel(s));
  info["ram_size"] = format("%lld", QVSystemInfo::ramSize(s));
  info["cpu_type"] = format("%@", QVSystemInfo::cpuType(s));
  info["cpu_speed"] = format("%lld", QVSystemInfo::cpuSpeed(s));
  info["cpu_count"] = format("%d", QVSystemInfo::cpuCount(s));
  info["cpu_64bits"] = QVSystemInfo::is64bit(s) ? "true" : "false";
  return info;
}

// None of these facts changes while the process runs, and every request carries them: they
// are gathered at a platform's first request and copied for the next ones. The platform is
// known by its services' control blocks, which a weak pointer keeps: a platform made later
// cannot be taken for an earlier one, even at the same address. The lock guards one pointer's
// copy, nothing longer, so that a fork finds it free.
class GatheredSystemInfo {
 public:
  Json get(const Platform& p) {
    if (const auto kept = load(); kept && kept->isOf(p))
      return kept->info;
    // Gathered outside the lock: two first requests at once both gather, and agree.
    auto gathered = std::make_shared<const Entry>(p.sysctl, p.device, gatherSystemInfo(p));
    Json info = gathered->info;
    {
      const std::lock_guard lock(mutex_);
      entry_.swap(gathered);
    }
    return info;
  }

 private:
  struct Entry {
    Entry(const std::shared_ptr<platform::Sysctl>& s, const std::shared_ptr<platform::Device>& d,
          Json i)
        : sysctl(s), device(d), info(std::move(i)) {}
    bool isOf(const Platform& p) const { return same(sysctl, p.sysctl) && same(device, p.device); }
    std::weak_ptr<platform::Sysctl> sysctl;
    std::weak_ptr<platform::Device> device;
    Json info;
  };
  template <typename T>
  static bool same(const std::weak_ptr<T>& kept, const std::shared_ptr<T>& now) {
    return !kept.owner_before(now) && !now.owner_before(kept);
  }
  std::shared_ptr<const Entry> load() {
    const std::lock_guard lock(mutex_);
    return entry_;
  }
  std::mutex mutex_;
  std::shared_ptr<const Entry> entry_;
};

}  // namespace

Json QVSystemInfo::getSystemInfo(const Platform& p) {
  // Never destroyed: requests may still be built while the process exits.
  static auto* const gathered = new GatheredSystemInfo();
  return gathered->get(p);
}

}  // namespace quorvel
